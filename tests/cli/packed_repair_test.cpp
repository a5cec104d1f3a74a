// What repairs of shards and of extents make of their items.

#include "packed_repair.h"

#include <cctype>
#include <cmath>

using namespace tier_test;

namespace {

TYPED_TEST_SUITE(PackedRepair, PackedTables, BlockTableNames);

TYPED_TEST(PackedRepair, EverySlot)
{
    std::vector<typename TestFixture::Item> items;
    std::vector<typename TypeParam::Entry> entries;
    for (std::uint32_t slot = this->table.first_slot; slot < SLOTS_V3; ++slot) {
        entries.push_back(sample_entry(this->table, slot));
        items.push_back({slot, entries.back()});
    }
    this->expect_items(items, this->packed(entries));
    std::ranges::reverse(items);
    this->expect_items(items, this->packed(entries));
}

TYPED_TEST(PackedRepair, SlotsThatAreNotListedAreFree)
{
    this->expect_items({{5, this->sample}}, this->packed({this->sample}));
    this->expect_items({}, {});
}

// Every bit of the field that a key fills, and of no other.
TYPED_TEST(PackedRepair, BitsOfAnEntry)
{
    std::vector<typename TestFixture::Item> items;
    std::vector<std::uint64_t> words;
    std::uint64_t in_use = 0;
    for (const auto &field : this->table.fields) {
        if (field.in_repair == InRepair::UNREAD)
            in_use = std::uint64_t{1} << field.shift;
        for (unsigned bit = 0; bit < field.width; ++bit)
            if (field.in_repair != InRepair::UNREAD)
                words.push_back(std::uint64_t{1} << (field.shift + bit));
    }
    std::vector<typename TypeParam::Entry> entries;
    for (const std::uint64_t word : words) {
        const auto slot = static_cast<std::uint32_t>(64 + entries.size());
        entries.push_back(entry_of(this->table, slot, word | in_use));
        items.push_back({slot, entries.back()});
    }
    this->expect_items(items, this->packed(entries));

    std::vector<std::string> files;
    for (const auto &item : items)
        files.push_back(this->file_of(item).text());
    ASSERT_EQ(this->repair(this->document(files).text(), {"-y"}).status, 0);
    const Block block = this->device.block(static_cast<std::uint64_t>(this->target));
    for (std::size_t i = 0; i < words.size(); ++i)
        EXPECT_EQ(get_u64(block, 8 * (64 + i)), words[i] | in_use) << "slot " << 64 + i;
}

TYPED_TEST(PackedRepair, NumbersAreCutToTheirFields)
{
    std::vector<JsonNumber> numbers = boundary_numbers();
    for (const unsigned width : {1U, 4U, 13U, 16U, 18U, 19U, 32U})
        for (const int by : {-1, 0, 1}) {
            const long double value = std::ldexp(1.0L, static_cast<int>(width)) + by;
            numbers.push_back({text("%.0Lf", value), value});
        }
    std::vector<std::string> files;
    std::vector<typename TypeParam::Entry> entries;
    Log lines;
    for (const JsonNumber &number : numbers) {
        const auto slot = static_cast<std::uint32_t>(entries.size() + 1);
        const auto whole = convert(Conversion::UNSIGNED_64, number.value);
        auto entry = entry_of(this->table, slot, 0);
        RepairFile file;
        file.number(this->table.number_key, slot);
        for (const auto &field : this->table.fields) {
            if (field.in_repair == InRepair::UNREAD)
                continue;
            entry.*field.value = low_bits(whole, field.width);
            file.set(field.name, number.text);
        }
        entry.in_use = 1;
        entries.push_back(entry);
        files.push_back(file.text());
        std::ranges::copy(this->log_of({slot, entry}), std::back_inserter(lines));
    }
    this->expect_block(this->document(files).text(), lines, encode(this->packed(entries)));
}

TYPED_TEST(PackedRepair, OfTheNumberOnlyThePlaceInTheBlockCounts)
{
    std::vector<JsonNumber> numbers = boundary_numbers();
    for (const char *number : {"5", "511", "512", "513", "1023", "1024", "1025", "5119", "5120.5",
                               "268435455", "4294967807", "1e3", "-511", "-512", "-513",
                               "18446744073709551104", "18446744073709551105"})
        numbers.push_back({number, std::stold(number)});
    for (const JsonNumber &number : numbers) {
        SCOPED_TRACE(number.text);
        const auto whole = convert(Conversion::UNSIGNED_64, number.value);
        auto entry = this->sample;
        entry.slot = whole % 512;
        RepairFile file = this->file_of({whole, entry});
        file.set(this->table.number_key, number.text);
        const std::string document = this->document({file.text()}).text();
        if (entry.slot >= this->table.first_slot)
            this->expect_block(document, this->log_of({whole, entry}),
                               encode(this->packed({entry})));
        else
            this->expect_refused_behind(document, {this->value_line("sno", whole)},
                                        "shards_json sno: 0 invalid");
    }
}

TYPED_TEST(PackedRepair, OptionalKeysMissing)
{
    auto bare = this->sample;
    std::vector<std::string> missing;
    for (const auto &field : this->table.fields) {
        if (field.in_repair != InRepair::OPTIONAL)
            continue;
        auto entry = this->sample;
        entry.*field.value = bare.*field.value = 0;
        missing.push_back(field.name);
        this->expect_items({{5, entry, {field.name}}}, this->packed({entry}));
    }
    ASSERT_FALSE(missing.empty());
    this->expect_items({{5, bare, missing}}, this->packed({bare}));
}

// What the later item does not say stays as the earlier one said it.
TYPED_TEST(PackedRepair, LaterItemOverwritesWhatItSets)
{
    auto ones = entry_of(this->table, 5, ~std::uint64_t{0});
    auto zeros = entry_of(this->table, 5, 0);
    zeros.in_use = 1;
    this->expect_items({{5, ones}, {5, zeros}}, this->packed({zeros}));
    this->expect_items({{5, zeros}, {5, ones}}, this->packed({ones}));

    std::vector<std::string> optional;
    auto merged = zeros;
    for (const auto &field : this->table.fields) {
        if (field.in_repair != InRepair::OPTIONAL)
            continue;
        optional.push_back(field.name);
        merged.*field.value = ones.*field.value;
        auto one_kept = zeros;
        one_kept.*field.value = ones.*field.value;
        this->expect_items({{5, ones}, {5, zeros, {field.name}}}, this->packed({one_kept}));
    }
    const auto other = sample_entry(this->table, 6);
    // The same place by another number, with another item in between.
    this->expect_items({{5, ones}, {6, other}, {512 + 5, zeros, optional}},
                       this->packed({merged, other}));
    this->expect_items({{5, ones}, {5, zeros, optional}, {5, zeros}}, this->packed({zeros}));
}

TYPED_TEST(PackedRepair, EveryItemIsInUse)
{
    RepairFile file = this->file_of({5, this->sample});
    const Log lines = this->log_of({5, this->sample});
    for (const std::string value : {"0", "1", "2", "\"0\"", "null", "[]"}) {
        file.set("in_use", value);
        this->expect_block(this->document({file.text()}).text(), lines, this->sample_block());
    }
}

TYPED_TEST(PackedRepair, OtherKeysAreIgnored)
{
    for (const std::string value : {"1", "\"0x12345678\"", "null", "{}"}) {
        RepairFile item;
        item.set("checksum", value).set("unknown", value).set("meta_offset", value);
        item.set(this->table.number_key, "5");
        for (const auto &field : this->table.fields)
            if (field.in_repair != InRepair::UNREAD)
                item.number(field.name, this->sample.*field.value);
        RepairFile file;
        file.set("checksum", value).set("magic", value).set("unknown", value);
        file.set("meta_offset", std::to_string(this->target));
        file.set(this->table.entries_key, joined({item.text()}));
        this->expect_block(file.text(), this->log_of({5, this->sample}), this->sample_block());
    }
}

TYPED_TEST(PackedRepair, KeysInReverseOrderAreLoggedInReadingOrder)
{
    RepairFile item;
    for (auto field = this->table.fields.rbegin(); field != this->table.fields.rend(); ++field)
        item.number(field->name, this->sample.*field->value);
    item.number(this->table.number_key, 5);
    RepairFile file;
    file.set(this->table.entries_key, joined({item.text()}));
    file.set("meta_offset", std::to_string(this->target));
    this->expect_block(file.text(), this->log_of({5, this->sample}), this->sample_block());
}

TYPED_TEST(PackedRepair, KeysMatchInAnyCaseAndTheFirstWins)
{
    std::string item = "{";
    const auto add = [&item](std::string key, const std::string &value) {
        std::ranges::transform(key, key.begin(),
                               [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        item.append(item.size() > 1 ? ",\"" : "\"").append(key).append("\":").append(value);
    };
    add(this->table.number_key, "5");
    for (const auto &field : this->table.fields)
        add(field.name, std::to_string(this->sample.*field.value));
    item += ",\"" + this->table.number_key + "\":\"text\"}";
    const std::string place = std::to_string(this->target);
    const std::string entries = this->table.entries_key;
    const std::string document = "{\"Meta_Offset\":" + place + ",\"meta_offset\":0,\"" +
                                 static_cast<char>(std::toupper(entries[0])) + entries.substr(1) +
                                 "\":[" + item + "],\"" + entries + "\":null}";
    this->expect_block(document, this->sample_lines(), this->sample_block());
}

} // namespace
