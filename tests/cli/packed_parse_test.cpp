// Files that repairs of shards and of extents refuse, and what they say of them.

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

    std::string with_entries(const std::string &value) const
    {
        return this->document({}).set(this->table.entries_key, value).text();
    }

    void expect_entries_refused(const std::string &file, const std::string &shown)
    {
        SCOPED_TRACE(file);
        this->expect_refused_behind(
            file, {}, this->table.entries_key + "_json is invalid. shards_json:" + shown);
    }

    void expect_too_many(std::size_t count, const std::string &each)
    {
        this->expect_refused_behind(
            this->document(items(count, each)).text(), {},
            text("%s_cnt: %zu bigger than 512", this->table.entries_key.c_str(), count));
    }
};

TYPED_TEST_SUITE(PackedParse, PackedTables, BlockTableNames);

TYPED_TEST(PackedParse, RequiredKeyMissing)
{
    const std::string number = this->table.number_key;
    this->expect_item_refused(RepairFile(this->item).erase(number).text(), number,
                              "parse " + number + " failed");
    this->expect_item_refused("{}", number, "parse " + number + " failed");
    for (const auto &field : this->table.fields)
        if (field.in_repair == InRepair::REQUIRED)
            this->expect_item_refused(RepairFile(this->item).erase(field.name).text(), field.name,
                                      "parse " + field.name + " failed");
}

TYPED_TEST(PackedParse, KeyOfAnotherType)
{
    std::vector<std::string> keys{this->table.number_key};
    for (const auto &field : this->table.fields)
        if (field.in_repair != InRepair::UNREAD)
            keys.push_back(field.name);
    for (const std::string &key : keys)
        for (const std::string &value : NO_NUMBERS)
            this->expect_item_refused(RepairFile(this->item).set(key, value).text(), key,
                                      "parse " + key + " failed");
}

TYPED_TEST(PackedParse, FirstWrongKeyInReadingOrderIsNamed)
{
    RepairFile wrong;
    for (const auto &field : this->table.fields)
        if (field.in_repair != InRepair::UNREAD)
            wrong.set(field.name, "null");
    this->expect_item_refused(wrong.text(), this->table.number_key,
                              "parse " + this->table.number_key + " failed");
    wrong.number(this->table.number_key, 5);
    for (const auto &field : this->table.fields) {
        if (field.in_repair == InRepair::UNREAD)
            continue;
        this->expect_item_refused(wrong.text(), field.name, "parse " + field.name + " failed");
        wrong.number(field.name, this->sample.*field.value);
    }
}

TYPED_TEST(PackedParse, ItemThatIsNoObject)
{
    for (const std::string value : {"5", "\"{}\"", "null", "true", "false", "[]", "[{}]"}) {
        SCOPED_TRACE(value);
        this->expect_item_refused(value, this->table.number_key,
                                  this->table.item + "_json index: 1 invalid");
        this->expect_refused_behind(this->document({value, this->item.text()}).text(), {},
                                    this->table.item + "_json index: 0 invalid");
    }
}

// What was read before the wrong item is shown but not written.
TYPED_TEST(PackedParse, LastOfManyItemsIsWrong)
{
    std::vector<std::string> files;
    Log lines;
    for (std::uint32_t slot = 1; slot < 400; ++slot) {
        const typename TestFixture::Item good{slot, sample_entry(this->table, slot)};
        files.push_back(this->file_of(good).text());
        std::ranges::copy(this->log_of(good), std::back_inserter(lines));
    }
    files.push_back("[]");
    this->expect_refused_behind(this->document(files).text(), lines,
                                this->table.item + "_json index: 399 invalid");
}

TYPED_TEST(PackedParse, EntriesMissing)
{
    this->expect_entries_refused(
        RepairFile().set("meta_offset", std::to_string(this->target)).text(), "(nil)");
    const bool shards = this->table.entries_key == "shards";
    this->expect_entries_refused(
        this->document({}).rename(this->table.entries_key, shards ? "extents" : "shards").text(),
        "(nil)");
}

TYPED_TEST(PackedParse, EntriesOfAnotherType)
{
    for (const std::string &value :
         {std::string("5"), std::string("\"[]\""), std::string("null"), std::string("true"),
          std::string("false"), std::string("{}"), this->item.text()})
        this->expect_entries_refused(this->with_entries(value), "<address>");
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
    this->expect_refused(this->document({"5"}).set("meta_offset", before).text(),
                         {debug_line(this->table.parser, "meta_offset: " + before),
                          this->error("meta_offset: " + before + " invalid")});
}

// An offset that only the bounds of a strange super block admit is refused behind the items.
TYPED_TEST(PackedParse, OffsetBehindAllDevicesIsLookedAtAfterTheItems)
{
    SuperV3 changed = this->super;
    changed.*this->table.start = 0;
    changed.*this->table.end = ~std::uint64_t{0};
    this->set_super(changed);
    this->target = std::numeric_limits<std::int64_t>::min();
    this->expect_refused_behind(
        this->document({"[]"}).set("meta_offset", "9223372036854775808").text(), {},
        this->table.item + "_json index: 0 invalid");
}

} // namespace
