// The tables of version 3 that are dumped and repaired by blocks.

#include "packed_table.h"
#include "parsed.h"
#include "scenarios.h"

namespace tier_test {

namespace {

constexpr std::uint64_t PACKED_BLOCKS = 3; // of each table; the last one is damaged

template <class T>
std::uint64_t place_of(const T &table, std::uint64_t block)
{
    return static_cast<std::uint64_t>(table.offset(packed_super(PACKED_BLOCKS), block));
}

template <class T>
Device spoilt_device()
{
    const T &table = block_table<T>();
    Device device = make_v3_device(packed_super(PACKED_BLOCKS));
    Block damaged = device.block(place_of(table, PACKED_BLOCKS - 1));
    damaged[BLOCK_SIZE - 1] ^= 1;
    device.write(place_of(table, PACKED_BLOCKS - 1), damaged);
    return device;
}

template <class T>
SweptCommand dumps(const T &table)
{
    std::vector<std::int64_t> offsets;
    for (std::uint64_t no = 0; no < PACKED_BLOCKS; ++no)
        offsets.push_back(table.offset(packed_super(PACKED_BLOCKS), no));
    const std::string unreadable = unreadable_table(table.number_key.c_str(), offsets);
    return {"V3_" + table.dump,
            spoilt_device<T>,
            {{.name = "walk", .args = {"-c", table.dump}, .degraded = {unreadable}},
             {.name = "to a file",
              .args = {"-c", table.dump, "-g", "error=1"},
              .to_file = true,
              .degraded = {unreadable}},
             {.name = "without a log",
              .args = {"-c", table.dump, "-g", "error=0"},
              .logged = false,
              .degraded = {"[]"}},
             {.name = "block", .args = {"-c", table.dump, "-n", "1"}},
             {.name = "no such block",
              .args = {"-c", table.dump, "-n", std::to_string(PACKED_BLOCKS)},
              .status = 22}}};
}

// The copy that is made of a block of extents may be refused, and then the block is: any one, or
// one and all after it. `records` and `blocks` are what the filter lets through.
void add_refused_blocks(Scenario &walk, const ExtentTable &table, bool records, bool blocks)
{
    const SuperV3 super = packed_super(PACKED_BLOCKS);
    for (std::uint64_t first = 0; first < PACKED_BLOCKS; ++first)
        for (const std::uint64_t end : {first + 1, PACKED_BLOCKS}) {
            std::vector<std::string> items;
            for (std::uint64_t no = 0; no < PACKED_BLOCKS; ++no) {
                const bool refused = no == PACKED_BLOCKS - 1 || (no >= first && no < end);
                if (refused && records)
                    items.push_back(block_record(table, super, 14, no));
                if (!refused && blocks)
                    items.push_back(new_block_text(table, super, no));
            }
            walk.degraded.push_back(joined(items));
        }
}

template <class T>
void add_repairs(std::vector<SweptCommand> &commands, const T &table, const Block &block)
{
    const SuperV3 super = packed_super(PACKED_BLOCKS);
    const std::uint64_t place = place_of(table, 1);
    const auto file = [&](std::uint64_t at) {
        return repair_file(table, encode(super), block, static_cast<std::int64_t>(at)).text();
    };
    const std::vector<std::string> repair{"-c", table.repair};
    SweptCommand command{"V3_" + table.repair, spoilt_device<T>, {}};
    add_repair(
        command,
        {.name = "accepted", .args = repair, .conf = file(place), .place = place, .block = block});
    add_commit(
        command,
        {.name = "refused", .args = repair, .conf = file(super.*table.end_at), .status = 22});
    commands.push_back(command);
}

// Repairs that put two entries into the block.
template <class T>
void add_packed(std::vector<SweptCommand> &commands, const T &table)
{
    typename T::Packed packed;
    for (const std::uint32_t slot : {1U, 511U})
        (packed.*table.entries).push_back(sample_entry(table, slot));
    add_repairs(commands, table, encode(packed));
}

} // namespace

std::vector<SweptCommand> packed_commands()
{
    const auto &shards = block_table<ShardTable>();
    const auto &extents = block_table<ExtentTable>();
    const auto &hot = block_table<HotTable>();
    std::vector<SweptCommand> commands{dumps(shards), dumps(extents), dumps(hot)};
    std::vector<Scenario> &walks = commands[1].scenarios;
    add_refused_blocks(walks[0], extents, true, true);
    add_refused_blocks(walks[1], extents, true, false); // error=1
    add_refused_blocks(walks[2], extents, false, true); // error=0
    add_packed(commands, shards);
    add_packed(commands, extents);
    add_repairs(commands, hot, Block{});
    return commands;
}

} // namespace tier_test
