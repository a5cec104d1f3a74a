// How repairs of shards and of extents store their items.

#include "packed_repair.h"

#include <algorithm>

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

} // namespace
