// zu_tierctl revert: one entry put back from a saved file.

#include "loop_device.h"
#include "revert_run.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class RevertV1 : public Revert {
protected:
    RevertV1() : Revert("v1") {}
};

INSTANTIATE_TEST_SUITE_P(Layout, Revert, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

// The lines that were printed.
std::vector<std::string> lines(const std::string &out)
{
    std::vector<std::string> result;
    for (std::size_t at = 0; at < out.size(); at = out.find('\n', at) + 1)
        result.push_back(out.substr(at, out.find('\n', at) - at));
    return result;
}

// What the tool prints of an entry, as valid JSON without spaces: a dump has one blank after
// "meta_offset" where the layout wants it.
std::string as_json(std::string dumped)
{
    const std::string key = "\"meta_offset\":";
    const std::size_t blank = dumped.find(key + ' ');
    if (blank != std::string::npos)
        dumped.erase(blank + key.size(), 1);
    EXPECT_TRUE(nlohmann::json::accept(dumped)) << dumped;
    return dumped;
}

TEST_P(Revert, EveryEntryIsShownAsByTheToolAndPutBack)
{
    const auto good = cache.device.bytes();
    for (const CacheTable &table : cache.tables) {
        for (std::uint64_t no = 0; no < table.count; ++no) {
            SCOPED_TRACE(table.name + ' ' + std::to_string(no));
            std::vector<std::string> one{"-n", std::to_string(no)};
            const std::string dumped = dump_of(
                saved, table.command, table.name == "super" ? std::vector<std::string>{} : one);
            flip(cache.device, table.offset(no) + 9, 0x40);
            const auto damaged = cache.device.bytes();

            const RunResult shown = revert(table.name, no);
            EXPECT_EQ(shown.status, 0) << shown;
            EXPECT_EQ(shown.err, NOTHING_WRITTEN);
            const auto told = lines(shown.out);
            ASSERT_GE(told.size(), 4U) << shown;
            EXPECT_EQ(told[0],
                      text("%s %lu at byte %ld", table.name.c_str(), no, table.offset(no)));
            EXPECT_TRUE(told[1].starts_with("now:  {")) << told[1];
            EXPECT_TRUE(nlohmann::json::accept(told[1].substr(6))) << told[1];
            EXPECT_EQ(told[2], "then: " + as_json(dumped));
            EXPECT_TRUE(told[3].starts_with("  ")) << told[3];
            EXPECT_TRUE(cache.device.bytes() == damaged);

            const RunResult done = revert(table.name, no, {"--commit"});
            EXPECT_EQ(done.status, 0) << done;
            EXPECT_EQ(done.out, shown.out + "written\n");
            EXPECT_EQ(done.err, "");
            EXPECT_TRUE(cache.device.bytes() == good);
        }
    }
}

TEST_P(Revert, AnythingIsShownAsJson)
{
    for (const CacheTable &table : cache.tables) {
        for (const char byte : {'\0', '\n', '"', '\\', '\xC3', '\xFF'}) {
            SCOPED_TRACE(text("%s full of 0x%02hhx", table.name.c_str(), byte));
            const Block good = block_of(table.name, 1 % table.count);
            Block bad;
            bad.fill(static_cast<std::uint8_t>(byte));
            put_block(cache.device, table.offset(1 % table.count), bad);
            const RunResult run = revert(table.name, 1 % table.count);
            EXPECT_EQ(run.status, 0) << run;
            const std::string now = lines(run.out).at(1);
            EXPECT_TRUE(nlohmann::json::accept(now.substr(now.find('{')))) << now;
            put_block(cache.device, table.offset(1 % table.count), good);
        }
    }
}

TEST_P(Revert, EqualEntriesNeedNothing)
{
    const auto before = cache.device.bytes();
    for (const auto &options : {std::vector<std::string>{}, {"--commit"}}) {
        const RunResult run = revert("inode", 2, options);
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out, "inode 2 is the same in both: nothing to do\n");
        EXPECT_EQ(run.err, "");
    }
    EXPECT_TRUE(cache.device.bytes() == before);
}

TEST_P(Revert, UndoesARepairAndNothingElse)
{
    const auto before = cache.device.bytes();
    const std::string conf = directory.write("inode.json", R"({"i_no":2,"i_use":0})");
    const LoggedRun repair = run_logged(cache.device, "repair_inode", {"-f", conf, "-y"});
    ASSERT_EQ(repair.status, 0) << repair;
    const RunResult differs = run_ctl({"diff", saved, cache.device.path()});
    EXPECT_TRUE(differs.out.starts_with("inode 2\n  ")) << differs;
    EXPECT_EQ(differs.out.find("\ninode"), std::string::npos);
    flip(cache.device, cache.offset("brick", 0) + 50); // another change stays

    EXPECT_EQ(revert("inode", 2, {"--commit"}).status, 0);
    flip(cache.device, cache.offset("brick", 0) + 50);
    EXPECT_TRUE(cache.device.bytes() == before);
    EXPECT_EQ(run_ctl({"diff", saved, cache.device.path()}).status, 0);
}

