// What is particular to the dump of the extent table of layout version 1.

#include "table_dump.h"

using namespace tier_test;

namespace {

struct ExtentSize {
    std::uint32_t bytes;
    std::size_t words;
};

class ExtentV1Dump : public TableDump<ExtentTableV1> {
protected:
    void set_extent_size(std::uint32_t bytes)
    {
        super.extent_size = bytes;
        device.write(SUPER_OFFSET, encode(super));
        for (std::uint32_t slot = 0; slot < 6; ++slot)
            put(slot, ExtentV1{.no = slot});
    }

    // Writes the extent with one more byte of its slot filled in.
    void put_with_byte(std::uint32_t slot, ExtentV1 extent, std::size_t at)
    {
        Block block = encode(extent, super.extent_size);
        block[at] = 0x5A;
        seal(block, super.extent_size);
        extent.checksum = get_u32(block, 0);
        slots[slot] = {extent, false};
        device.write(static_cast<std::uint64_t>(extent_offset(super, slot)), block);
    }
};

TEST_F(ExtentV1Dump, BitmapHasTheWholeWordsOfTheRecord)
{
    const std::vector<ExtentSize> sizes{{56, 0}, {60, 0},   {63, 0},     {64, 1},    {71, 1},
                                        {72, 2}, {568, 64}, {4095, 504}, {4096, 505}};
    for (const auto &[bytes, words] : sizes) {
        SCOPED_TRACE(bytes);
        set_extent_size(bytes);
        ExtentV1 extent = extent_used(1, 2);
        extent.bitmap.clear();
        std::string bitmap;
        for (std::size_t i = 0; i < words; ++i) {
            extent.bitmap.push_back(0x8000'0000'0000'0001U * (i + 1));
            bitmap += text("0x%016lx ", extent.bitmap.back());
        }
        put(1, extent);
        EXPECT_TRUE(item(1).ends_with("\"te_bitmap\":\"" + bitmap + "\"}"));
        expect_walk();
        expect_single(1);
    }
}

TEST_F(ExtentV1Dump, FaultyEntryOfEverySize)
{
    for (const std::uint32_t bytes : {56U, 60U, 4096U}) {
        SCOPED_TRACE(bytes);
        set_extent_size(bytes);
        ExtentV1 extent = extent_used(2, 2);
        extent.checksum = good_checksum(extent) ^ 2U;
        put(2, extent, true);
        expect_walk();
    }
}

TEST_F(ExtentV1Dump, BytesBehindTheLastWordAreCheckedButNotShown)
{
    set_extent_size(60);
    put_with_byte(1, extent_used(1, 2), 59);
    expect_walk();

    ExtentV1 changed = extent_used(1, 2);
    Block block = encode(changed, 60);
    block[59] ^= 1;
    device.write(static_cast<std::uint64_t>(extent_offset(super, 1)), block);
    EXPECT_EQ(run_logged(device, "dump_extent", {"-n", "1"}).status, 14);
}

TEST_F(ExtentV1Dump, BytesBehindTheRecordAreNotChecked)
{
    set_extent_size(60);
    put_with_byte(1, extent_used(1, 2), 60);
    expect_walk();
}

TEST_F(ExtentV1Dump, RecordSizeOutOfRangeIsRefused)
{
    for (const std::uint32_t bytes : {1U, 55U, 4097U, 0xFFFFFFFFU}) {
        super.extent_size = bytes;
        device.write(SUPER_OFFSET, encode(super));
        const LogLine refusal = error_line(
            "zutr_dump_extent_v1", text("sb_extent_size %u is invalid, expect:[56-4096]", bytes));
        expect_run(
            run_logged(device, "dump_extent"),
            {.status = 14, .out = "", .log = {settings_line(device, "dump_extent"), refusal}});
        expect_run(run_logged(device, "dump_extent", {"-n", "0"}),
                   {.status = 14,
                    .out = "",
                    .log = {settings_line(device, "dump_extent", {.meta_no = 0}), refusal}});
        // The other tables do not depend on it.
        EXPECT_EQ(run_logged(device, "dump_inode", {"-g", "use=1"}).out, "[]");
    }
}

TEST_F(ExtentV1Dump, RecordWithoutASizeAbortsAtTheFirstThatIsRead)
{
    super.extent_size = 0;
    device.write(SUPER_OFFSET, encode(super));
    expect_abort(run_logged(device, "dump_extent"), "ex && ex_size");
    expect_abort(run_logged(device, "dump_extent", {"-n", "0"}), "ex && ex_size");
    device.truncate(static_cast<std::uint64_t>(extent_offset(super, 1)));
    EXPECT_EQ(run_logged(device, "dump_extent", {"-n", "1"}).status, 5);
    const auto count = static_cast<int>(super.block_cnt);
    expect_run(run_logged(device, "dump_extent", {"-n", std::to_string(count)}),
               {.status = 22,
                .out = "",
                .log = {settings_line(device, "dump_extent", {.meta_no = count}),
                        error_line("zutr_dump_common",
                                   text("invalid te_no %d, max cnt:%d", count, count))}});
}

} // namespace
