// What the dumps of shards and of extents have in common: blocks, numbers, damage, filters.

#include "packed_dump.h"

#include <utility>

using namespace tier_test;

namespace {

TYPED_TEST_SUITE(PackedDump, PackedTables, BlockTableNames);

TYPED_TEST(PackedDump, EntriesAreNumberedThroughTheTable)
{
    this->expect_walk();
    this->put(0, this->full_block());
    this->put(2, this->packed({sample_entry(this->table, 1), sample_entry(this->table, 511)}));
    this->put(3, this->full_block());
    this->expect_walk();
    for (std::uint64_t no = 0; no < this->BLOCKS; ++no)
        this->expect_single(no);
}

// Every bit of the word belongs to the field that the layout gives it to, and to no other.
TYPED_TEST(PackedDump, BitsOfAnEntry)
{
    std::map<std::uint32_t, std::uint64_t> words; // by slot, after those with a checksum's bits
    for (const auto &field : this->table.fields) {
        const std::uint64_t ones = ((std::uint64_t{1} << field.width) - 1) << field.shift;
        words.emplace(64 + words.size(), ones);
        for (unsigned bit = field.shift; bit < field.shift + field.width; ++bit)
            words.emplace(64 + words.size(), std::uint64_t{1} << bit);
    }
    ASSERT_GE(words.size(), 63 + this->table.fields.size()); // of an extent one bit has no name

    std::vector<typename TypeParam::Entry> entries;
    for (const auto &[slot, word] : words)
        entries.push_back(this->table.entry_of(slot, word));
    const auto packed = this->packed(entries);
    const Block block = encode(packed);
    for (const auto &[slot, word] : words)
        ASSERT_EQ(get_u64(block, 8 * slot), word) << "slot " << slot;
    this->put(1, packed);
    this->expect_single(1);
}

TYPED_TEST(PackedDump, EveryBitOfABlockCounts)
{
    constexpr std::uint32_t BITS = 64;
    const auto good = this->full_block();
    std::vector<Block> flipped(2 * BITS + SLOTS_V3, encode(good));
    for (std::size_t i = 0; i < flipped.size(); ++i) {
        // Each bit of two words, then some bit of each word.
        const std::size_t bit = i < BITS       ? 5 * BITS + i
                                : i < 2 * BITS ? 300 * BITS + i - BITS
                                               : (i - 2 * BITS) * BITS + i * 7 % BITS;
        flipped[i][bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
    }
    this->set_super(packed_super(flipped.size() + 1));
    this->device.truncate(this->super.data_offset);
    this->blocks.assign(flipped.size() + 1, {});
    for (std::size_t i = 0; i < flipped.size(); ++i)
        this->damage(i, flipped[i]);
    this->put(flipped.size(), good);
    this->expect_walk();
}

TYPED_TEST(PackedDump, DamagedBlocks)
{
    Block unwritten{};
    Block noise;
    noise.fill(0xEE);
    Block other_slot = encode(this->full_block());
    other_slot[8 * 300 + 3] ^= 0x40;
    for (const std::uint64_t no : {0U, 1U, 3U}) {
        for (const Block &block : {unwritten, noise, other_slot}) {
            this->damage(no, block);
            for (const int error : {-1, 0, 1, 2}) {
                this->expect_walk({.error = error});
                this->expect_single(no, {.error = error});
            }
        }
    }
    this->damage(2, unwritten); // all of them
    this->expect_walk();
    this->expect_walk({.error = 0});
}

TYPED_TEST(PackedDump, DumpsLeaveTheDeviceAlone)
{
    this->put(1, this->full_block());
    this->damage(2, Block{});
    const std::vector<std::uint8_t> before = this->device.bytes();
    EXPECT_EQ(this->run({"-y", "-F"}).status, 0);
    EXPECT_EQ(this->run({"-y", "-n", "1"}).status, 0);
    EXPECT_EQ(this->run({"-y", "-n", "2"}).status, 14);
    EXPECT_EQ(this->device.bytes(), before);
}

TYPED_TEST(PackedDump, OutputFileTakesTheArray)
{
    this->put(1, this->full_block());
    const std::string path = this->device.directory().path("out");
    const LoggedRun run = this->run({"-o", path});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(read_file(path), this->walk().out);
}

// Entries number 2^32 and above, in blocks after 4 GiB.
TYPED_TEST(PackedDump, NumbersAndOffsetsOf64Bits)
{
    constexpr std::uint64_t NO = 0x800001;
    SuperV3 changed = this->super;
    changed.*this->table.count_at = (NO + 1) * SLOTS_V3;
    this->set_super(changed);
    const auto packed = this->full_block();
    put_block(this->device, this->offset(NO), encode(packed));
    const LoggedRun run = this->run({"-n", std::to_string(NO)});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, shown_block(this->table, this->super, NO, packed).text);
    EXPECT_NE(run.out.find(text("\"%s\":4294967809,", this->table.entry_number().c_str())),
              std::string::npos);
}

template <class T>
class PackedFilter : public PackedDump<T> {
protected:
    static constexpr std::uint32_t OWNER = 7;