TEST_P(Revert, SuperBlocksMustBeTheSame)
{
    flip(cache.device, SUPER_OFFSET + 4000);
    flip(cache.device, cache.offset("inode", 2) + 60);
    expect_refused("inode", 2,
                   "the super blocks of " + saved + " and " + cache.device.path() +
                       " differ: bytes 4000..4000");
    cache.device.write(SUPER_OFFSET, Block{});
    expect_refused("inode", 2, no_super_block(cache.device.path()));
}

TEST_P(Revert, SuperBlockNeedsTheSameSize)
{
    flip(cache.device, SUPER_OFFSET + 100);
    cache.device.truncate(cache.device.size() + 4096);
    const std::uint64_t size = cache.device.size();
    expect_refused("super", 0,
                   "the sizes of " + saved + " and " + cache.device.path() +
                       text(" differ: %lu and %lu bytes", size - 4096, size));
}

TEST_P(Revert, LayoutsMustBeTheSame)
{
    const std::string layout = GetParam() == "v1" ? "v2" : "v1";
    const Cache other = make_cache(layout);
    fs::remove(saved);
    ASSERT_EQ(run_ctl({"save", other.device.path(), saved}).status, 0);
    expect_refused("inode", 2,
                   saved + " is of layout " + layout + ", " + cache.device.path() + " of layout " +
                       GetParam());
}

TEST_P(Revert, DamagedEntriesAreNotPutBack)
{
    for (const CacheTable &table : cache.tables) {
        if (table.name == "super" || table.name == "hot")
            continue;
        SCOPED_TRACE(table.name);
        fs::remove(saved);
        flip(cache.device, table.offset(1) + 20);
        save();
        flip(cache.device, table.offset(1) + 20);
        expect_refused(table.name, 1,
                       table.name + " 1 is damaged in " + saved +
                           " (checksum); to put it back as it was: --damaged");
    }
}

TEST_P(Revert, EntriesThatTheSavedFileLacks)
{
    const CacheTable &extents = cache.table("extent");
    const auto whole = cache.device.bytes();
    fs::remove(saved);
    fs::resize_file(cache.device.path(), static_cast<std::uint64_t>(extents.offset(2)));
    ASSERT_EQ(run_ctl({"save", cache.device.path(), saved}).status, 1);
    cache.device.write(0, whole);
    for (const std::uint64_t no : {std::uint64_t{2}, extents.count - 1})
        expect_refused("extent", no,
                       text("extent %lu is missing in %s: it could not be read when that was saved",
                            no, saved.c_str()));
    flip(cache.device, extents.offset(1) + 30);
    EXPECT_EQ(revert("extent", 1, {"--commit"}).status, 0);
    EXPECT_TRUE(cache.device.bytes() == whole);

    fs::remove(saved + ".unreadable.json"); // the file itself ends before these
    expect_refused("extent", 2, "cannot read extent 2 in " + saved + ": No such device or address");
}

TEST_P(Revert, DevicesThatEndBeforeTheEntry)
{
    fs::resize_file(cache.device.path(),
                    static_cast<std::uint64_t>(cache.offset("extent", 2)) + 100);
    expect_refused("extent", 2,
                   "cannot read extent 2 in " + cache.device.path() +
                       ": No such device or address");
}

