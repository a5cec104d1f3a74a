#include "configuration_keys.h"
#include "packed_table.h"

#include <algorithm>

namespace tier_test {

namespace {

constexpr std::uint32_t SLOT = 5; // of the sample entries

SuperV3 super()
{
    return super_v3(3, 4);
}

void seal_extents(Block &block)
{
    const std::uint32_t crc = extent_block_crc(block);
    for (std::size_t bit = 0; bit < 32; ++bit)
        block[8 * bit] = static_cast<std::uint8_t>((block[8 * bit] & 0xFEU) | (crc >> bit & 1U));
}

auto word(Block &block, std::uint64_t slot)
{
    return block.begin() + static_cast<std::ptrdiff_t>(8 * slot);
}

// Of the number of an entry only the place in the block counts.
ConfigKey slot_key(const std::string &name, bool slot_0)
{
    ConfigKey key = number(name.c_str(), 0, 64, Taken::UNSIGNED_64);
    key.sample = std::to_string(SLOT);
    key.more = {"511", "512", "513", "1024"};
    key.apply = [](Made &made, std::uint64_t value) {
        Block moved = made.block;
        std::fill_n(word(moved, SLOT), 8, std::uint8_t{0});
        std::copy_n(word(made.block, SLOT), 8, word(moved, value % 512));
        made.block = moved;
    };
    if (!slot_0)
        key.refuse = [](std::uint64_t value) {
            return value % 512 != 0 ? std::string() : std::string("shards_json sno: 0 invalid");
        };
    return key;
}

// A field of the sample entry: bits of its word.
ConfigKey field(const char *name, unsigned shift, unsigned width, Needed needed = Needed::IN_USE)
{
    ConfigKey key = number(name, 8 * SLOT, width, Taken::UNSIGNED_64, needed);
    key.shift = shift;
    return key;
}

// The place of the block, from the start of its area to that of the next.
ConfigKey offset_key(std::uint64_t start, std::uint64_t end, std::uint64_t target)
{
    ConfigKey key = number("meta_offset", 0, 64, Taken::UNSIGNED_64);
    key.sample = std::to_string(target);
    for (const std::uint64_t value :
         {start - 1, start, start + 1, start + 4096, end - 4096, end - 1, end, end + 1})
        key.more.push_back(std::to_string(value));
    key.apply = [](Made &made, std::uint64_t value) { made.target = value; };
    key.refuse = [start, end](std::uint64_t value) {
        return value >= start && value < end
                   ? std::string()
                   : text("meta_offset: %ld invalid", static_cast<std::int64_t>(value));
    };
    return key;
}

// A table of blocks with the key for their place alone.
ConfigTable blocks(const char *name, const char *command, int code, const char *parser,
                   std::uint64_t start, std::uint64_t end)
{
    const std::uint64_t target = start + 4096;
    return {
        .name = name,
        .command = command,
        .code = code,
        .parser = parser,
        .device = [] { return make_v3_device(super()); },
        .sample = {.target = target},
        .keys = {offset_key(start, end, target)},
        .place = [](const Made &made) { return static_cast<std::int64_t>(made.target); },
        .seal = [](Block &) {},
    };
}

// The blocks with an array of entries, and one of these.
std::vector<ConfigTable> with_entries(const ConfigTable &bare, const std::string &array,
                                      const std::string &item, const char *entry_name,
                                      const std::vector<ConfigKey> &entry_keys)
{
    ConfigTable entries = bare;
    entries.name = entry_name;
    entries.keys = entry_keys;
    const std::string entry = object_text(entries);

    ConfigTable table = bare;
    table.keys.push_back({
        .name = array,
        .holds = Holds::ARRAY,
        .sample = "[" + entry + "]",
        .texts = {{"[5]", item + " index: 0 invalid"},
                  {"[null]", item + " index: 0 invalid"},
                  {"[" + entry + ",\"text\"]", item + " index: 1 invalid"},
                  {"[{}]", "parse " + entry_keys.front().name + " failed"}},
        .mistyped = array + "_json is invalid. shards_json:<address>",
        .missing = array + "_json is invalid. shards_json:(nil)",
    });
    entries.before =
        "{\"meta_offset\":" + std::to_string(bare.sample.target) + ",\"" + array + "\":[";
    entries.behind = "]}";
    return {table, entries};
}

std::vector<ConfigTable> shard_configs()
{
    const SuperV3 sb = super();
    ConfigTable table = blocks("ShardBlockV3", "repair_shard", 13, "parse_shard_from_json_v3",
                               sb.shard_table_offset, sb.hot_table_offset);
    table.seal = [](Block &block) { seal(block, BLOCK_SIZE); };
    table.sample.block = encode(ShardBlockV3{
        .shards = {{.slot = SLOT, .ino = 0x3FFFE, .reserved = 0x1FFD, .index = 0xFFFF'FFFCU}}});
    return with_entries(table, "shards", "shards_json", "ShardV3",
                        {slot_key("sno", false), field("ino", 0, 18), field("index", 32, 32),
                         field("reserved", 19, 13, Needed::OPTIONAL)});
}

std::vector<ConfigTable> extent_block_configs()
{
    const SuperV3 sb = super();
    ConfigTable table = blocks("ExtentBlockV3", "repair_extent", 12, "parse_extent_from_json_v3",
                               sb.extent_table_offset, sb.data_offset);
    table.seal = seal_extents;
    table.sample.block = encode(ExtentBlockV3{.extents = {{.slot = SLOT,
                                                           .lba = 0x7FFFE,
                                                           .shard = 0x7FFFD,
                                                           .dirty = 1,
                                                           .bitmap = 0xFFFC,
                                                           .sense = 0xB,
                                                           .demote = 1,
                                                           .dm_err = 1,
                                                           .reserved = 1}}});
    return with_entries(
        table, "extents", "extent_json", "PackedExtentV3",
        {slot_key("eno", true), field("lba", 1, 19), field("shard", 20, 19), field("dirty", 39, 1),
         field("bitmap", 40, 16), field("sense", 57, 4, Needed::OPTIONAL),
         field("demote", 61, 1, Needed::OPTIONAL), field("dm_err", 62, 1, Needed::OPTIONAL),
         field("reserved", 63, 1, Needed::OPTIONAL)});
}

} // namespace

std::vector<ConfigTable> packed_configs()
{
    const SuperV3 sb = super();
    std::vector<ConfigTable> all = shard_configs();
    for (const ConfigTable &table : extent_block_configs())
        all.push_back(table);
    all.push_back(blocks("HotV3", "repair_hot", 14, "parse_hot_table_from_json_v3",
                         sb.hot_table_offset, sb.extent_table_offset));
    return all;
}

} // namespace tier_test
