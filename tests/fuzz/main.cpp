// The whole tool over a device of the layout FUZZ_LAYOUT with a super block that may hold anything.
// Parts of an input: the super block, then the records of some entries, each after its number in
// two bytes; the rest is the repair file. The entries lie where the super block has the table of
// the command.

#include "contract.h"
#include "entries.h"
#include "input.h"
#include "layouts.h"
#include "mutation.h"
#include "run.h"

#include <string>

using namespace tier_fuzz;

namespace {

constexpr int LAYOUT = FUZZ_LAYOUT;

// The head, byte by byte: command, flags, more flags, filters, the fault and its turn, forced
// version, spare, then in four bytes each the number of an entry and the owner.
constexpr std::size_t HEAD = 16;
enum HeadByte : std::uint8_t {
    COMMAND,
    FLAGS,
    WORLD,
    FILTERS,
    FAULT,
    TURN,
    VERSION,
    NUMBER = 8,
    OWNER = 12
};

// FLAGS
constexpr std::uint8_t COMMIT = 1;
constexpr std::uint8_t FORCE = 2;
constexpr std::uint8_t DEBUG = 4;
constexpr std::uint8_t LOG = 8;
constexpr std::uint8_t OUTPUT = 16;
constexpr std::uint8_t NAMED = 32;
constexpr std::uint8_t FILTER = 64;
constexpr std::uint8_t FORCED_VERSION = 128;

// WORLD
constexpr std::uint8_t HOLES = 1;         // can be read
constexpr std::uint8_t NO_FILE = 2;       // no repair file is named
constexpr std::uint8_t MISSING_FILE = 4;  // it does not exist
constexpr std::uint8_t LOG_DIRECTORY = 8; // the default one exists
constexpr std::uint8_t BAD_OUTPUT = 16;   // the output cannot be opened: it is the device
constexpr std::uint8_t OUTPUT_FULL = 32;
constexpr std::uint8_t EXPANSION = 64; // the entries are expansion inodes

// FILTERS: two bits each for use and error, then whether there is an owner and an identity
constexpr std::uint8_t BY_OWNER = 16;
constexpr std::uint8_t BY_ID = 32;

constexpr std::size_t ENTRIES = 3;
constexpr std::size_t PARTS = 1 + ENTRIES;

zutr_cmd_t command_of(View head)
{
    return static_cast<zutr_cmd_t>(head[COMMAND] % ZUTR_CMD_MAXVALUE);
}

// The table that a command is about.
Place place_of(View head)
{
    switch (command_of(head)) {
    case ZUTR_CMD_DUMP_BRICK:
    case ZUTR_CMD_REPAIR_BRICK:
        return {LAYOUT, Table::brick};
    case ZUTR_CMD_DUMP_INODE:
    case ZUTR_CMD_REPAIR_INODE:
        return {LAYOUT,
                LAYOUT == 2 && (head[WORLD] & EXPANSION) != 0 ? Table::exp_inode : Table::inode};
    case ZUTR_CMD_DUMP_SHARD:
    case ZUTR_CMD_REPAIR_SHARD:
        return {LAYOUT, LAYOUT == 3 ? Table::shard : Table::extent};
    case ZUTR_CMD_DUMP_HOT_TABLE:
    case ZUTR_CMD_REPAIR_HOT_TABLE:
        return {LAYOUT, LAYOUT == 3 ? Table::hot : Table::extent};
    default:
        return {LAYOUT, Table::extent};
    }
}

// The identity of the first entry, as a filter would name it.
std::string identity(const Input &input)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    const Bytes block = as_block(record_of(input.parts[1]));
    std::string id;
    if (place_of(input.head).table == Table::brick) {
        id.assign(reinterpret_cast<const char *>(block.data() + 32), 127);
        id.resize(std::min(id.find('\0'), id.size()));
        std::ranges::replace_if(
            id, [](char c) { return c == ',' || c == '='; }, '_');
        return id;
    }
    for (std::size_t at = 40; at < 56; at++) {
        const bool dash = at == 44 || at == 46 || at == 48 || at == 50;
        id += dash ? "-" : "";
        id += DIGITS[block[at] / 16];
        id += DIGITS[block[at] % 16];
    }
    return id;
}

std::string filter_of(const Input &input)
{
    const std::uint8_t filters = input.head[FILTERS];
    std::string text =
        "use=" + std::to_string(filters % 4 - 1) + ",error=" + std::to_string(filters / 4 % 4 - 1);
    if ((filters & BY_OWNER) != 0) {
        text += ",owner=" + std::to_string(get<std::int32_t>(input.head, OWNER));
    }
    if ((filters & BY_ID) != 0) {
        text += ",id=" + identity(input);
    }
    return text;
}

