// How convert_super finds the map size and the number of map records of a cache.

#include "conversion.h"

#include <algorithm>

using namespace tier_test;

namespace {

class ConvertProbeV2 : public SuperConversion {
protected:
    // The description of `super` with other numbers of blocks and their size.
    SuperV2 described(std::uint32_t block_size, std::uint32_t block_cnt) const
    {
        SuperV2 sb = super;
        sb.block_size = block_size;
        sb.block_cnt = block_cnt;
        return sb;
    }

    void expect_found(const SuperV2 &result, const Log &lines)
    {
        expect_run(convert(old_file(result).text(), {"-F"}),
                   {.status = 0, .out = json(result), .log = log_with(result, lines)});
    }

    void expect_not_found(const SuperV2 &described, const Log &lines)
    {
        expect_run(convert(old_file(described).text(), {"-F"}),
                   {.status = 22, .out = "", .log = log_with(described, failed(lines))});
    }

    // An extent table whose first MiB is this.
    void put_table(const std::vector<std::uint8_t> &bytes)
    {
        device.write(static_cast<std::uint64_t>(table()), bytes);
    }
};

struct MapSize {
    std::uint32_t block_size;
    std::uint32_t block_cnt;
    std::uint32_t map_size;
};

// Only the description says how large the cache is: the probe reads one MiB of extents.
const std::vector<MapSize> MAP_SIZES{
    // 480 GiB, and one block or one byte more
    {262144, 1966080, 16384},
    {262144, 1966081, 32768},
    {463849, 1111129, 32768},
    // 1 TiB
    {262144, 4194304, 32768},
    {262144, 4194305, 65536},
    {257, 4278255361, 65536},
    // 4 TiB
    {262144, 16777216, 65536},
    {262144, 16777217, 131072},
    {14449, 304384145, 131072},
    {262144, 0xFFFFFFFF, 131072},
    // no cache
    {262144, 0, 16384},
    {1, 1, 16384},
    {16384, 1, 16384},
    {16385, 1, 16384},
    // blocks of 1 MiB and more
    {1048575, 1, 16384},
    {1048576, 1, 32768},
    {1048576, 491520, 32768},
    {1048576, 1048576, 32768},
    {1048576, 1048577, 65536},
    {1048576, 4194305, 131072},
    {2097152, 1, 32768},
    // blocks of 4 MiB
    {4194304, 1, 65536},
    {4194304, 262144, 65536},
    {4194304, 1048576, 65536},
    {4194304, 1048577, 131072},
    // more than 64 pieces of 32 KiB, but not of 64 KiB
    {2129920, 524288, 65536},
    {4194303, 1048576, 65536},
};

TEST_F(ConvertProbeV2, MapSizeFollowsFromTheSizeOfTheCacheAndOfItsBlocks)
{
    for (const MapSize &each : MAP_SIZES) {
        SCOPED_TRACE(text("%u blocks of %u", each.block_cnt, each.block_size));
        SuperV2 result = cache(each.block_size, each.map_size);
        set_cache(result); // 256 extents with as many records
        result.block_cnt = each.block_cnt;
        expect_found(result, {probe_read(table()), map_cnt_found(result.map_cnt)});
    }
}

TEST_F(ConvertProbeV2, BlocksAbove4MiBAbort)
{
    for (const std::uint32_t block_size : {4194305U, 4198400U, 0xFFFFFFFFU})
        expect_abort(convert(old_file(described(block_size, 1)).text(), {"-F"}),
                     "block_size <= 4 * SIZE_1M");
}

TEST_F(ConvertProbeV2, MoreThan64MapsABlockAbort)
{
    const std::vector<std::pair<std::uint32_t, std::uint32_t>> blocks{
        {2129920, 1}, {2129920, 516221}, {3145728, 1}, {4194303, 1}, {4194303, 262144}};
    for (const auto &[block_size, block_cnt] : blocks)
        expect_abort(convert(old_file(described(block_size, block_cnt)).text()),
                     "(block_size / def_map_size) <= EXTENT_HOT_LEN");
}

TEST_F(ConvertProbeV2, ABlockThatBeginsA65thMapIsNotProbed)
{
    for (const std::uint32_t block_size : {2097153U, 2129919U})
        expect_not_found(described(block_size, 1), {});
}

TEST_F(ConvertProbeV2, BlocksOfNoSizeAbort)
{
    expect_abort(convert(old_file(described(0, 1)).text(), {"-F"}),
                 "sb && dev_fd >= 0 && map_cnt > 0");
}

TEST_F(ConvertProbeV2, SearchGoesUpward)
{
    for (const std::uint32_t map_cnt : {16U, 17U, 20U, 63U, 64U}) {
        SCOPED_TRACE(map_cnt);
        SuperV2 sb = super;
        set_maps(sb, map_cnt);
        set_cache(sb);
        Log lines{probe_read(table())};
        const Log before = mismatches(16, map_cnt);
        lines.insert(lines.end(), before.begin(), before.end());
        lines.push_back(map_cnt_found(map_cnt));
        expect_found(sb, lines);
    }
}

TEST_F(ConvertProbeV2, FewerRecordsThanTheStartOrMoreThan64AreNotFound)
{
    for (const std::uint32_t map_cnt : {1U, 15U, 65U}) {
        SCOPED_TRACE(map_cnt);
        SuperV2 sb = super;
        set_maps(sb, map_cnt);
        set_cache(sb);
        Log lines{probe_read(table())};
        const Log all = mismatches(16, 65);
        lines.insert(lines.end(), all.begin(), all.end());
        expect_not_found(sb, lines);
    }
}

TEST_F(ConvertProbeV2, StartIsRoundedUp)
{
    // 16 whole pieces and one byte: the 16 records on the device are not tried.
    SuperV2 sb = super;
    sb.block_size = 262145;
    Log lines{probe_read(table())};
    const Log all = mismatches(17, 65);
    lines.insert(lines.end(), all.begin(), all.end());
    expect_not_found(sb, lines);
}

TEST_F(ConvertProbeV2, OneCorruptExtentSpoilsTheMiB)
{
    for (const std::uint32_t no : {0U, 1U, 200U, 255U}) {
        SCOPED_TRACE(no);
        set_cache(super);
        ExtentV2 corrupt = extent_v2(no);
        corrupt.checksum = 0x12345678;
        const Block block = encode(corrupt, super);
        device.write(static_cast<std::uint64_t>(extent_offset(super, no)), block);
        // The right count fails at the corrupt extent, the others at the first.
        Log lines{probe_read(table()), mismatch(block, super, 16)};
        const Log others = mismatches(17, 65);
        lines.insert(lines.end(), others.begin(), others.end());
        expect_not_found(super, lines);
    }
}

TEST_F(ConvertProbeV2, ExtentsBehindTheFirstMiBDoNotCount)
{
    const SuperV2 sb = cache(262144, 16384, 257);
    set_cache(sb);
    device.write(static_cast<std::uint64_t>(extent_offset(sb, 256)), Block{});
    expect_found(sb, {probe_read(table()), map_cnt_found(16)});
}

TEST_F(ConvertProbeV2, NumbersOfTheExtentsDoNotCount)
{
    std::vector<std::uint8_t> bytes;
    for (std::uint64_t no = 0; no < PROBED_EXTENTS; ++no) {
        const Block block = encode(extent_v2_used(no * no + 7, 3), super);
        bytes.insert(bytes.end(), block.begin(), block.end());
    }
    put_table(bytes);
    expect_found(super, {probe_read(table()), map_cnt_found(16)});
}

// A table shorter than a MiB is read together with what follows it.
TEST_F(ConvertProbeV2, UnwrittenSlotsSpoilTheMiB)
{
    const SuperV2 sb = cache(262144, 16384, 200);
    set_cache(sb);
    device.truncate(static_cast<std::uint64_t>(table()) + MIB);
    Log lines{probe_read(table()), mismatch(Block{}, sb, 16)};
    const Log others = mismatches(17, 65);
    lines.insert(lines.end(), others.begin(), others.end());
    expect_not_found(sb, lines);
}

TEST_F(ConvertProbeV2, ExtentSizeIsTakenFromTheFile)
{
    for (const std::uint32_t extent_size : {56U, 61U, 4096U - 64 - 256}) {
        SCOPED_TRACE(extent_size);
        SuperV2 sb = super;
        sb.extent_size = extent_size;
        set_maps(sb, 16);
        set_cache(sb);
        expect_conversion(old_file(sb).text(),
                          {.status = 0,
                           .out = json(sb),
                           .log = log_with(sb, {probe_read(table()), map_cnt_found(16)})});
    }
}

TEST_F(ConvertProbeV2, CandidateSizeIsFormedIn32Bits)
{
    SuperV2 sb = super;
    sb.extent_size = 100 - (16 * 16 + 64); // in 32 bits: all parts together have 100 bytes
    sb.total_extent_size = 100;
    SuperV2 small = super; // extents with a checksum over 100 bytes
    small.extent_size = 100 - 64;
    set_maps(small, 0);
    std::vector<std::uint8_t> bytes;
    for (std::uint64_t no = 0; no < PROBED_EXTENTS; ++no) {
        Block block{};
        put_u64(block, 48, no);
        seal(block, small.total_extent_size);
        bytes.insert(bytes.end(), block.begin(), block.end());
    }
    put_table(bytes);
    expect_found(sb, {probe_read(table()), map_cnt_found(16)});

    sb.extent_size -= 100; // no bytes
    expect_abort(convert(old_file(sb).text(), {"-F"}), "ex && ex_size");
}

// A size that passes a slot covers what follows in the MiB, up to its end.
TEST_F(ConvertProbeV2, ExtentsLargerThanTheirSlotAbort)
{
    SuperV2 sb = super;
    sb.extent_size = 4096 - 64 - 256 + 1; // a byte too many
    const std::uint32_t size = candidate_size(sb, 16);
    std::vector<std::uint8_t> bytes(MIB);
    for (std::size_t no = PROBED_EXTENTS; no-- > 0;) {
        const ByteSpan rest = ByteSpan(bytes).subspan(no * BLOCK_SIZE);
        put_u64(rest, 48, no);
        seal(rest, std::min<std::size_t>(size, rest.size()));
    }
    put_table(bytes);
    expect_abort(convert(old_file(sb).text(), {"-F"}), "total_extent_size <= SIZE_4K");

    bytes[BLOCK_SIZE] ^= 1; // the byte too many of the first extent
    put_table(bytes);
    const LoggedRun run = convert(old_file(sb).text(), {"-F"});
    EXPECT_EQ(run.status, 22);
    ASSERT_GE(run.errors.size(), 1U);
    EXPECT_EQ(run.errors[0], not_found(22, 65));
}

TEST_F(ConvertProbeV2, TableThatCannotBeReadAtAllIsReportedForEveryCandidate)
{
    device.truncate(static_cast<std::uint64_t>(table()) + MIB - BLOCK_SIZE);
    Log all_reads;
    std::int64_t offset = table();
    for (; offset < static_cast<std::int64_t>(super.data_offset);
         offset += static_cast<std::int64_t>(MIB))
        all_reads.push_back(
            debug_line("verify_map_cnt", text("read extent failed:-1, offset:%ld", offset)));
    ASSERT_GE(all_reads.size(), 3U);
    all_reads.push_back(
        error_line("verify_map_cnt", text("all extent area read failed:-1, offset:%ld, end:%lu",
                                          offset, super.data_offset)));
    Log lines;
    for (std::uint32_t map_cnt = 16; map_cnt <= 64; ++map_cnt)
        lines.insert(lines.end(), all_reads.begin(), all_reads.end());
    expect_conversion(old_file(super).text(),
                      {.status = 22, .out = "", .log = log_with(super, failed(lines, 5))});
}

// The end of the table is compared as a signed number, and one read is made in any case.
TEST_F(ConvertProbeV2, FirstReadIsMadeWhateverTheEnd)
{
    for (const std::uint64_t end : {std::uint64_t{0}, static_cast<std::uint64_t>(table()),
                                    std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
        SCOPED_TRACE(end);
        SuperV2 sb = super;
        sb.data_offset = end;
        expect_found(sb, {probe_read(table()), map_cnt_found(16)});
    }
    SuperV2 sb = super;
    sb.data_offset = ~std::uint64_t{0};
    const Log reads{
        debug_line("verify_map_cnt", text("read extent failed:-1, offset:%ld", table())),
        error_line("verify_map_cnt", text("all extent area read failed:-1, offset:%ld, end:-1",
                                          table() + static_cast<std::int64_t>(MIB)))};
    Log lines;
    for (std::uint32_t map_cnt = 16; map_cnt <= 64; ++map_cnt)
        lines.insert(lines.end(), reads.begin(), reads.end());
    device.truncate(static_cast<std::uint64_t>(table()));
    expect_run(convert(old_file(sb).text(), {"-F"}),
               {.status = 22, .out = "", .log = log_with(sb, failed(lines, 5))});
}

} // namespace
