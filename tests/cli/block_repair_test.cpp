// Repairs of whole blocks of V3, of shards, of extents and of the hot table: the place that the
// file gives to its block, and what becomes of its items.

#include "dump_text.h"
#include "json_number.h"
#include "key_sweep.h"
#include "loop_device.h"

#include <algorithm>
#include <map>

using namespace tier_test;

namespace {

constexpr std::uint64_t TWO_TO_63 = std::uint64_t{1} << 63;

class BlockRepair : public KeySweep {
protected:
    const std::uint64_t start = table.start(sample.super);
    const std::uint64_t end = table.end(sample.super); // where the next area begins
    const std::uint64_t target = start + BLOCK_SIZE;   // of the sample

    void set_super(const std::string &field, std::uint64_t value)
    {
        const TableModel &super_table = model(3, "super");
        put_number(sample.super, super_table.field(field), value);
        seal(super_table, {}, sample.super);
        device.write(SUPER_OFFSET, sample.super);
        content = device.bytes();
    }

    void set_bounds(std::uint64_t first, std::uint64_t behind)
    {
        const std::string next = table.name == "shard" ? "hot_table_offset"
                                 : table.name == "hot" ? "extent_table_offset"
                                                       : "data_offset";
        set_super(table.name + "_table_offset", first);
        set_super(next, behind);
    }

    Parsed parsed_of(const Members &members) const
    {
        return parsed(table, sample.super, sample.document(members));
    }

    // The file makes its block for this place, which is written if that can be done.
    void expect_accepted_at(const std::string &number, std::uint64_t place)
    {
        const Members members = with("meta_offset", number);
        const Parsed outcome = parsed_of(members);
        EXPECT_EQ(outcome.block, sample.block()) << number;
        EXPECT_EQ(static_cast<std::uint64_t>(outcome.place), place);
        expect(members);
    }
    void expect_accepted_at(std::uint64_t place)
    {
        expect_accepted_at(std::to_string(place), place);
    }

    // The parse ends with a message that has this end.
    void expect_refused(const Members &members, const std::string &message)
    {
        const Parsed outcome = parsed_of(members);
        EXPECT_FALSE(outcome.block);
        EXPECT_TRUE(outcome.log.back().text.ends_with(message)) << outcome.log.back();
        expect(members);
    }

    void expect_out_of_bounds(const std::string &number, std::uint64_t value)
    {
        expect_refused(with("meta_offset", number),
                       text("meta_offset: %ld invalid", static_cast<std::int64_t>(value)));
    }
    void expect_out_of_bounds(std::uint64_t value)
    {
        expect_out_of_bounds(std::to_string(value), value);
    }

    LoggedRun repair(const std::string &document, const std::vector<std::string> &args) const
    {
        std::vector<std::string> all{"-f", device.directory().write("conf.json", document)};
        all.insert(all.end(), args.begin(), args.end());
        return run_logged(device, table.repair, all);
    }

