// zu_tierctl save: the metadata of a device as a file.

#include "cache.h"
#include "loop_device.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

std::string listed(const std::string &table, std::uint64_t no, std::uint64_t count,
                   std::int64_t offset, const std::string &error)
{
    return text(R"({"table":"%s","no":%lu,"count":%lu,"offset":%ld,"error":"%s"})", table.c_str(),
                no, count, offset, error.c_str());
}

std::string list_of(const std::vector<std::string> &items)
{
    std::string result;
    for (const std::string &item : items)
        result += (result.empty() ? "[\n" : ",\n") + item;
    return result + "\n]\n";
}

// The bytes that a saved file must have: the slots that the test names, and zeros.
class SavedBytes {
public:
    explicit SavedBytes(const Device &device) : device_(device.bytes()), bytes_(device_.size()) {}

    void keep(std::int64_t offset, std::uint64_t slots = 1)
    {
        const auto from = device_.begin() + offset;
        std::copy_n(from, slots * BLOCK_SIZE, bytes_.begin() + offset);
    }
    void keep(const CacheTable &table) { keep(table.offset(0), table.count); }
    const std::vector<std::uint8_t> &bytes() const { return bytes_; }

private:
    std::vector<std::uint8_t> device_;
    std::vector<std::uint8_t> bytes_;
};

class Save : public testing::Test {
protected:
    const TempDir directory;
    const std::string file = directory.path("saved");
    const std::string list = file + ".unreadable.json";

    RunResult save(const std::string &device, const RunOptions &options = {}) const
    {
        return run_ctl({"save", device, file}, options);
    }

    void expect_complete(const std::string &device, const SavedBytes &expected) const
    {
        const RunResult run = save(device);
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out + run.err, "");
        EXPECT_EQ(names_in(directory), std::vector<std::string>{"saved"});
        expect_bytes(expected);
    }

    void expect_bytes(const SavedBytes &expected) const
    {
        const std::string saved = read_file(file);
        EXPECT_TRUE(std::ranges::equal(saved, expected.bytes(), {},
                                       [](char c) { return static_cast<std::uint8_t>(c); }));
    }

    void expect_incomplete(const std::string &device, const std::vector<std::string> &items,
                           const SavedBytes &expected) const
    {
        expect_complaint(save(device), 1, file + " is incomplete: see " + list);
        EXPECT_EQ(read_file(list), list_of(items));
        expect_bytes(expected);
        EXPECT_EQ(names_in(directory),
                  (std::vector<std::string>{"saved", "saved.unreadable.json"}));
    }

    void expect_refused(const std::string &device, const std::string &complaint) const
    {
        const std::vector<std::string> before = names_in(directory);
        expect_complaint(save(device), 1, complaint);
        EXPECT_EQ(names_in(directory), before);
    }
};

class SaveLayouts : public Save, public testing::WithParamInterface<std::string> {
protected:
    const Cache cache = make_cache(GetParam());

