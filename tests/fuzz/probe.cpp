// The V2 probe and the checks of the expansion area: convert_super and repair_super over a device
// whose extents and expansion inodes fit the repair file, or nearly. Parts of an input: the record
// of the 256 extents that the probe reads, and that of the expansion inodes; the rest is the repair
// file.

#include "contract.h"
#include "input.h"
#include "layouts.h"
#include "mutation.h"
#include "run.h"
#include "zu_tier/format/v2.h"
#include "zu_tier/record/json.h"

#include <cstdlib>
#include <string>

using namespace tier_fuzz;

namespace {

// The head, byte by byte: flags, mapped pieces of an extent, MiB of extents that cannot be read
// before those that can, spoilt extent, the fault and its turn.
constexpr std::size_t HEAD = 6;
enum HeadByte : std::uint8_t { FLAGS, MAP_CNT, UNREADABLE, SPOILT, FAULT, TURN };
constexpr std::uint8_t REPAIR = 1; // repair_super, not convert_super
constexpr std::uint8_t COMMIT = 2;
constexpr std::uint8_t FORCE = 4;
constexpr std::uint8_t SPOIL = 8;        // one extent
constexpr std::uint8_t SPOIL_FIRST = 16; // expansion inode
constexpr std::uint8_t SPOIL_LAST = 32;
constexpr std::uint8_t LOG = 64;
constexpr std::uint8_t NO_FILE = 128;

constexpr std::size_t PARTS = 2;
enum Part : std::uint8_t { EXTENT, INODE };

constexpr std::uint32_t PROBED = 256;
constexpr std::uint32_t HOT_SIZE = 64;

// The repair file as the tool sees it: its numbers are exact.
zutr_json load_repair_file()
{
    zutr_json file;
    run([&] {
        file = zutr_json_load(REPAIR_NAME);
        return 0;
    });
    return file;
}

std::uint64_t number(const cJSON *file, const char *key, std::uint64_t (*convert)(long double))
{
    const cJSON *item = cJSON_GetObjectItem(file, key);
    return cJSON_IsNumber(item) ? convert(zutr_json_number(item)) : 0;
}

std::uint32_t count(const cJSON *file, const char *key)
{
    return static_cast<std::uint32_t>(number(file, key, zutr_to_s64));
}

// The super block that the repair file describes, as far as it places things.
tier_super_block_v2_t described(const cJSON *file)
{
    tier_super_block_v2_t sb{};
    sb.sb_size = count(file, "super block size");
    sb.sb_brick_table_size = number(file, "brick_table_size", zutr_to_u64);
    sb.sb_inode_table_size = number(file, "inode_table_size", zutr_to_u64);
    sb.sb_data_offset = number(file, "data_offset", zutr_to_u64);
    sb.sb_inode_cnt = count(file, "inode_cnt");
    sb.sb_block_size = count(file, "block_size");
    sb.sb_block_cnt = count(file, "block_cnt");
    sb.sb_extent_size = count(file, "extent_size");
    return sb;
}

// An extent under the checksum for the count of pieces that the head names.
Bytes sound_extent(const Input &input, const tier_super_block_v2_t &sb)
{
    Bytes extent = as_block(input.parts[EXTENT]);
    const std::size_t size = std::clamp<std::size_t>(
        sb.sb_extent_size + std::size_t{input.head[MAP_CNT]} * 16 + HOT_SIZE, 4, BLOCK);
    put(extent, 0, crc32(std::span(extent).subspan(4, size - 4)));
    return extent;
}

// One MiB of extents, all of them the same.
void put_extents(const Input &input, const tier_super_block_v2_t &sb)
{
    Bytes extent = sound_extent(input, sb);
    const std::int64_t unreadable = std::int64_t{input.head[UNREADABLE]} * SIZE_1M;
    const std::int64_t start = zutr_advance(tier_extents(sb).start, unreadable);
    world.device.put(start, extent, PROBED);
    if ((input.head[FLAGS] & SPOIL) != 0) {
        extent[0] ^= 1;
        world.device.put(zutr_advance(start, std::int64_t{input.head[SPOILT]} * SIZE_4K), extent);
    }
}

void put_inode(const Input &input, const tier_super_block_v2_t &sb, std::uint32_t no, bool spoil)
{
    const Place area = {2, Table::exp_inode};
    const View super(reinterpret_cast<const std::uint8_t *>(&sb), sizeof(sb));
    Bytes inode = as_block(input.parts[INODE]);
    seal(area, super, no, inode);
    inode[0] ^= spoil ? 1 : 0;
    world.device.put(entry_offset(area, super, no), inode);
}

// Whether the repair file is of an older super block, for which the pieces must be found.
bool asks_for_probe(const cJSON *file)
{
    const char *version = cJSON_GetStringValue(cJSON_GetObjectItem(file, "version"));
    return version != nullptr && std::strtoul(version, nullptr, 16) == TIER_OLD_VERSION;
}

// The pieces that a conversion has found are those that the extents have.
void check_converted(const Input &input, const tier_super_block_v2_t &sb)
{
    const std::size_t at = world.printed.rfind("\"map_cnt\":");
    require(at != std::string::npos, "a converted super block shows its pieces");
    const std::size_t found = std::strtoul(world.printed.c_str() + at + 10, nullptr, 10);
    const std::size_t size = sb.sb_extent_size + found * 16 + HOT_SIZE;
    require((input.head[FLAGS] & SPOIL) == 0, "a spoilt extent fits no count of pieces");
    require(found <= EXTENT_HOT_LEN && size <= BLOCK, "an extent fits its slot");
    const Bytes extent = sound_extent(input, sb);
    require(get<std::uint32_t>(extent, 0) == crc32(View(extent).subspan(4, size - 4)),
            "the pieces are those of the extents");
}

std::vector<std::string> arguments_of(std::uint8_t flags)
{
    std::vector<std::string> arguments = {"zu_tier",
                                          "-v",
                                          "2",
                                          "-p",
                                          DEVICE_NAME,
                                          "-c",
                                          (flags & REPAIR) != 0 ? "repair_super" : "convert_super",
                                          "-f",
                                          (flags & NO_FILE) != 0 ? "missing" : REPAIR_NAME};
    if ((flags & LOG) != 0) {
        arguments.insert(arguments.end(), {"-l", LOG_NAME});
    }
    if ((flags & COMMIT) != 0) {
        arguments.emplace_back("-y");
    }
    if ((flags & FORCE) != 0) {
        arguments.emplace_back("-F");
    }
    return arguments;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const Input input = split({data, size}, HEAD, PARTS);
    const std::uint8_t flags = input.head[FLAGS];
    world.reset();
    world.repair_file = input.rest;
    const zutr_json file = load_repair_file();
    const tier_super_block_v2_t sb = described(file.get());
    put_extents(input, sb);
    put_inode(input, sb, 0, (flags & SPOIL_FIRST) != 0);
    put_inode(input, sb, count(file.get(), "exp_inode_cnt") - 1, (flags & SPOIL_LAST) != 0);
    world.device.fail(static_cast<Fault>(input.head[FAULT] % static_cast<int>(Fault::COUNT)),
                      input.head[TURN]);
    const Situation situation = {.command = (flags & REPAIR) != 0 ? ZUTR_CMD_REPAIR_SUPER
                                                                  : ZUTR_CMD_CONVERT_SUPER,
                                 .commit = (flags & COMMIT) != 0,
                                 .log = (flags & LOG) != 0,
                                 .forced_version = true};
    const Outcome outcome = run_tool(arguments_of(flags));
    check_contract(outcome, situation);
    require(outcome.ending != Ending::cut_short || asks_for_probe(file.get()),
            "only a probe reads on");
    if (outcome.ending == Ending::returned && outcome.value == 0 &&
        situation.command == ZUTR_CMD_CONVERT_SUPER && asks_for_probe(file.get())) {
        check_converted(input, sb);
    }
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t most, unsigned seed)
{
    Mutation mutation(seed);
    Input input = split({data, size}, HEAD, PARTS);
    switch (mutation.below(8)) {
    case 0:
        mutation.bytes(input.head);
        break;
    case 1:
        mutation.bytes(input.parts[EXTENT], 64);
        break;
    case 2:
        mutation.bytes(input.parts[INODE], 96);
        break;
    default:
        mutation.json(input.rest, most - std::min(most, size - input.rest.size()));
    }
    return join(input, data, most);
}