    // What the tool shows of the block is a repair file for it.
    void expect_block_from_its_dump(const Block &block)
    {
        const LoggedRun dump = run_logged(device, table.dump, {"-n", "1", "-g", "use=1"});
        ASSERT_EQ(dump.status, 0) << dump;
        ASSERT_EQ(repair(dump.out, {"-y"}).status, 0);
        EXPECT_EQ(device.block(target), block);
    }
};

INSTANTIATE_TEST_SUITE_P(V3, BlockRepair,
                         testing::Values(&repair_sample("ShardBlockV3"),
                                         &repair_sample("ExtentBlockV3"), &repair_sample("HotV3")),
                         sample_name);

TEST_P(BlockRepair, FromTheTableUpToTheNextArea)
{
    const std::uint64_t table_end = start + table.count(sample.super) * BLOCK_SIZE;
    ASSERT_LT(table_end + BLOCK_SIZE, end); // there is a gap behind the table
    for (const std::uint64_t offset :
         {start, target, table_end - BLOCK_SIZE, table_end, end - BLOCK_SIZE})
        expect_accepted_at(offset);
}

TEST_P(BlockRepair, OutsideIsRefused)
{
    for (const std::uint64_t offset :
         {std::uint64_t{0}, std::uint64_t{1}, SUPER_OFFSET, start - BLOCK_SIZE, start - 1, end,
          end + 1, end + BLOCK_SIZE, TWO_TO_63, TWO_TO_63 + start, ~std::uint64_t{0},
          start + (std::uint64_t{1} << 32)})
        expect_out_of_bounds(offset);
}

TEST_P(BlockRepair, PlacesOfEveryKindOfNumber)
{
    expect_accepted_at(std::to_string(start) + ".999", start);
    expect_accepted_at(std::to_string(start) + "0e-1", start);
    expect_out_of_bounds(std::to_string(start - 1) + ".999", start - 1);
    for (const JsonNumber &number : boundary_numbers())
        expect_out_of_bounds(number.text, convert(Conversion::UNSIGNED_64, number.value));
}

TEST_P(BlockRepair, TableBehindTheNextAreaTakesNothing)
{
    for (const std::uint64_t behind : {start, start - BLOCK_SIZE, std::uint64_t{0}}) {
        set_bounds(start, behind);
        for (const std::uint64_t offset : {start, start - BLOCK_SIZE, start + BLOCK_SIZE})
            expect_out_of_bounds(offset);
    }
}

TEST_P(BlockRepair, OnlyTheTwoBoundsCount)
{
    for (const char *field : {"shard_table_cnt", "extent_table_cnt", "shard_table_size",
                              "extent_table_size", "hot_table_size"})
        set_super(field, 0);
    expect_accepted_at(target);
}

// Direct I/O takes whole sectors only.
TEST_P(BlockRepair, OffTheBlockBoundaryNothingIsWritten)
{
    for (const std::uint64_t offset : {start + 1, start + 4095, end - 1})
        expect_accepted_at(offset);
}

TEST_P(BlockRepair, OffTheBlockBoundaryNothingIsWrittenToABlockDevice)
{
    const auto loop = LoopDevice::attach(device.path());
    if (!loop)
        GTEST_SKIP() << "no loop devices";
    const std::vector<std::uint8_t> before = device.bytes();
    const std::uint64_t offset = start + 100;
    const std::string conf = device.directory().write(
        "conf.json", sample.document(with("meta_offset", std::to_string(offset))));
    const std::vector<std::string> dry{"-p", loop->path(), "-c", table.repair, "-f", conf};
    EXPECT_EQ(run_with_log(device.directory(), dry).status, 0);
    std::vector<std::string> commit = dry;
    commit.push_back("-y");
    const LoggedRun run = run_with_log(device.directory(), commit);
    EXPECT_EQ(run.status, 5);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(
        run.errors,
        (Log{error_line("zutr_repair_common",
                        text("write meta on offset %lu failed:-1, cmd:%d, dev:%s, conf:%s", offset,
                             table.repair_code, loop->path().c_str(), conf.c_str()))}));
    EXPECT_EQ(device.bytes(), before);
}

TEST_P(BlockRepair, BehindAllOffsetsOfADevice)
{
    set_bounds(0, ~std::uint64_t{0});
    for (const std::uint64_t offset : {TWO_TO_63, TWO_TO_63 + BLOCK_SIZE, ~std::uint64_t{0} - 1}) {
        const Members members = with("meta_offset", std::to_string(offset));
        EXPECT_EQ(parsed_of(members).status, 14);
        expect_refused(members,
                       text("entry offset %ld is invalid", static_cast<std::int64_t>(offset)));
    }
    expect_out_of_bounds(~std::uint64_t{0});
    expect_accepted_at(TWO_TO_63 - BLOCK_SIZE); // behind the end of the device
}

TEST_P(BlockRepair, DocumentThatIsNoObject)
{
    const Parsed empty = parsed_of({});
    EXPECT_EQ(empty.log, (Log{error_line(table.parser, "parse meta_offset failed")}));
    for (const std::string document :
         {"[]", "17", "\"meta_offset\"", "null", "true", "[{\"meta_offset\":0}]"})
        expect_parsed(document, empty, false);
}

TEST_P(BlockRepair, ForcedVersionAborts)
{
    const std::vector<std::uint8_t> before = device.bytes();
    expect_abort(repair(sample.document(), {"-v", "3", "-y"}), table.without_super);
    EXPECT_EQ(device.bytes(), before);
}

TEST_P(BlockRepair, NothingIsPrintedAnywhere)
{
    const std::string out = device.directory().path("out");
    const LoggedRun run = repair(sample.document(), {"-o", out, "-y"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(read_file(out), "");
}

TEST_P(BlockRepair, NumberAndFilterOfTheCommandLinePlayNoPart)
{
    std::vector<std::uint8_t> expected = device.bytes();
    put_bytes(expected, target, sample.block());
    const LoggedRun run =
        repair(sample.document(), {"-n", "3", "-g", "use=0,owner=9,error=1", "-F", "-y"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(device.bytes(), expected);
}

// A block may be put anywhere between the bounds, over another table as well.
TEST_P(BlockRepair, OverWhateverLiesThere)
{
    const auto place_in_super = [this](const char *field) {
        return get_number(sample.super, model(3, "super").field(field));
    };
    const std::uint64_t bricks = place_in_super("brick_table_offset");
    set_bounds(0, place_in_super("data_offset"));
    expect_accepted_at(0);
    expect_accepted_at(bricks);
}

// Of shards and of extents. An entry is a word.
class PackedRepair : public BlockRepair {
protected:
    const Items &array = *table.items;
    const std::uint64_t in_use = std::uint64_t{1} << array.in_use->shift; // which no key fills
    const std::uint64_t settable = bits(Need::IN_USE) | bits(Need::OPTIONAL);
    const std::uint64_t some = settable & 0x9E3779B97F4A7C15U;

    // Those of the keys that are as necessary as that.
    std::uint64_t bits(Need need) const
    {
        std::uint64_t mask = 0;
        for (std::size_t i = 1; i < array.keys.size(); ++i)
            if (const Field &field = array.keys[i].field; array.keys[i].need == need)
                mask |= ((std::uint64_t{1} << field.width) - 1) << field.shift;
        return mask;
    }

    // An item of the file that gives these bits. Keys of bits that are not `given` are missing.
    std::string item(std::uint64_t no, std::uint64_t word,
                     std::uint64_t given = ~std::uint64_t{0}) const
    {
        Block block{};
        put_u64(block, 0, word);
        RepairFile file;
        file.number(array.keys.front().name, no);
        for (std::size_t i = 1; i < array.keys.size(); ++i)
            if (const Field &field = array.keys[i].field; (given >> field.shift & 1U) != 0)
                file.number(field.name, get_number(block, field));
        return file.text();
    }

    Members with_items(const std::vector<std::string> &items) const
    {
        return with(array.name, joined(items));
    }

    // The items make a block of these words, given by their slots; all of them are in use.
    void expect_words(const std::vector<std::string> &items,
                      const std::map<std::size_t, std::uint64_t> &words)
    {
        Block block{};
        put_u32(block, 4, table.magic);
        for (const auto &[slot, word] : words)
            put_u64(block, 8 * slot, word | in_use);
        seal(table, sample.super, block);
        EXPECT_EQ(parsed_of(with_items(items)).block, block);
        expect(with_items(items));
    }
};

INSTANTIATE_TEST_SUITE_P(V3, PackedRepair,
                         testing::Values(&repair_sample("ShardBlockV3"),
                                         &repair_sample("ExtentBlockV3")),
                         sample_name);

TEST_P(PackedRepair, EverySlot)
{
    std::vector<std::string> items;
    std::map<std::size_t, std::uint64_t> words;
    for (std::uint64_t slot = table.first_slot; slot < SLOTS_V3; ++slot) {
        words[slot] = (slot + 1) * 0x9E3779B97F4A7C15U & settable;
        items.push_back(item(slot, words[slot]));
    }
    expect_words(items, words);
    std::ranges::reverse(items);
    expect_words(items, words);
}

TEST_P(PackedRepair, SlotsThatAreNotListedAreFree)
{
    expect_words({item(5, some)}, {{5, some}});
    expect_words({}, {});
}

// Every bit of the field that a key fills, and of no other.
TEST_P(PackedRepair, BitsOfAnEntry)
{
    std::vector<std::string> items;
    std::map<std::size_t, std::uint64_t> words;
    for (unsigned bit = 0; bit < 64; ++bit)
        if ((settable >> bit & 1U) != 0) {
            words[64 + bit] = std::uint64_t{1} << bit;
            items.push_back(item(64 + bit, words[64 + bit]));
        }
    ASSERT_GE(items.size(), 62U); // without the use, and of an extent a bit of the checksum
    expect_words(items, words);
}

// What the later item does not say stays as the earlier one said it.
TEST_P(PackedRepair, LaterItemOverwritesWhatItSets)
{
    const std::string ones = item(5, settable);
    const std::string zeros = item(5, 0);
    expect_words({ones, zeros}, {{5, 0}});
    expect_words({zeros, ones}, {{5, settable}});

    for (const Key &key : array.keys)
        if (key.need == Need::OPTIONAL) {
            const std::uint64_t kept = ((std::uint64_t{1} << key.field.width) - 1)
                                       << key.field.shift;
            expect_words({ones, item(5, 0, ~kept)}, {{5, kept}});
        }
    const std::uint64_t optional = bits(Need::OPTIONAL);
    ASSERT_NE(optional, 0U);
    // The same place by another number, with another item in between.
    expect_words({ones, item(6, some), item(512 + 5, 0, ~optional)}, {{5, optional}, {6, some}});
    expect_words({ones, item(5, 0, ~optional), zeros}, {{5, 0}});
}

TEST_P(PackedRepair, NumberOfABlockIsNotThatOfTheOffset)
{
    for (const std::uint64_t no : {1U, 513U, 1025U, 5121U}) // into block 1
        expect_words({item(no, some)}, {{1, some}});
}

// What was read before the wrong item is shown but not written.
TEST_P(PackedRepair, LastOfManyItemsIsWrong)
{
    std::vector<std::string> items;
    for (std::uint64_t slot = 1; slot < 400; ++slot)
        items.push_back(item(slot, some));
    items.push_back("[]");
    expect_refused(with_items(items), "_json index: 399 invalid");
}

TEST_P(PackedRepair, NoMoreItemsThanTheBlockHasRoomFor)
{
    const std::size_t room = SLOTS_V3 - table.first_slot;
    const auto items = [this](std::size_t count) {
        return std::vector<std::string>(count, item(5, some));
    };
    expect_words(items(room), {{5, some}}); // one slot may be listed that often
    for (const std::size_t count : {room + 1, room + 2, std::size_t{100'000}})
        expect_refused(with_items(items(count)), text("s_cnt: %zu bigger than 512", count));
}

TEST_P(PackedRepair, ItemsAreCountedBeforeTheyAreRead)
{
    for (const std::string each : {"null", "{}", "[]"})
        expect_refused(with_items(std::vector<std::string>(SLOTS_V3 + 1, each)),
                       "s_cnt: 513 bigger than 512");
}

TEST_P(PackedRepair, PlaceIsLookedAtBeforeTheItems)
{
    sample.members = with_items({"5"});
    expect_out_of_bounds(start - BLOCK_SIZE);
}

// An offset that only the bounds of a strange super block admit is refused behind the items.
TEST_P(PackedRepair, OffsetBehindAllDevicesIsLookedAtAfterTheItems)
{
    set_bounds(0, ~std::uint64_t{0});
    sample.members = with_items({"[]"});
    expect_refused(with("meta_offset", std::to_string(TWO_TO_63)), "_json index: 0 invalid");
}

class ShardRepair : public PackedRepair {};

INSTANTIATE_TEST_SUITE_P(V3, ShardRepair, testing::Values(&repair_sample("ShardBlockV3")),
                         sample_name);

TEST_P(ShardRepair, MultiplesOf512AreNoShards)
{
    for (const std::string number :
         {"0", "512", "1024", "-512", "0.5", "512.9", "1e300", "262144", "18446744073709551104"}) {
        ASSERT_EQ(convert(Conversion::UNSIGNED_64, std::stold(number)) % 512, 0U);
        // Nothing else of the item is looked at.
        expect_refused(with_items({R"({"sno":)" + number + "}"}), "shards_json sno: 0 invalid");
    }
}

class ExtentV3Repair : public PackedRepair {};

INSTANTIATE_TEST_SUITE_P(V3, ExtentV3Repair, testing::Values(&repair_sample("ExtentBlockV3")),
                         sample_name);

TEST_P(ExtentV3Repair, NumberMayBeAMultipleOf512)
{
    for (const std::uint64_t no : {0U, 512U, 1024U, 5120U})
        expect_words({item(no, some)}, {{0, some}});
}

TEST_P(ExtentV3Repair, ChecksumIsThatOfTheBlockWithoutIt)
{
    std::vector<std::string> items;
    Block bare{};
    const auto expect_checksum = [&] {
        const std::uint32_t crc = crc32(bare);
        Block block = bare;
        for (std::size_t bit = 0; bit < 32; ++bit)
            block[8 * bit] |= static_cast<std::uint8_t>(crc >> bit & 1U);
        ASSERT_EQ(repair(sample.document(with_items(items)), {"-y"}).status, 0);
        EXPECT_EQ(device.block(target), block);
    };
    expect_checksum();
    for (std::uint64_t slot = 0; slot < SLOTS_V3; ++slot) {
        put_u64(bare, 8 * slot,
                slot << 1 | (0x7FFFF - slot) << 20 | std::uint64_t{1} << 39 |
                    std::uint64_t{0x8001} << 40 | std::uint64_t{1} << 56);
        items.push_back(item(slot, get_u64(bare, 8 * slot)));
    }
    expect_checksum();
}

// A dump does not show them.
TEST_P(ExtentV3Repair, LowestBitsBehindTheChecksumComeBackAsZero)
{
    Block block = sample.block();
    for (std::size_t slot = 32; slot < SLOTS_V3; ++slot)
        block[8 * slot] |= 1;
    seal(table, sample.super, block);
    device.write(target, block);
    expect_block_from_its_dump(sample.block());
}

// They clear a block whatever lies there.
class HotRepair : public BlockRepair {};

INSTANTIATE_TEST_SUITE_P(V3, HotRepair, testing::Values(&repair_sample("HotV3")), sample_name);

TEST_P(HotRepair, LineOfADumpIsARepairFile)
{
    ASSERT_NE(device.block(target), Block{});
    expect_block_from_its_dump(Block{});
}

} // namespace
