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

// Flips of each kind in each record, of which there are twenty: 200,000 of each kind. The figures
// of docs/reliability.md are those of a million.
std::size_t rounds()
{
    const char *chosen = std::getenv("ZU_TIER_FLIPS");
    return chosen == nullptr ? 10'000 : std::stoul(chosen);
}

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

void turn(ByteSpan block, std::size_t bit)
{
    block[bit / 8] = static_cast<std::uint8_t>(block[bit / 8] ^ 1U << bit % 8);
}

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
    const std::size_t length = rules.length(super);
    Record record = {.name = text("V%d %s of %zu bytes", version, name.c_str(), length),
                     .metadata = metadata,
                     .table = tierctl::find_table(metadata.tables, name),
                     .no = name == "super" ? 0U : 1U,
                     .length = length,
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
        for (std::size_t i = 0; i < rounds(); ++i) {
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
        for (std::size_t i = 0; i < rounds(); ++i) {
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

// How often an answer is wrong where there is none, and how often it should be: an arbitrary
// checksum is explained by one of all bits, or of all pairs of bits.
class Figures {
public:
    // `excludes_one`: no single bit can explain them.
    explicit Figures(const std::string &what, bool excludes_one = false)
        : what_(what), excludes_one_(excludes_one)
    {
    }

    void add(const Record &record, Certainty certainty)
    {
        const auto bits = static_cast<double>(record.bits());
        runs_++;
        certain_.wrong += certainty == Certainty::certain ? 1 : 0;
        certain_.computed += excludes_one_ ? 0 : bits / BIT_32;
        likely_.wrong += certainty == Certainty::likely ? 1 : 0;
        if (record.tells_pairs())
            likely_.computed += bits * (bits - 1) / 2 / BIT_32;
    }

    // Of rare events hardly ever more than six standard deviations too many happen, and none of
    // those that cannot.
    void expect() const
    {
        for (const auto &[name, rate] : {std::pair{"certain", certain_}, {"likely", likely_}}) {
            const double most = rate.computed + 6 * std::sqrt(rate.computed + 0.1);
            EXPECT_LE(static_cast<double>(rate.wrong), rate.computed == 0 ? 0 : most)
                << what_ << ", " << name;
            std::cout << text("%s: %lu runs, %lu wrongly %s, computed %.1f\n", what_.c_str(), runs_,
                              rate.wrong, name, rate.computed);
        }
    }

private:
    struct Rate {
        std::size_t wrong = 0;
        double computed = 0;
    };

    std::string what_;
    bool excludes_one_;
    std::size_t runs_ = 0;
    Rate certain_;
    Rate likely_;
};

TEST_F(Mend, ThreeBits)
{
    Figures of_short("three bits where two are told", true);
    Figures of_long("three bits elsewhere");
    for (const Record &record : records) {
        SCOPED_TRACE(record.name);
        Figures &figures = record.tells_pairs() ? of_short : of_long;
        for (std::size_t i = 0; i < rounds(); ++i) {
            const tierctl::Block &sound = some_sound(record);
            tierctl::Block wrong = sound;
            for (const std::size_t bit : some_bits(record, 3))
                turn(wrong, bit);
            const Mended mended = record.mend(wrong);
            if (mended.certainty != Certainty::none) {
                ASSERT_FALSE(mended.block == sound);
            }
            figures.add(record, mended.certainty);
        }
    }
    of_short.expect();
    of_long.expect();
}

// Anything but the names, which would end the search.
TEST_F(Mend, Garbage)
{
    Figures of_short("garbage where two bits are told");
    Figures of_long("garbage elsewhere");
    for (const Record &record : records) {
        Figures &figures = record.tells_pairs() ? of_short : of_long;
        for (std::size_t i = 0; i < rounds(); ++i) {
            tierctl::Block slot{};
            for (std::size_t at = 0; at < record.length; at += 8)
                put_u64(slot, at, random());
            for (const std::size_t at : record.names)
                slot[at] = record.sound[0][at];
            figures.add(record, record.mend(slot).certainty);
        }
    }
    of_short.expect();
    of_long.expect();
}

TEST_F(Mend, WhatIsNotMended)
{
    for (const Record &record : records) {
        SCOPED_TRACE(record.name);
        const tierctl::Block &sound = record.sound[0];
        EXPECT_EQ(record.mend(sound).certainty, Certainty::none);
        EXPECT_TRUE(record.mend(sound).bits.empty());
        EXPECT_EQ(record.mend({}).certainty, Certainty::none);
        tierctl::Block last = {}; // nothing but the end of the record
        last[record.length - 1] = 1;
        EXPECT_EQ(record.mend(last).certainty, Certainty::none);

        // An entry in the wrong place has the right checksum; with a wrong one it remains there.
        if (record.table.row->number) {
            tierctl::Block slot = sound;
            EXPECT_EQ(tierctl::mend(record.metadata, record.table, record.no + 1, slot).certainty,
                      Certainty::none);
            turn(slot, record.bits() - 1);
            EXPECT_EQ(tierctl::mend(record.metadata, record.table, record.no + 1, slot).certainty,
                      Certainty::none);
            EXPECT_EQ(record.mend(slot).certainty, Certainty::certain);
        }
        // Three bits of what names it are too many, whatever the checksum says.
        if (!record.names.empty()) {
            tierctl::Block slot = sound;
            for (const std::size_t bit : {0U, 1U, 2U})
                turn(slot, record.names[0] * 8 + bit);
            EXPECT_EQ(record.mend(slot).certainty, Certainty::none);
        }
    }
}

// Two bits of the names, of the version too, are told as any others.
TEST_F(Mend, TwoBitsOfTheNames)
{
    for (const Record &record : records) {
        if (!record.tells_pairs() || record.names.empty())
            continue;
        SCOPED_TRACE(record.name);
        tierctl::Block wrong = record.sound[0];
        turn(wrong, record.names.front() * 8);
        turn(wrong, record.names.back() * 8 + 7);
        const Mended mended = record.mend(wrong);
        EXPECT_EQ(mended.certainty, Certainty::likely);
        EXPECT_TRUE(mended.block == record.sound[0]);
    }
}

// A table without a checksum has nothing to go by, nor one whose records do not fit.
TEST_F(Mend, TablesThatCannotBeMended)
{
    const Metadata v3 = metadata_of("v3", encode(super_v3(2, 2)));
    tierctl::Block slot{};
    slot[7] = 7;
    EXPECT_EQ(tierctl::mend(v3, tierctl::find_table(v3.tables, "hot"), 0, slot).certainty,
              Certainty::none);
    for (const std::uint32_t size : {0U, 3U, 4097U, UINT32_MAX}) {
        SuperV1 sb = super_v1(2, 2, 2);
        sb.extent_size = size;
        const Metadata v1 = metadata_of("v1", encode(sb));
        EXPECT_EQ(tierctl::mend(v1, tierctl::find_table(v1.tables, "extent"), 0, slot).certainty,
                  Certainty::none);
        Block brick = encode(brick_used(1));
        brick[100] ^= 1;
        std::ranges::copy(brick, slot.begin());
        EXPECT_EQ(tierctl::mend(v1, tierctl::find_table(v1.tables, "brick"), 1, slot).certainty,
                  Certainty::certain);
    }
}

// An inode where an extent of the same length should be, whose number it happens to have.
TEST_F(Mend, MagicOfAnotherTable)
{
    SuperV1 sb = super_v1(2, 2, 2);
    sb.extent_size = InodeV1::LENGTH;
    const Metadata v1 = metadata_of("v1", encode(sb));
    const Table &extents = tierctl::find_table(v1.tables, "extent");
    for (const bool is_inode : {true, false}) {
        Block block = encode(inode_used(1, 1));
        put_u64(block, 48, 1); // the number of an extent, in the identity
        if (!is_inode)
            put_u32(block, 4, 5);
        seal(block, InodeV1::LENGTH);
        block[60] ^= 4;
        tierctl::Block slot;
        std::ranges::copy(block, slot.begin());
        EXPECT_EQ(tierctl::mend(v1, extents, 1, slot).certainty,
                  is_inode ? Certainty::none : Certainty::certain);
    }
}

// Sets the last four bytes of a record so that its checksum is the one that it stores.
void force_checksum(Block &block, std::size_t length)
{
    struct Row {
        std::uint32_t change;
        std::uint32_t bits;
    };
    std::vector<Row> rows;
    std::uint32_t wanted = record_crc(block, length) ^ get_u32(block, 0);
    for (std::uint32_t bit = 0; bit < 32; ++bit) {
        const std::uint32_t last = get_u32(block, length - 4);
        const std::uint32_t before = record_crc(block, length);
        put_u32(block, length - 4, last ^ 1U << bit);
        Row row = {record_crc(block, length) ^ before, 1U << bit};
        put_u32(block, length - 4, last);
        for (const Row &other : rows)
            row = (row.change ^ other.change) < row.change
                      ? Row{row.change ^ other.change, row.bits ^ other.bits}
                      : row;
        rows.push_back(row);
        std::ranges::sort(rows, std::greater(), &Row::change);
    }
    std::uint32_t bits = 0;
    for (const Row &row : rows) {
        if ((wanted ^ row.change) < wanted) {
            wanted ^= row.change;
            bits ^= row.bits;
        }
    }
    put_u32(block, length - 4, get_u32(block, length - 4) ^ bits);
}

// An extent where a brick should be, which one bit would explain as well.
TEST_F(Mend, SoundRecordOfAnotherTable)
{
    const Metadata v1 = metadata_of("v1", encode(super_v1(2, 2, 2)));
    const Table &bricks = tierctl::find_table(v1.tables, "brick");
    for (const bool is_extent : {true, false}) {
        Block block = encode(brick_used(1));
        seal(block, 72); // as an extent
        force_checksum(block, BrickV1::LENGTH);
        ASSERT_EQ(get_u32(block, 0), record_crc(block, BrickV1::LENGTH));
        ASSERT_EQ(get_u32(block, 0), record_crc(block, 72));
        block[is_extent ? 100 : 50] ^= 1;
        tierctl::Block slot;
        std::ranges::copy(block, slot.begin());
        EXPECT_EQ(tierctl::mend(v1, bricks, 1, slot).certainty,
                  is_extent ? Certainty::none : Certainty::certain);
    }
}

// A layout whose super block says itself how long it is, and half of whose notes is not covered.

constexpr tier_table LONG_SUPER = {
    .name = "super",
    .regions =
        [](const void *) {
            return tier_regions{{{TIER_SUPER_OFFSET, 1}}};
        },
    .record_length =
        [](const void *sb) {
            return get_u64({static_cast<const std::uint8_t *>(sb), BLOCK_SIZE}, 16);
        },
    .crc = [](void *record, std::uint32_t length) { return tier_crc(record, length); },
    .checksum = &TIER_HEAD_CHECKSUM,
    .magic = tier_number_at(4, 4),
    .magic_value = 0x10A6,
};
constexpr tier_table NOTES = {
    .name = "note",
    .regions = [](const void *) { return tier_regions{}; },
    .record_length = [](const void *) { return std::uint64_t{64}; },
    .crc = [](void *record, std::uint32_t) { return tier_crc(record, 32); },
    .checksum = &TIER_HEAD_CHECKSUM,
};
constexpr const tier_table *LONG_TABLES[] = {&LONG_SUPER, &NOTES};
constexpr tier_layout LONG_LAYOUT = {
    .name = "long",
    .version_number = tier_number_at(8, 4),
    .version_value = 1,
    .tables = LONG_TABLES,
};

Metadata long_metadata(const Block &super)
{
    tierctl::Block block;
    std::ranges::copy(super, block.begin());
    return {&LONG_LAYOUT, block, tierctl::tables_of(LONG_LAYOUT, block.data())};
}

Block long_super(std::uint64_t length)
{
    Block block{};
    put_u32(block, 4, 0x10A6);
    put_u32(block, 8, 1);
    put_u64(block, 16, length);
    return block;
}

TEST(MendOfLengths, ThatAreWrong)
{
    Block sound = long_super(64);
    seal(sound, 64);
    std::size_t certain = 0;
    for (std::size_t bit = 0; bit < std::size_t{64} * 8; ++bit) {
        Block wrong = sound;
        turn(wrong, bit);
        const Metadata metadata = long_metadata(wrong);
        const Mended mended =
            tierctl::mend(metadata, metadata.tables.front(), 0, metadata.super_block);
        certain += mended.certainty == Certainty::certain ? 1 : 0;
        if (bit / 64 != 2) {
            ASSERT_EQ(mended.bits, std::vector{bit});
        }
        if (mended.certainty != Certainty::none) {
            ASSERT_EQ(memcmp(mended.block.data(), sound.data(), BLOCK_SIZE), 0);
        }
    }
    EXPECT_EQ(certain, std::size_t{(64 - 8 - 4 - 4) * 8});

    // The bit that would make the checksum right makes the record too long for its block.
    for (const std::uint64_t length : {std::uint64_t{64} + 4096, BIT_63 + 64}) {
        Block wrong = long_super(length);
        seal(wrong, 64);
        put_u64(wrong, 16, 64);
        const Metadata metadata = long_metadata(wrong);
        EXPECT_EQ(
            tierctl::mend(metadata, metadata.tables.front(), 0, metadata.super_block).certainty,
            Certainty::none);
    }
}

TEST(MendOfLengths, ThatAreNotCovered)
{
    Block super = long_super(64);
    seal(super, 64);
    const Metadata metadata = long_metadata(super);
    tierctl::Block sound{};
    sound[20] = 0x77;
    put_u32(sound, 0, record_crc(sound, 32));
    for (std::size_t bit = 0; bit < std::size_t{64} * 8; ++bit) {
        tierctl::Block wrong = sound;
        turn(wrong, bit);
        const Mended mended = tierctl::mend(metadata, metadata.tables[1], 0, wrong);
        ASSERT_EQ(mended.certainty, bit < 32 * 8 ? Certainty::certain : Certainty::none) << bit;
    }
}

// A record of zeroes is lost, although its checksum, which is nothing's here, is one bit away.
TEST(MendOfLengths, ThatAreZeroed)
{
    constexpr tier_table BLANKS = {
        .name = "blank",
        .regions = [](const void *) { return tier_regions{}; },
        .record_length = [](const void *) { return std::uint64_t{64}; },
        .crc =
            [](void *record, std::uint32_t length) {
                const Block zeroes{};
                return tier_crc(record, length) ^ tier_crc(zeroes.data(), length) ^ 1;
            },
        .checksum = &TIER_HEAD_CHECKSUM,
    };
    Metadata metadata = long_metadata(long_super(64));
    const Table table(BLANKS, metadata.super());
    tierctl::Block slot{};
    for (const bool has_record : {true, false}) {
        slot.fill(0);
        slot[64] = 1; // after the record
        slot[63] = has_record ? 1 : 0;
        table.seal_slot(slot.data());
        EXPECT_EQ(table.flaws(0, slot.data()), 0U);
        slot[0] ^= 1;
        EXPECT_EQ(tierctl::mend(metadata, table, 0, slot).certainty,
                  has_record ? Certainty::certain : Certainty::none);
    }
}

TEST(MendWords, ForClasses)
{
    EXPECT_EQ(tierctl::certainty_name(Certainty::certain), "certain");
    EXPECT_EQ(tierctl::certainty_name(Certainty::likely), "likely");
    EXPECT_EQ(tierctl::certainty_name(Certainty::none), "none");
}

// As a sentence shows a number or a byte of the field.
std::string shown(const Field &field, std::uint64_t value, std::size_t byte)
{
    switch (field.form) {
    case FieldForm::DECIMAL:
        return text("%lu", value);
    case FieldForm::REVERSED:
        return text("%08lx", value);
    case FieldForm::TEXT:
        if (byte >= ' ' && byte <= '~')
            return text("'%c'", static_cast<char>(byte));
        [[fallthrough]];
    case FieldForm::UUID:
        return text("0x%02lx", byte);
    case FieldForm::TIME:
    case FieldForm::HEX_AND_TIME:
        return text("0x%lx(%s)", value, time_text(value).c_str());
    default:
        return text("0x%lx", value);
    }
}

// What is said of a bit of the field, counted from its lowest, of the record or part at `base`.
std::string sentence(const std::string &name, const Field &field, const Block &wrong,
                     const Block &right, std::size_t bit, std::size_t base = 0)
{
    const std::size_t byte = base + field.byte + bit / 8;
    if (field.is_number()) {
        const std::size_t place = field.form == FieldForm::REVERSED ? bit ^ 24 : bit;
        return text("%s: %s is %s with bit %lu turned", name.c_str(),
                    shown(field, get_number(wrong, field, base), 0).c_str(),
                    shown(field, get_number(right, field, base), 0).c_str(), place);
    }
    return text("%s[%lu]: %s is %s with bit %lu turned", name.c_str(), bit / 8,
                shown(field, 0, wrong[byte]).c_str(), shown(field, 0, right[byte]).c_str(),
                bit % 8);
}

class MendTexts : public Mend {
protected:
    struct Turned {
        std::vector<std::string> texts;
        Block wrong;
        Block right;
    };

    // Turns so many bits that the test knows of a sound slot of the record.
    Turned turned(const Record &record, const std::vector<std::size_t> &bits)
    {
        Turned result{};
        tierctl::Block slot = some_sound(record);
        std::ranges::copy(slot, result.right.begin());
        for (const std::size_t bit : bits)
            turn(slot, bit);
        std::ranges::copy(slot, result.wrong.begin());
        const Mended mended = record.mend(slot);
        EXPECT_EQ(mended.bits, bits);
        result.texts = mend_texts(record.metadata, record.table, record.no, slot, mended);
        return result;
    }

    void expect_said(const Record &record, const std::string &name, const Field &field,
                     std::size_t base = 0)
    {
        const std::size_t bit = below(field.width);
        const Turned slot = turned(record, {(base + field.byte) * 8 + field.shift + bit});
        EXPECT_EQ(slot.texts, std::vector{sentence(name, field, slot.wrong, slot.right, bit, base)})
            << record.name;
    }

    const Record &record_of(const std::string &name) const
    {
        return *std::ranges::find(records, name, &Record::name);
    }
};

TEST_F(MendTexts, OfFields)
{
    std::size_t said = 0;
    for (const Record &record : records) {
        const TableModel &rules =
            model(record.metadata.layout->version, std::string(record.table.name));
        for (const Field &field : rules.fields) {
            if (rules.is_packed() || field.form == FieldForm::UNITS)
                continue;
            for (int i = 0; i < 40; ++i, ++said)
                expect_said(record, field.name, field);
        }
    }
    EXPECT_GT(said, 4000U);
}

TEST_F(MendTexts, OfPackedEntries)
{
    for (const std::string name : {"shard", "extent"}) {
        const TableModel &rules = model(3, name);
        const Record &record = record_of("V3 " + name + " of 4096 bytes");
        for (int i = 0; i < 40; ++i) {
            for (const Field &field : rules.fields) {
                const std::size_t k = rules.first_slot + below(SLOTS_V3 - rules.first_slot);
                expect_said(record,
                            text("%s[%lu].%s", rules.items->keys[0].name.c_str(),
                                 record.no * SLOTS_V3 + k, field.name.c_str()),
                            field, 8 * k);
            }
        }
    }
    const Record &shards = record_of("V3 shard of 4096 bytes");
    expect_said(shards, "checksum", {"checksum", 0, 32, FieldForm::HEX});
    expect_said(shards, "magic", {"magic", 4, 32, FieldForm::HEX});

    // Bit 9 of the checksum is the lowest of word 9; that of word 40 belongs to nothing.
    const Record &extents = record_of("V3 extent of 4096 bytes");
    const Turned crc = turned(extents, {9 * 64});
    const std::uint32_t was = extent_block_checksum(crc.right);
    EXPECT_EQ(crc.texts,
              std::vector{text("checksum: 0x%x is 0x%x with bit 9 turned", was ^ 1U << 9, was)});
    const Turned unused = turned(extents, {40 * 64});
    EXPECT_EQ(unused.texts, std::vector{text("byte 320: 0x%02x is 0x%02x with bit 0 turned",
                                             unused.wrong[320], unused.right[320])});
}

TEST_F(MendTexts, OfWordsAndPieces)
{
    for (const std::size_t word : {0U, 1U})
        expect_said(record_of("V1 extent of 72 bytes"), text("te_bitmap[%lu]", word),
                    {"", 0, 64, FieldForm::HEX}, 56 + 8 * word);
    const Record &extent = record_of("V2 extent of 648 bytes");
    for (const std::size_t piece : {0U, 31U}) {
        for (const Field &field : std::vector<Field>{{"offset", 0, 64},
                                                     {"clean", 8, 1},
                                                     {"orig_len", 8, 31, FieldForm::DECIMAL, 1},
                                                     {"begin", 12, 16},
                                                     {"cnt", 14, 16}})
            expect_said(extent, text("te_mapped_meta[%lu].%s", piece, field.name.c_str()), field,
                        72 + 16 * piece);
    }
    for (const auto &[byte, name] : {std::pair{60U, "bitmap"}, {600U, "hot area"}}) {
        const Turned slot = turned(extent, {byte * 8 + 5});
        EXPECT_EQ(slot.texts, std::vector{text("byte %u (%s): 0x%02x is 0x%02x with bit 5 turned",
                                               byte, name, slot.wrong[byte], slot.right[byte])});
    }
}

// The second is said of what is left of the first.
TEST_F(MendTexts, OfTwoBits)
{
    const Record &brick = record_of("V1 brick of 168 bytes");
    const Turned slot = turned(brick, {
                                          8 * 8 + 1,
                                          8 * 8 + 31,
                                      });
    const std::uint32_t use = get_u32(slot.wrong, 8);
    EXPECT_EQ(slot.texts, (std::vector{text("bi_use: %u is %u with bit 1 turned", use, use ^ 2U),
                                       text("bi_use: %u is %u with bit 31 turned", use ^ 2U,
                                            get_u32(slot.right, 8))}));
}

} // namespace
