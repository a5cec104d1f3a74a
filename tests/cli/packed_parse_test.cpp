// Files that repairs of shards and of extents refuse, and their messages.

#include "packed_repair.h"

#include <limits>

using namespace tier_test;

namespace {

template <class T>
class PackedParse : public PackedRepair<T> {
protected:
    const RepairFile item = this->file_of({5, this->sample});

    std::vector<std::string> items(std::size_t count, const std::string &each) const
    {
        return std::vector<std::string>(count, each);
    }

    void expect_too_many(std::size_t count, const std::string &each)
    {
        this->expect_refused_with(
            this->document(items(count, each)).text(),
            text("%s_cnt: %zu bigger than 512", this->table.entries_key.c_str(), count));
    }
};

TYPED_TEST_SUITE(PackedParse, PackedTables, BlockTableNames);

// What was read before the wrong item is shown but not written.
TYPED_TEST(PackedParse, LastOfManyItemsIsWrong)
{
    std::vector<std::string> files;
    for (std::uint32_t slot = 1; slot < 400; ++slot)
        files.push_back(this->file_of({slot, sample_entry(this->table, slot)}).text());
    files.push_back("[]");
    this->expect_refused_with(this->document(files).text(),
                              this->table.item + "_json index: 399 invalid");
}

TYPED_TEST(PackedParse, NoMoreItemsThanTheBlockHasRoomFor)
{
    const std::size_t room = SLOTS_V3 - this->table.first_slot;
    const typename TestFixture::Item one{5, this->sample};
    this->expect_items(std::vector<typename TestFixture::Item>(room, one),
                       this->packed({this->sample})); // one slot may be listed that often
    for (const std::size_t count : {room + 1, room + 2, std::size_t{100'000}})
        this->expect_too_many(count, this->item.text());
}

TYPED_TEST(PackedParse, ItemsAreCountedBeforeTheyAreRead)
{
    for (const std::string each : {"null", "{}", "[]"})
        this->expect_too_many(SLOTS_V3 + 1, each);
}

TYPED_TEST(PackedParse, PlaceIsLookedAtBeforeTheItems)
{
    const std::string before = std::to_string(this->super.*this->table.start - 4096);
    this->expect_refused_with(this->document({"5"}).set("meta_offset", before).text(),
                              "meta_offset: " + before + " invalid");
}

// An offset that only the bounds of a strange super block admit is refused after the items.
TYPED_TEST(PackedParse, OffsetBehindAllDevicesIsLookedAtAfterTheItems)
{
    SuperV3 changed = this->super;
    changed.*this->table.start = 0;
    changed.*this->table.end = ~std::uint64_t{0};
    this->set_super(changed);
    this->target = std::numeric_limits<std::int64_t>::min();
    this->expect_refused_with(
        this->document({"[]"}).set("meta_offset", "9223372036854775808").text(),
        this->table.item + "_json index: 0 invalid");
}

} // namespace