std::vector<std::string> arguments_of(const Input &input)
{
    const std::uint8_t flags = input.head[FLAGS];
    const std::uint8_t around = input.head[WORLD];
    const char *command = s_command_name[command_of(input.head)];
    std::vector<std::string> arguments = {"zu_tier", "-p", DEVICE_NAME, "-c",
                                          command != nullptr ? command : "restore_inode"};
    const auto add = [&](bool wanted, std::initializer_list<std::string> more) {
        if (wanted) {
            arguments.insert(arguments.end(), more);
        }
    };
    add((flags & COMMIT) != 0, {"-y"});
    add((flags & FORCE) != 0, {"-F"});
    add((flags & DEBUG) != 0, {"-D"});
    add((flags & LOG) != 0, {"-l", LOG_NAME});
    add((flags & OUTPUT) != 0, {"-o", (around & BAD_OUTPUT) != 0 ? DEVICE_NAME : OUTPUT_NAME});
    add((flags & NAMED) != 0, {"-n", std::to_string(get<std::int32_t>(input.head, NUMBER))});
    add((flags & FILTER) != 0, {"-g", filter_of(input)});
    add((flags & FORCED_VERSION) != 0, {"-v", std::to_string(input.head[VERSION] % 6)});
    add((around & NO_FILE) == 0, {"-f", (around & MISSING_FILE) != 0 ? "missing" : REPAIR_NAME});
    return arguments;
}

void put_device(const Input &input)
{
    const Bytes super = as_block(input.parts[0]);
    put_entries(world.device, place_of(input.head), super, std::span(input.parts).subspan(1));
    world.device.put(BLOCK, super);
    world.device.fail(static_cast<Fault>(input.head[FAULT] % static_cast<int>(Fault::COUNT)),
                      input.head[TURN]);
    if ((input.head[WORLD] & HOLES) != 0) {
        world.device.make_holes_readable();
    }
}

// A dump that has succeeded was printed to its end.
void check_printed(zutr_cmd_t command, const Outcome &outcome)
{
    if (outcome.ending == Ending::returned && outcome.value == 0 &&
        command < ZUTR_CMD_RESTORE_BRICK && !world.printed.empty()) {
        const char last = world.printed.back();
        require(last == '}' || last == ']', "a dump is printed to its end");
    }
}

// Whether a device in memory can be read on as long as the table has entries.
bool is_long(const Input &input)
{
    constexpr std::uint64_t SHORT = 256;
    const Bytes super = as_block(input.parts[0]);
    const Place place = place_of(input.head);
    std::uint64_t entries = entry_count(place, super);
    if (LAYOUT == 2 && place.table == Table::inode) {
        entries += entry_count({LAYOUT, Table::exp_inode}, super);
    }
    return entries > SHORT || place.table == Table::exp_inode;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const Input input = split({data, size}, HEAD, PARTS);
    const std::uint8_t flags = input.head[FLAGS];
    const std::uint8_t around = input.head[WORLD];
    world.reset();
    world.repair_file = input.rest;
    world.default_log_directory = (around & LOG_DIRECTORY) != 0;
    world.output_full = (around & OUTPUT_FULL) != 0;
    put_device(input);
    const Situation situation = {.command = command_of(input.head),
                                 .commit = (flags & COMMIT) != 0,
                                 .log = (flags & LOG) != 0 || world.default_log_directory,
                                 .forced_version =
                                     (flags & FORCED_VERSION) != 0 && input.head[VERSION] % 6 != 0};
    const Outcome outcome = run_tool(arguments_of(input));
    check_contract(outcome, situation);
    check_printed(situation.command, outcome);
    require(outcome.ending != Ending::cut_short || is_long(input) ||
                situation.command == ZUTR_CMD_CONVERT_SUPER,
            "a walk ends with its table");
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
        input.head[mutation.below(HEAD)] ^= static_cast<std::uint8_t>(1U << mutation.below(8));
        break;
    case 2:
    case 3:
        mutate_super(mutation, LAYOUT, input.parts[0]);
        break;
    case 4:
    case 5:
        mutate_entry(mutation, place_of(input.head), as_block(input.parts[0]),
                     input.parts[1 + mutation.below(ENTRIES)]);
        break;
    default:
        mutation.json(input.rest, most - std::min(most, size - input.rest.size()));
    }
    return join(input, data, most);
}
