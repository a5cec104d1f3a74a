#include "common/zutr_crc32.h"
#include "zu_tier/format/v3.h"
#include "zu_tier/record/digits.h"
#include "zu_tier/record/record.h"
#include "zu_tier/record/time.h"

#include <benchmark/benchmark.h>
#include <vector>

/* The parts of a walk one by one. */

namespace {

void checksum(benchmark::State &state, const zutr_crc32_way &way)
{
    const std::vector<uint8_t> data(static_cast<size_t>(state.range(0)), 0x5A);
    if (!way.available()) {
        state.SkipWithError("not on this processor");
        return;
    }
    for ([[maybe_unused]] auto turn : state) {
        benchmark::DoNotOptimize(way.update(UINT32_MAX, data.data(), data.size()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

/* Different words, so that the processor cannot learn the lengths of their numbers. */
uint64_t scatter(uint64_t n) { return (n + 1) * 0x9E3779B97F4A7C15; }

struct entry {
    uint64_t word;
    uint64_t no;
};

constexpr auto FIELDS = std::tuple{
    zutr_bits{EXTENT_LBA_V3, &entry::word},
    zutr_bits{EXTENT_SHARD_V3, &entry::word},
    zutr_bits{EXTENT_DIRTY_V3, &entry::word},
    zutr_bits{EXTENT_IN_USE_V3, &entry::word},
    zutr_bits{EXTENT_SENSE_V3, &entry::word},
    zutr_bits{EXTENT_DEMOTE_V3, &entry::word},
    zutr_bits{EXTENT_DM_ERR_V3, &entry::word},
    zutr_bits{EXTENT_RESERVED_V3, &entry::word},
    zutr_field{"eno", &entry::no},
    zutr_bits{EXTENT_BITMAP_V3, &entry::word},
};

void packed_entry(benchmark::State &state)
{
    std::vector<char> text(ZUTR_FIELDS_ROOM<FIELDS>);
    uint64_t no = 0;
    for ([[maybe_unused]] auto turn : state) {
        const entry shown = {scatter(no), no};
        benchmark::DoNotOptimize(zutr_put_members<FIELDS>(text.data(), shown));
        no++;
    }
}

void packed_entry_by_snprintf(benchmark::State &state)
{
    std::vector<char> text(ZUTR_FIELDS_ROOM<FIELDS>);
    uint64_t no = 0;
    for ([[maybe_unused]] auto turn : state) {
        const uint64_t word = scatter(no);
        benchmark::DoNotOptimize(snprintf(
            text.data(), text.size(),
            "\"lba\":%lu,\"shard\":%lu,\"dirty\":%lu,\"in_use\":%lu,\"sense\":%lu,\"demote\":%lu,"
            "\"dm_err\":%lu,\"reserved\":%lu,\"eno\":%lu,\"bitmap\":%lu",
            EXTENT_LBA_V3.get(word), EXTENT_SHARD_V3.get(word), EXTENT_DIRTY_V3.get(word),
            EXTENT_IN_USE_V3.get(word), EXTENT_SENSE_V3.get(word), EXTENT_DEMOTE_V3.get(word),
            EXTENT_DM_ERR_V3.get(word), EXTENT_RESERVED_V3.get(word), no,
            EXTENT_BITMAP_V3.get(word)));
        no++;
    }
}

/* Within a year, as the time stamps of a table. */
uint64_t moment(uint64_t n)
{
    constexpr uint64_t NS_PER_SECOND = 1000000000;
    return (1735689600 + scatter(n) % (uint64_t{365} * 86400)) * NS_PER_SECOND;
}

void time_stamp(benchmark::State &state)
{
    char text[ZUTR_TIME_ROOM];
    uint64_t n = 0;
    for ([[maybe_unused]] auto turn : state) {
        benchmark::DoNotOptimize(zutr_put_time(text, moment(n++)));
    }
}

void time_stamp_by_localtime(benchmark::State &state)
{
    char text[ZUTR_TIME_ROOM];
    uint64_t n = 0;
    for ([[maybe_unused]] auto turn : state) {
        zutr_time_format(moment(n++), text, sizeof(text));
        benchmark::DoNotOptimize(text);
    }
}

BENCHMARK(packed_entry);
BENCHMARK(packed_entry_by_snprintf);
BENCHMARK(time_stamp);
BENCHMARK(time_stamp_by_localtime);

} // namespace

int main(int argc, char *argv[])
{
    for (const zutr_crc32_way &way : ZUTR_CRC32_WAYS) {
        const std::string name = std::string("crc32/") + way.name;
        benchmark::RegisterBenchmark(name.c_str(), [&way](auto &state) { checksum(state, way); })
            ->Arg(92)
            ->Arg(4096);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