    // Damage, entries of every sort, nothing in use, then one entry in use.
    PackedFilter()
    {
        this->damage(0, Block{});
        this->put(1, this->packed({this->entry(1, 1, OWNER), this->entry(2, 0, OWNER),
                                   this->entry(30, 1, 0), this->entry(40, 1, OWNER + 1),
                                   this->entry(510, 0, 0), this->entry(511, 1, OWNER)}));
        this->put(3, this->packed({this->entry(256, 1, OWNER)}));
    }
};

TYPED_TEST_SUITE(PackedFilter, PackedTables, BlockTableNames);

TYPED_TEST(PackedFilter, AloneAndCombined)
{
    constexpr int OTHER_OWNER = 1 << 20 | 7; // the same in its low bits
    for (const int use : {-1, 0, 1, 2})
        for (const int owner : {-1, 0, 7, 9, OTHER_OWNER})
            for (const int error : {-1, 0, 1}) {
                const Settings filter{.use = use, .error = error, .owner = owner};
                SCOPED_TRACE(testing::PrintToString(filter_pairs(filter)));
                this->expect_walk(filter);
            }
}

TYPED_TEST(PackedFilter, ByIdentifierHidesNothing)
{
    this->expect_walk({.id = "anything"});
    this->expect_walk({.use = 1, .id = "7"});
}

TYPED_TEST(PackedFilter, PairsInAnyOrder)
{
    const Settings filter{.use = 1, .error = 0, .owner = 7};
    expect_run(this->run({"-g", "owner=7,error=0,use=1"}), this->walk(filter));
}

TYPED_TEST(PackedFilter, BlockWithoutAnEntryToShowIsSkippedSilently)
{
    // The first, the third and the fourth block leave neither a line nor a comma.
    this->put(0, {});
    const Settings filter{.use = 1, .owner = 8};
    const ShownBlock second = this->shown(1, filter);
    Log log = this->log_head(filter);
    std::ranges::copy(second.log, std::back_inserter(log));
    const LoggedRun run = this->run({"-g", "use=1,owner=8"});
    expect_run(run, {.status = 0, .out = "[" + second.text + "]", .log = log});
    EXPECT_EQ(std::ranges::count(run.log, this->table.formatter, &LogLine::func),
              static_cast<std::ptrdiff_t>(SLOTS_V3 - this->table.first_slot - 1));

    const Settings nothing{.use = 1, .owner = 9};
    expect_run(this->run({"-g", "use=1,owner=9"}),
               {.status = 0, .out = "[]", .log = this->log_head(nothing)});
}

TYPED_TEST(PackedFilter, BlockAskedForByNumberIsAlwaysShown)
{
    for (const int use : {-1, 0, 1, 2})
        for (const int error : {0, 1})
            this->expect_single(1, {.use = use, .error = error});
    for (const std::uint64_t no : {0U, 2U, 3U}) {
        this->expect_single(no, {.use = 1});
        this->expect_single(no, {.owner = 9});
        this->expect_single(no, {.error = 1});
    }
    this->put(0, {}); // the smallest number asks for a block as well
    this->expect_single(0, {.use = 1});
    const LoggedRun run = this->run({"-n", "2", "-g", "error=1"});
    EXPECT_TRUE(run.out.ends_with("\":[]}")) << run.out;
}

TYPED_TEST(PackedFilter, LineOfAHiddenEntryShowsTheWholeOwner)
{
    const unsigned width = this->table.field(this->table.owner).width;
    this->put(2, this->packed({this->entry(9, 1, (1U << width) - 1), this->entry(10, 0, 5)}));
    this->expect_walk({.owner = 9});
    this->expect_single(2, {.owner = 9});
}

} // namespace