TEST_P(Revert, BlockDevice)
{
    const auto before = cache.device.bytes();
    flip(cache.device, cache.offset("extent", 1) + 30);
    {
        const auto device = LoopDevice::attach(cache.device.path());
        if (device == nullptr)
            GTEST_SKIP() << "no right to set up a loop device";
        const int holder = open(device->path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
        ASSERT_GE(holder, 0);
        EXPECT_EQ(revert_on(device->path(), "extent", 1).status, 0);
        EXPECT_EQ(revert_on(device->path(), "extent", 1, {"--commit"}).status, 1);
        close(holder);
        const RunResult run = revert_on(device->path(), "extent", 1, {"--commit"});
        EXPECT_EQ(run.status, 0) << run;
    }
    EXPECT_TRUE(cache.device.bytes() == before);
}

TEST_P(Revert, NoSuchEntry)
{
    for (const CacheTable &table : cache.tables)
        for (const std::uint64_t no : {table.count, ~std::uint64_t{0}})
            expect_refused(table.name, no,
                           text("%s %lu: the table has %lu %s", table.name.c_str(), no, table.count,
                                is_packed(table.name) ? "blocks" : "entries"),
                           2);
    const std::string known = GetParam() == "v3" ? "super, brick, inode, shard, hot, extent"
                                                 : "super, brick, inode, extent";
    expect_refused("none", 0, "there is no table none, but " + known, 2);
}

TEST_F(RevertV1, RecordsThatDoNotFitTheirSlots)
{
    SuperV1 sb = super_v1(3, 5, 4);
    sb.extent_size = 5000;
    put_block(cache.device, SUPER_OFFSET, encode(sb));
    fs::remove(saved);
    save();
    flip(cache.device, cache.offset("extent", 1) + 30);
    expect_refused("extent", 1,
                   "extent 1 is damaged in " + saved +
                       " (record that does not fit its slot); to put it back as it was: --damaged");
}

TEST_F(RevertV1, WhatIsNotASavedFile)
{
    flip(cache.device, cache.offset("inode", 1) + 30);
    directory.write("saved", std::string(10000, 'x'));
    expect_refused("super", 0, no_super_block(saved));
}

TEST_F(RevertV1, UnreadableListThatIsNone)
{
    flip(cache.device, cache.offset("inode", 1) + 30);
    const std::string list = directory.write("saved.unreadable.json", "nonsense");
    expect_refused("inode", 1, list + " is no list of unreadable blocks");
}

// Without waiting for somebody to write to it.
TEST_F(RevertV1, UnreadableListThatIsAPipe)
{
    flip(cache.device, cache.offset("inode", 1) + 30);
    const std::string list = directory.path("saved.unreadable.json");
    ASSERT_EQ(mkfifo(list.c_str(), 0600), 0);
    expect_refused("inode", 1, list + " is no list of unreadable blocks");
}

TEST_F(RevertV1, UnreadableListOfLargeNumbers)
{
    SuperV3 sb = super_v3(3, 5);
    Device device = make_v3_device(sb);
    sb.inode_cnt = 0xFFFFFFFFFFFFFFFF;
    put_block(device, SUPER_OFFSET, encode(sb));
    fs::copy_file(device.path(), saved, fs::copy_options::overwrite_existing);
    std::fstream(saved, std::ios::in | std::ios::out).seekp(inode_offset(sb, 1))
        << std::string(BLOCK_SIZE, '\0');
    // Neighbours that a floating-point number cannot tell apart.
    const std::string there = "9007199254740992";
    const std::string missing = "9007199254740993";
    directory.write("saved.unreadable.json",
                    R"([{"table":"inode","no":)" + missing + R"(,"count":1,"offset":)" +
                        std::to_string(inode_offset(sb, 1)) + "}]"); // 2^53 slots are 2^65 bytes
    expect_complaint(run_ctl({"revert", saved, device.path(), "inode", missing}), 1,
                     "inode " + missing + " is missing in " + saved +
                         ": it could not be read when that was saved");
    const RunResult other = run_ctl({"revert", saved, device.path(), "inode", there});
    EXPECT_EQ(other.err.find("is missing"), std::string::npos) << other;
}

TEST_F(RevertV1, NothingIsWrittenWhenItCannotBeShown)
{
    flip(cache.device, cache.offset("inode", 2) + 60);
    const auto before = cache.device.bytes();
    const std::vector<std::string> closed{
        "-c",  "exec \"$@\" <&- >&- 2>&-", "sh",    ZU_TIERCTL, "revert",
        saved, cache.device.path(),        "inode", "2",        "--commit"};
    EXPECT_EQ(run_program("/bin/sh", closed).status, 1);
    EXPECT_TRUE(cache.device.bytes() == before);
}

TEST_F(RevertV1, BadCommandLines)
{
    const std::string device = cache.device.path();
    for (const auto &args : std::vector<std::vector<std::string>>{
             {"revert", saved, device, "inode", "x"},
             {"revert", saved, device, "inode", "0x"},
             {"revert", saved, device, "inode", "-1"},
             {"revert", saved, device, "inode", "18446744073709551616"}}) {
        const RunResult run = run_ctl(args);
        EXPECT_EQ(run.status, 2) << run;
        EXPECT_TRUE(run.err.starts_with("zu_tierctl: ")) << run;
    }
    const RunResult help = run_ctl({"revert", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const std::string word :
         {"SAVED", "DEVICE", "TABLE", "NO", "--commit", "--damaged", "--other-device", "same size"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
}

} // namespace
