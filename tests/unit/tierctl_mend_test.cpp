// Turned bits are found by the checksum: in every record of every layout, at the rates that the
// code promises, and never more than they are.

#include "zu_tierctl/entry/mend.h"

#include "v2_device.h"
#include "v3_device.h"
#include "zu_tierctl/entry/table.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <random>

using namespace tier_test;
using tierctl::Certainty;
using tierctl::Mended;
using tierctl::Metadata;
using tierctl::Table;

namespace {

constexpr std::size_t PAIRS_MAX = 371; // covered bytes in which two bits are found

// Sound slots of an entry of a table, with anything but its names in them.
struct Record {
    std::string name;
    const Metadata &metadata;
    const Table &table;
    std::uint64_t no;
    std::size_t length;
    std::vector<std::size_t> names; // bytes of magic, number and version
    std::vector<tierctl::Block> sound;

    std::size_t bits() const { return length * 8; }
    bool tells_pairs() const { return length - 4 <= PAIRS_MAX; }
    bool is_name(std::size_t bit) const { return std::ranges::find(names, bit / 8) != names.end(); }
    Mended mend(const tierctl::Block &slot) const
    {
        return tierctl::mend(metadata, table, no, slot);
    }
};

void turn(tierctl::Block &block, std::size_t bit) { block[bit / 8] ^= 1U << bit % 8; }

Metadata metadata_of(const std::string &layout, const Block &super)
{
    const tier_layout *found = tierctl::find_layout(layout);
    tierctl::Block block;
    std::ranges::copy(super, block.begin());
    return {found, block, tierctl::tables_of(*found, block.data())};
}

void add_range(std::vector<std::size_t> &bytes, std::size_t first, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        bytes.push_back(first + i);
}

Record make_record(const Metadata &metadata, const std::string &name, std::mt19937_64 &random)
{
    const int version = metadata.layout->version;
    const TableModel &rules = model(version, name);
    Block super;
    std::ranges::copy(metadata.super_block, super.begin());
    Record record = {.name = text("V%d %s", version, name.c_str()),
                     .metadata = metadata,
                     .table = tierctl::find_table(metadata.tables, name),
                     .no = name == "super" ? 0U : 1U,
                     .length = rules.length(super),
                     .names = {},
                     .sound = {}};
    for (int i = 0; i < 8; ++i) {
        Block block{};
        for (std::size_t at = 0; at < record.length; at += 8)
            put_u64(block, at, random());
        if (rules.magic != 0)
            put_u32(block, 4, rules.magic);
        if (!rules.number.empty())
            put_number(block, rules.field(rules.number), record.no);
        if (name == "super") {
            put_u32(block, 4, get_u32(super, 4));
            put_u32(block, 112, get_u32(super, 112));
        }
        seal(rules, block, record.length);
        std::ranges::copy(block, record.sound.emplace_back().begin());
    }
    if (rules.magic != 0 || name == "super")
        add_range(record.names, 4, 4);
    if (name == "super")
        add_range(record.names, 112, 4);
    if (!rules.number.empty()) {
        const Field &number = rules.field(rules.number);
        add_range(record.names, number.byte, number.width / 8);
    }
    return record;
}

// Every record of every layout, and extents of the lengths at which pairs are just told, or not.
class Mend : public testing::Test {
protected:
    Mend()
    {
        for (const std::uint32_t size : {72U, 375U, 376U, 4096U}) {
            SuperV1 v1 = super_v1(2, 2, 2);
            v1.extent_size = size;
            SuperV2 v2 = super_v2(2, 2, 2);
            v2.total_extent_size = size;
            add("v1", encode(v1));
            add("v2", encode(v2));
        }
        SuperV2 v2 = super_v2(2, 2, 2);
        add("v2", encode(v2));
        add("v3", encode(super_v3(2, 2)));
        for (const Metadata &metadata : devices_) {
            const bool is_first = &metadata - devices_.data() < 2 || &metadata == &devices_.back();
            for (const Table &table : metadata.tables) {
                if (table.row->crc != nullptr && (is_first || table.name == "extent"))
                    records.push_back(make_record(metadata, std::string(table.name), random));
            }
        }
    }

    std::size_t below(std::size_t limit) { return random() % limit; }

    // So many different bits of the record.
    std::vector<std::size_t> some_bits(const Record &record, std::size_t count)
    {
        std::vector<std::size_t> bits;
        while (bits.size() < count) {
            const std::size_t bit = below(record.bits());
            if (std::ranges::find(bits, bit) == bits.end())
                bits.push_back(bit);
        }
        std::ranges::sort(bits);
        return bits;
    }

    const tierctl::Block &some_sound(const Record &record)
    {
        return record.sound[below(record.sound.size())];
    }

    std::mt19937_64 random{20'261'122};
    std::vector<Record> records;

private:
    void add(const std::string &layout, const Block &super)
    {
        devices_.push_back(metadata_of(layout, super));
    }

    std::vector<Metadata> devices_ = [] {
        std::vector<Metadata> devices;
        devices.reserve(16);
        return devices;
    }();
};

TEST_F(Mend, OneBit)
{
    for (const Record &record : records) {
        SCOPED_TRACE(record.name);
        for (std::size_t i = 0; i < 5000; ++i) {
            const tierctl::Block &sound = some_sound(record);
            tierctl::Block wrong = sound;
            const std::size_t bit = below(record.bits());
            turn(wrong, bit);
            const Mended mended = record.mend(wrong);
            ASSERT_EQ(mended.certainty,
                      record.is_name(bit) ? Certainty::likely : Certainty::certain)
                << bit;
            ASSERT_EQ(mended.bits, std::vector{bit});
            ASSERT_TRUE(mended.block == sound) << bit;
        }
    }
}

TEST_F(Mend, TwoBits)
{
    for (const Record &record : records) {
        SCOPED_TRACE(record.name);
        for (std::size_t i = 0; i < 5000; ++i) {
            const tierctl::Block &sound = some_sound(record);
            tierctl::Block wrong = sound;
            const std::vector<std::size_t> bits = some_bits(record, 2);
            for (const std::size_t bit : bits)
                turn(wrong, bit);
            const Mended mended = record.mend(wrong);
            if (record.tells_pairs()) {
                ASSERT_EQ(mended.certainty, Certainty::likely);
                ASSERT_EQ(mended.bits, bits);
                ASSERT_TRUE(mended.block == sound);
            } else {
                ASSERT_EQ(mended.certainty, Certainty::none);
            }
        }
    }
}

} // namespace
