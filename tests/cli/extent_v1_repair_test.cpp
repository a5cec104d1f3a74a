// What is particular to repairs of the extent table of layout version 1.

#include "dump_text.h"
#include "table_repair.h"

using namespace tier_test;

namespace {

class ExtentV1Repair : public TableRepair<ExtentTableV1> {
protected:
    void set_extent_size(std::uint32_t bytes)
    {
        SuperV1 changed = super;
        changed.extent_size = bytes;
        set_super(changed);
    }

    static std::vector<std::uint64_t> words(std::size_t count)
    {
        std::vector<std::uint64_t> result;
        for (std::size_t i = 0; i < count; ++i)
            result.push_back(0xFFFF'0000'0000'0001U + i);
        return result;
    }

    static std::string array(const std::vector<std::uint64_t> &numbers)
    {
        std::vector<std::string> items;
        for (const std::uint64_t number : numbers)
            items.push_back(std::to_string(number));
        return joined(items);
    }

    std::string with_bitmap(const std::string &bitmap) const
    {
        return RepairFile(file).set("te_bitmap", bitmap).text();
    }

    // `node` is how the message shows the JSON node of the bitmap.
    void expect_bitmap_refused(const std::string &document, const std::string &node,
                               std::size_t wanted)
    {
        expect_refused_at("te_bitmap", document,
                          text("te_bitmap is invalid. bitmap:%s, cnt:%zu", node.c_str(), wanted));
    }
};

constexpr auto PRESENT = "<address>";

TEST_F(ExtentV1Repair, BitmapOfEveryRecordSize)
{
    for (const std::uint32_t bytes : {56U, 60U, 63U, 64U, 72U, 79U, 568U, 4095U, 4096U}) {
        SCOPED_TRACE(bytes);
        set_extent_size(bytes);
        const std::size_t wanted = (bytes - 56) / 8;
        ExtentV1 extent = sample;
        extent.bitmap = words(wanted);
        expect_entry(file_text(extent), extent);
        for (const std::size_t count : {wanted - 1, wanted + 1, 2 * wanted + 2}) {
            if (wanted == 0 && count == wanted - 1)
                continue;
            SCOPED_TRACE(count);
            expect_bitmap_refused(with_bitmap(array(words(count))), PRESENT, wanted);
        }
    }
}

TEST_F(ExtentV1Repair, FreeExtentOfEveryRecordSizeIsZeroBehindItsNumber)
{
    for (const std::uint32_t bytes : {56U, 60U, 4096U}) {
        SCOPED_TRACE(bytes);
        set_extent_size(bytes);
        ASSERT_EQ(repair(R"({"te_use":0,"te_no":2})", {"-y"}).status, 0);
        Block expected{};
        put_u64(expected, 48, 2);
        seal(expected, bytes);
        EXPECT_EQ(device.block(static_cast<std::uint64_t>(extent_offset(super, 2))), expected);
    }
}

TEST_F(ExtentV1Repair, BitmapMissing)
{
    expect_bitmap_refused(RepairFile(file).erase("te_bitmap").text(), "(nil)", 2);
    set_extent_size(56);
    expect_bitmap_refused(RepairFile(file).erase("te_bitmap").text(), "(nil)", 0);
}

// No words are wanted, but still an array.
TEST_F(ExtentV1Repair, EmptyBitmapOfAnotherType)
{
    set_extent_size(56);
    for (const std::string value : {"{}", "\"\"", "0", "null"}) {
        SCOPED_TRACE(value);
        expect_bitmap_refused(with_bitmap(value), PRESENT, 0);
    }
}

TEST_F(ExtentV1Repair, RecordSizeOutOfRangeIsRefused)
{
    for (const std::uint32_t bytes : {1U, 55U, 4097U, 0xFFFFFFFFU}) {
        set_extent_size(bytes);
        const LogLine refusal =
            error(text("sb_extent_size %u is invalid, expect:[56-4096]", bytes));
        expect_refused(file.text(), {refusal}, 14);
        expect_refused(R"({"te_use":0,"te_no":2})", {refusal}, 14);
    }
}

TEST_F(ExtentV1Repair, RecordWithoutASizeAbortsAtItsChecksum)
{
    set_extent_size(0);
    expect_refused_at("te_no", R"({"te_use":1})", "parse te_no failed");
    expect_refused_at("te_bitmap", with_bitmap("[]"),
                      "te_bitmap is invalid. bitmap:<address>, cnt:-7");
    expect_abort(repair(R"({"te_use":0,"te_no":2})", {"-y"}), "ex && ex_size");
}

} // namespace
