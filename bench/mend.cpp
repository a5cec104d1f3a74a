#include "zu_tierctl/entry/mend.h"
#include "zu_tier/format/v1.h"
#include "zu_tier/format/v3.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <string>

/* What it takes to mend an entry by its checksum: of one and two flipped bits, and of three, which
 * nothing explains. */

namespace {

using namespace tierctl;

constexpr uint64_t NO = 1;

/* A device of which only the super block exists. */
template <class Super>
Metadata metadata_of(std::string_view layout_name, const Super &sb)
{
    const tier_layout *layout = find_layout(layout_name);
    Block block{};
    memcpy(block.data(), &sb, sizeof(sb));
    return {layout, block, tables_of(*layout, block.data())};
}

Metadata device_v1(uint32_t extent_size)
{
    tier_super_block_v1_t sb = {};
    sb.sb_extent_size = extent_size;
    return metadata_of("v1", sb);
}

/* A sound entry, but for so many bits spread over its record. */
Block flipped(const Table &table, uint32_t bits)
{
    Block slot{};
    for (size_t at = 0; at < table.record_length; at++) {
        slot[at] = static_cast<uint8_t>(at * 167 + at / 7);
    }
    if (table.row->magic) {
        table.row->magic.put(slot.data(), table.row->magic_value);
    }
    if (table.row->number) {
        table.row->number.put(slot.data(), NO);
    }
    table.seal_slot(slot.data());
    for (uint32_t bit = 1; bit <= bits; bit++) {
        slot[table.record_length - 3 * bit] ^= 0x10;
    }
    return slot;
}

void mend_entry(benchmark::State &state, const Metadata &metadata, std::string_view name,
                uint32_t bits)
{
    const Table &table = find_table(metadata.tables, name);
    const Block slot = flipped(table, bits);
    Certainty certainty = mend(metadata, table, NO, slot).certainty; /* makes the table as well */
    for ([[maybe_unused]] auto turn : state) {
        certainty = mend(metadata, table, NO, slot).certainty;
        benchmark::DoNotOptimize(certainty);
    }
    state.SetLabel(std::string(certainty_name(certainty)));
}

/* The table of a record's syndromes is kept for the last length: two lengths in turn. */
void make_table(benchmark::State &state)
{
    const Metadata devices[] = {device_v1(4096), device_v1(4095)};
    size_t turns = 0;
    for ([[maybe_unused]] auto turn : state) {
        const Metadata &metadata = devices[turns++ % 2];
        const Table &table = find_table(metadata.tables, "extent");
        benchmark::DoNotOptimize(mend(metadata, table, NO, flipped(table, 1)).certainty);
    }
}

BENCHMARK(make_table)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char *argv[])
{
    static const Metadata small = device_v1(375);
    static const Metadata large = device_v1(4096);
    static const Metadata packed = metadata_of("v3", tier_super_block_v3_t{});
    struct Case {
        const Metadata &metadata;
        const char *table;
        const char *name;
    };
    static const Case cases[] = {
        {small, "inode", "inode_96"},     {small, "brick", "brick_168"},
        {small, "extent", "extent_375"},  {large, "extent", "extent_4096"},
        {packed, "shard", "shards_4096"}, {packed, "extent", "packed_extents_4096"}};
    for (const Case &entry : cases) {
        for (const uint32_t bits : {1U, 2U, 3U}) {
            const std::string name =
                std::string(entry.name) + "/" + std::to_string(bits) + "_flipped";
            benchmark::RegisterBenchmark(name.c_str(), [&entry, bits](auto &state) {
                mend_entry(state, entry.metadata, entry.table, bits);
            });
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