    SavedBytes all_tables() const
    {
        SavedBytes expected(cache.device);
        for (const CacheTable &table : cache.tables)
            expected.keep(table);
        return expected;
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, SaveLayouts, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(SaveLayouts, SuperBlockAndTablesAndNothingElse)
{
    flip(cache.device, 0); // what lies before the super block is no metadata
    const auto before = cache.device.bytes();
    expect_complete(cache.device.path(), all_tables());
    EXPECT_TRUE(cache.device.bytes() == before);
}

TEST_P(SaveLayouts, TakesNoRoomForDataAndFreeSpace)
{
    ASSERT_EQ(save(cache.device.path()).status, 0);
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    std::uint64_t slots = 0;
    for (const CacheTable &table : cache.tables)
        slots += table.count;
    EXPECT_LE(static_cast<std::uint64_t>(status.st_blocks) * 512, slots * BLOCK_SIZE + 8192);
    EXPECT_EQ(status.st_size, static_cast<off_t>(cache.device.size()));
}

TEST_P(SaveLayouts, TheToolSeesTheSame)
{
    flip(cache.device, cache.offset("inode", 1) + 90);
    flip(cache.device, cache.offset("extent", 1) + 20);
    ASSERT_EQ(save(cache.device.path()).status, 0);
    for (const CacheTable &table : cache.tables)
        EXPECT_EQ(dump_of(file, table.command), dump_of(cache.device.path(), table.command));
}

TEST_P(SaveLayouts, WhatDoesNotReachTheDeviceIsListed)
{
    // The device ends in the middle of slot 2 of the extents.
    const CacheTable &extents = cache.table("extent");
    fs::resize_file(cache.device.path(), static_cast<std::uint64_t>(extents.offset(2)) + 100);
    SavedBytes expected(cache.device);
    for (const CacheTable &table : cache.tables) {
        if (table.name == "extent")
            expected.keep(table.offset(0), 2);
        else
            expected.keep(table);
    }
    expect_incomplete(cache.device.path(),
                      {listed("extent", 2, extents.count - 2, extents.offset(2), NO_DEVICE)},
                      expected);
}

TEST_P(SaveLayouts, BlockDevice)
{
    const auto device = LoopDevice::attach(cache.device.path());
    if (device == nullptr)
        GTEST_SKIP() << "no right to set up a loop device";
    expect_complete(device->path(), all_tables());
}

TEST_P(SaveLayouts, ZeroSlotsAreHoles)
{
    const CacheTable &inodes = cache.table("inode");
    for (const std::uint64_t no : {0, 2, 4}) {
        const std::string zeros(BLOCK_SIZE, '\0');
        const int fd = open(cache.device.path().c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(pwrite(fd, zeros.data(), zeros.size(), inodes.offset(no)), 4096);
        close(fd);
    }
    expect_complete(cache.device.path(), all_tables());
}

TEST_F(Save, ExpansionInodesLieAfterTheData)
{
    SuperV2 sb = super_v2(1, 4, 2);
    set_expansion(sb, EXPANSION_UNIT, true);
    const Device device =
        make_v2_device(sb, {}, {inode_v2_used(4, 0), inode_v2_used(4 + 25599, 0)});
    ASSERT_EQ(save(device.path()).status, 0);
    for (const std::string no : {"4", "25603"})
        EXPECT_EQ(dump_of(file, "dump_inode", {"-n", no}),
                  dump_of(device.path(), "dump_inode", {"-n", no}));
    EXPECT_EQ(run_ctl({"diff", device.path(), file}).status, 0);
}

TEST_F(Save, TablesOfMoreThanOneRead)
{
    const SuperV1 sb = super_v1(2, 700, 300);
    const Device device = make_v1_device(sb);
    SavedBytes expected(device);
    expected.keep(SUPER_OFFSET);
    expected.keep(brick_offset(sb, 0), 2);
    expected.keep(inode_offset(sb, 0), 700);
    expected.keep(extent_offset(sb, 0), 300);
    expect_complete(device.path(), expected);
}

// Super blocks may be sealed and say anything.

TEST_F(Save, UnalignedTables)
{
    SuperV3 sb = super_v3(3, 5);
    Device device = make_v3_device(sb);
    sb.inode_table_offset += 512;
    put_block(device, SUPER_OFFSET, encode(sb));
    SavedBytes expected(device);
    expected.keep(SUPER_OFFSET);
    expected.keep(brick_offset(sb, 0), 3);
    expected.keep(shard_offset(sb, 0), 3);
    expected.keep(hot_offset(sb, 0), 3);
    expected.keep(extent_offset(sb, 0), 4);
    expect_incomplete(device.path(), {listed("inode", 0, 5, inode_offset(sb, 0), NO_DEVICE)},
                      expected);
}

TEST_F(Save, TablesOutsideOrOverOneAnother)
{
    SuperV3 sb = super_v3(3, 5);
    Device device = make_v3_device(sb);
    sb.brick_table_offset = SUPER_OFFSET; // slot 0 is the super block
    sb.inode_table_offset = 0xFFFFFFFFFFFFF000;
    sb.inode_cnt = 0xFFFFFFFFFFFFFFFF;
    sb.shard_table_offset = sb.extent_table_offset;
    sb.hot_table_offset = std::uint64_t{1} << 50;
    sb.hot_table_size = 0xFFFFFFFFFFFFFFFF;
    sb.extent_cnt = 0;
    put_block(device, SUPER_OFFSET, encode(sb));
    SavedBytes expected(device);
    expected.keep(SUPER_OFFSET, 3);
    expected.keep(shard_offset(sb, 0), 3);
    expect_incomplete(device.path(),
                      {listed("inode", 0, 0xFFFFFFFFFFFFFFFF, -4096, NO_DEVICE),
                       listed("hot", 0, 0xFFFFFFFFFFFFF, std::int64_t{1} << 50, NO_DEVICE)},
                      expected);
}

TEST_F(Save, RecordsThatDoNotFitTheirSlots)
{
    SuperV1 sb = super_v1(1, 2, 3);
    Device device = make_v1_device(sb);
    for (const std::uint32_t size : {0U, 3U, 4097U, 0xFFFFFFFFU}) {
        sb.extent_size = size;
        put_block(device, SUPER_OFFSET, encode(sb));
        SavedBytes expected(device);
        expected.keep(SUPER_OFFSET);
        expected.keep(brick_offset(sb, 0), 1);
        expected.keep(inode_offset(sb, 0), 2);
        expected.keep(extent_offset(sb, 0), 3);
        expect_complete(device.path(), expected);
        fs::remove(file);
    }
}

TEST_F(Save, OnlyDevicesOfAKnownLayout)
{
    const SuperV1 sb = super_v1(1, 1, 1);
    Device device = make_v1_device(sb);
    device.write(SUPER_OFFSET, Block{});
    expect_refused(device.path(), no_super_block(device.path()));
    fs::resize_file(device.path(), 8191);
    expect_refused(device.path(),
                   "cannot read the super block of " + device.path() + ": " + NO_DEVICE);
}

TEST_F(Save, NothingIsOverwritten)
{
    const Cache cache = make_cache("v1");
    const std::string device = cache.device.path();
    directory.write("saved", "precious");
    expect_refused(device, file + " exists");
    EXPECT_EQ(read_file(file), "precious");
    fs::remove(file);

    fs::create_symlink("nowhere", file);
    expect_refused(device, file + " exists");
    fs::remove(file);

    directory.write("saved.unreadable.json", "of another file");
    expect_refused(device, list + " exists");
    EXPECT_EQ(read_file(list), "of another file");

    const auto before = cache.device.bytes();
    expect_complaint(run_ctl({"save", device, device}), 1, device + " exists");
    EXPECT_TRUE(cache.device.bytes() == before);
}

// What the first file lacks the second lacks, and lists.
TEST_F(Save, AnIncompleteFileIsSavedWithItsList)
{
    const Cache cache = make_cache("v3");
    fs::resize_file(cache.device.path(), static_cast<std::uint64_t>(cache.offset("extent", 1)));
    ASSERT_EQ(save(cache.device.path()).status, 1);
    const std::string again = directory.path("again");
    const std::string lacking = again + ".unreadable.json";
    expect_complaint(run_ctl({"save", file, again}), 1, again + " is incomplete: see " + lacking);
    EXPECT_TRUE(read_file(again) == read_file(file));
    auto first = nlohmann::json::parse(read_file(list));
    auto second = nlohmann::json::parse(read_file(lacking));
    for (auto *runs : {&first, &second})
        for (auto &run : *runs)
            EXPECT_EQ(run.erase("error"), 1U);
    EXPECT_EQ(first, second);
}

// No list could be written beside it.
TEST_F(Save, NamesThatAreTooLongAreRefusedBeforeTheCopy)
{
    const Cache cache = make_cache("v1");
    const std::string suffix = ".unreadable.json";
    const std::string longest = directory.path(std::string(NAME_MAX - suffix.size(), 's'));
    EXPECT_EQ(run_ctl({"save", cache.device.path(), longest}).status, 0);
    fs::remove(longest);
    expect_complaint(run_ctl({"save", cache.device.path(), longest + "s"}), 1,
                     "cannot create " + longest + "s" + suffix + ": File name too long");
    const std::string impossible = directory.path(std::string(NAME_MAX + 1, 's'));
    expect_complaint(run_ctl({"save", cache.device.path(), impossible}), 1,
                     "cannot create " + impossible + ": File name too long");
    EXPECT_EQ(names_in(directory), std::vector<std::string>{});
}

TEST_F(Save, FileThatMayNotBeSoLarge)
{
    const Cache cache = make_cache("v1");
    const std::vector<std::string> args{"-c",   "ulimit -f 100; exec \"$@\"", "sh", ZU_TIERCTL,
                                        "save", cache.device.path(),          file};
    expect_complaint(run_program("/bin/sh", args), 1, "cannot create " + file + ": File too large");
    EXPECT_EQ(names_in(directory), std::vector<std::string>{});
}

TEST_F(Save, ClosedStreamsAreNotWrittenTo)
{
    const Cache cache = make_cache("v1");
    fs::resize_file(cache.device.path(), static_cast<std::uint64_t>(cache.offset("extent", 1)));
    const auto before = cache.device.bytes();
    SavedBytes expected(cache.device);
    for (const CacheTable &table : cache.tables)
        expected.keep(table.offset(0), table.name == "extent" ? 1 : table.count);
    const std::vector<std::string> args{"-c",   "exec \"$@\" <&- >&- 2>&-", "sh", ZU_TIERCTL,
                                        "save", cache.device.path(),        file};
    EXPECT_EQ(run_program("/bin/sh", args).status, 1);
    expect_bytes(expected);
    EXPECT_TRUE(cache.device.bytes() == before);
}

TEST_F(Save, Help)
{
    const RunResult help = run_ctl({"save", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const std::string word : {"DEVICE", "FILE", "unreadable.json", "Example"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
}

} // namespace
