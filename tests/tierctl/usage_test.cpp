// zu_tierctl usage: what is cached of files and what was not written back, by the test's own sums
// over the entries that it made.

#include "cache.h"
#include "check_run.h"
#include "pseudo_terminal.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

using namespace tier_test;
using Json = nlohmann::ordered_json;

namespace {

constexpr std::uint64_t KIB = 1024;

struct Sum {
    std::uint64_t cached = 0;
    std::uint64_t dirty = 0;
    std::uint64_t pieces = 0;
    std::uint64_t dirty_pieces = 0;

    void add(std::uint64_t bytes, bool clean)
    {
        cached += bytes;
        pieces++;
        dirty += clean ? 0 : bytes;
        dirty_pieces += clean ? 0 : 1;
    }
    bool operator==(const Sum &) const = default;
};

void PrintTo(const Sum &sum, std::ostream *out)
{
    *out << sum.cached << " cached, " << sum.dirty << " dirty, " << sum.pieces << " pieces, "
         << sum.dirty_pieces << " dirty pieces";
}

Sum sum_of(const Json &json)
{
    return {json.at("cached"), json.at("dirty"), json.at("pieces"), json.at("dirty_pieces")};
}

// The documents that a run puts out, one a line.
std::vector<Json> documents(const std::string &out)
{
    std::vector<Json> documents;
    for (const std::string &line : lines_of(out))
        documents.push_back(Json::parse(line));
    return documents;
}

Json usage_of(const std::string &device, int status = 0, std::vector<std::string> args = {})
{
    if (std::ranges::find(args, "--top") == args.end())
        args.insert(args.end(), {"--top", "1000"});
    args.insert(args.begin(), {"usage", "--json", device});
    const RunResult run = run_ctl(args);
    EXPECT_EQ(run.status, status) << run;
    EXPECT_EQ(run.err, "");
    const std::vector<Json> found = documents(run.out);
    EXPECT_EQ(found.size(), 1U);
    return found.empty() ? Json() : found.front();
}

std::map<std::uint64_t, Sum> files_of(const Json &usage)
{
    std::map<std::uint64_t, Sum> files;
    for (const Json &brick : usage.at("bricks"))
        for (const Json &file : brick.at("largest"))
            files[file.at("no")] = sum_of(file);
    return files;
}

const RunOptions WIDE{.environment = {{"COLUMNS", "200"}}};

// The last line for people: the total.
std::string last_line(const RunResult &run) { return lines_of(run.out).back(); }
std::string total_of(const Device &device, int status = 0)
{
    const RunResult run = run_ctl({"usage", device.path()}, WIDE);
    EXPECT_EQ(run.status, status) << run;
    return last_line(run);
}

// Extents 0 and 3 are of file 0, 1 of file 1, 2 of file 2; files 0 and 2 are of brick 0.
struct UsedV1 : WorldV1 {
    UsedV1()
    {
        const std::uint64_t sizes[] = {4096, 100 * KIB, sb.block_size + 1, 0};
        for (std::size_t i = 0; i < extents.size(); ++i) {
            extents[i].size = sizes[i];
            extents[i].clean = i % 2 == 0 ? 0 : 7;
        }
    }

    std::map<std::uint64_t, Sum> files() const
    {
        std::map<std::uint64_t, Sum> files;
        for (const ExtentV1 &extent : extents)
            files[extent.inode_no].add(std::min<std::uint64_t>(extent.size, sb.block_size),
                                       extent.clean != 0);
        return files;
    }
};

struct UsedV2 : WorldV2 {
    UsedV2()
    {
        extents[0].maps = {{0, {.offset = 0, .clean = 1, .orig_len = 5000, .begin = 0, .cnt = 2}},
                           {2, {.offset = 9, .clean = 0, .orig_len = 4096, .begin = 2, .cnt = 1}}};
        extents[1].maps = {
            {31, {.offset = 0, .clean = 0, .orig_len = 0x7FFF'FFFF, .begin = 9, .cnt = 8}}};
        extents[3].maps = {{5, {.offset = 0, .clean = 0, .orig_len = 77, .begin = 3, .cnt = 1}}};
    }

    std::map<std::uint64_t, Sum> files() const
    {
        std::map<std::uint64_t, Sum> files;
        for (const ExtentV2 &extent : extents)
            for (const auto &[no, piece] : extent.maps)
                if (piece.orig_len != 0)
                    files[extent.inode_no].add(std::min(piece.orig_len, sb.block_size),
                                               piece.clean != 0);
        return files;
    }
};

struct UsedV3 : WorldV3 {
    UsedV3()
    {
        shards[2] = {.shards = {{.slot = 5, .ino = 2, .index = 3}}};
        extents[0].extents[1].dirty = 1;
        extents[2].extents.push_back({.slot = 8, .lba = 9, .shard = 511, .dirty = 1, .bitmap = 9});
        extents[3] = {.extents = {{.slot = 511, .lba = 1, .shard = 1029, .bitmap = 3}}};
    }

    std::map<std::uint64_t, Sum> files() const
    {
        std::map<std::uint32_t, std::uint32_t> inode_of;
        for (const auto &[block, content] : shards)
            for (const ShardV3 &shard : content.shards)
                inode_of[static_cast<std::uint32_t>(block * SLOTS_V3) + shard.slot] = shard.ino;
        std::map<std::uint64_t, Sum> files;
        for (const auto &[block, content] : extents)
            for (const ExtentV3 &extent : content.extents)
                files[inode_of.at(extent.shard)].add(sb.block_size, extent.dirty == 0);
        return files;
    }
};

template <class World>
class UsageOf : public testing::Test {
protected:
    const World world;
    const Device device = world.device();
};

using UsedWorlds = testing::Types<UsedV1, UsedV2, UsedV3>;
TYPED_TEST_SUITE(UsageOf, UsedWorlds);

TYPED_TEST(UsageOf, SumsByFileAndBrick)
{
    const auto files = this->world.files();
    const Json usage = usage_of(this->device.path());
    EXPECT_EQ(files_of(usage), files);
    std::map<std::uint64_t, Sum> bricks;
    Sum total;
    std::uint64_t dirty_files = 0;
    for (const auto &[no, sum] : files) {
        for (Sum *to : {&bricks[this->world.inodes.at(no).brick_no], &total}) {
            to->cached += sum.cached;
            to->dirty += sum.dirty;
            to->pieces += sum.pieces;
            to->dirty_pieces += sum.dirty_pieces;
        }
        dirty_files += sum.dirty_pieces != 0 ? 1 : 0;
    }
    for (const Json &brick : usage.at("bricks")) {
        const std::uint64_t no = brick.at("no");
        EXPECT_EQ(sum_of(brick), bricks[no]);
        EXPECT_EQ(brick.at("path"), this->world.bricks.at(no).brickid);
        std::uint64_t changed = 0;
        for (const Json &file : brick.at("largest"))
            changed = std::max<std::uint64_t>(changed, file.at("changed"));
        EXPECT_EQ(brick.at("changed"), changed);
    }
    EXPECT_EQ(usage.at("bricks").size(), this->world.bricks.size());
    EXPECT_EQ(sum_of(usage.at("total")), total);
    EXPECT_EQ(usage.at("total").at("files"), files.size());
    EXPECT_EQ(usage.at("total").at("dirty_files"), dirty_files);
    EXPECT_EQ(usage.at("total").at("upper_bound"), (std::is_same_v<TypeParam, UsedV3>));
    EXPECT_EQ(usage.at("unknown"), Json::array());
}

TYPED_TEST(UsageOf, Files)
{
    const auto files = this->world.files();
    const Json usage = usage_of(this->device.path(), 0, {"--by", "inode"});
    std::optional<std::pair<std::uint64_t, std::uint64_t>> last;
    EXPECT_EQ(usage.at("inodes").size(), files.size());
    for (const Json &file : usage.at("inodes")) {
        const std::uint64_t no = file.at("no");
        const auto &inode = this->world.inodes.at(no);
        EXPECT_EQ(sum_of(file), files.at(no));
        EXPECT_EQ(file.at("uuid"), uuid_text(inode.uuid));
        EXPECT_EQ(file.at("brick"), inode.brick_no);
        EXPECT_EQ(file.at("size"), inode.size);
        EXPECT_EQ(file.at("changed"), inode.mtime);
        EXPECT_EQ(file.at("state"), "in use");
        const std::pair rank{files.at(no).dirty, files.at(no).cached};
        EXPECT_TRUE(!last || rank <= *last);
        last = rank;
        const Json alone = usage_of(this->device.path(), 0, {"--inode", std::to_string(no)});
        EXPECT_EQ(alone.at("file"), file);
        EXPECT_EQ(sum_of(alone.at("total")), files.at(no));
    }
    const Json first = usage_of(this->device.path(), 0, {"--by", "inode", "--top", "1"});
    EXPECT_EQ(first.at("inodes"), (Json{usage.at("inodes").at(0)}));
}

// A file whose inode cannot be used has a number and sums, but no brick.
TYPED_TEST(UsageOf, DamagedInode)
{
    flip(this->device, inode_offset(this->world.sb, 1) + 60);
    const Json usage = usage_of(this->device.path(), 1);
    EXPECT_EQ(files_of(usage), this->world.files());
    const Json &unknown = usage.at("bricks").back();
    EXPECT_EQ(unknown.at("no"), Json());
    EXPECT_EQ(sum_of(unknown), this->world.files().at(1));
    EXPECT_EQ(unknown.at("largest").at(0).at("state"), "damaged");
    EXPECT_FALSE(unknown.at("largest").at(0).contains("uuid"));
    EXPECT_EQ(
        usage.at("unknown"),
        (Json{{{"table", "inode"}, {"why", "damaged"}, {"no", 1}, {"last", 1}, {"count", 1}}}));
    const RunResult run = run_ctl({"usage", this->device.path()});
    EXPECT_NE(run.out.find("\nunknown: inode 1 damaged\n"), std::string::npos) << run;
    EXPECT_NE(run.out.find("\nbrick unknown"), std::string::npos) << run;
}

TYPED_TEST(UsageOf, DamagedBrickHasNoPath)
{
    flip(this->device, brick_offset(this->world.sb, 1) + 60);
    const Json usage = usage_of(this->device.path(), 1);
    EXPECT_EQ(files_of(usage), this->world.files());
    EXPECT_EQ(usage.at("bricks").at(1).at("no"), 1);
    EXPECT_EQ(usage.at("bricks").at(1).at("known"), false);
    EXPECT_EQ(usage.at("unknown").at(0).at("table"), "brick");
}

TYPED_TEST(UsageOf, LastLineForPeople)
{
    const auto files = this->world.files();
    std::uint64_t dirty = 0;
    std::size_t dirty_files = 0;
    for (const auto &[no, sum] : files) {
        dirty += sum.dirty;
        dirty_files += sum.dirty_pieces != 0 ? 1 : 0;
    }
    const double shown = static_cast<double>(dirty) / (dirty < 1024 * KIB ? 1024 : 1048576);
    EXPECT_EQ(total_of(this->device),
              text("%s%.1f %s of %zu file%s not written back",
                   std::is_same_v<TypeParam, UsedV3> ? "at most " : "", shown,
                   dirty < 1024 * KIB ? "KiB" : "MiB", dirty_files, dirty_files == 1 ? "" : "s"));
}

TEST(Usage, LostExtents)
{
    const UsedV1 world;
    const Device device = world.device();
    for (const std::uint64_t no : {0, 1, 4})
        flip(device, extent_offset(world.sb, no) + 9);
    const Json usage = usage_of(device.path(), 1);
    auto files = world.files();
    files[0] = {};
    files[0].add(0, false); // extent 3 alone
    files[0] = {.cached = 0, .dirty = 0, .pieces = 1, .dirty_pieces = 0};
    files.erase(1);
    EXPECT_EQ(files_of(usage), files);
    const auto run = [](std::uint64_t first, std::uint64_t last) {
        return Json{{"table", "extent"},
                    {"why", "damaged"},
                    {"no", first},
                    {"last", last},
                    {"count", last - first + 1}};
    };
    EXPECT_EQ(usage.at("unknown"), (Json{run(0, 1), run(4, 4)}));
    EXPECT_EQ(usage.at("total").at("unknown_extents"), 3);
    EXPECT_EQ(usage.at("total").at("unknown_bytes_max"), 3 * world.sb.block_size);
    const RunResult shown = run_ctl({"usage", device.path()}, WIDE);
    EXPECT_EQ(shown.status, 1);
    EXPECT_NE(shown.out.find("\nunknown: extent 0..1 (2 of them) damaged\n"
                             "unknown: extent 4 damaged\n"),
              std::string::npos)
        << shown;
    EXPECT_TRUE(last_line(shown).ends_with("; 3 extents unknown, with up to 3.0 MiB")) << shown;
}

TEST(Usage, EndOfTheDeviceIsUnreadable)
{
    UsedV3 world;
    Device device = world.device();
    device.truncate(static_cast<std::uint64_t>(extent_offset(world.sb, 1)));
    const Json usage = usage_of(device.path(), 1);
    EXPECT_EQ(usage.at("unknown"), (Json{{{"table", "extent"},
                                          {"why", "unreadable"},
                                          {"no", 512},
                                          {"last", 2047},
                                          {"count", 1536}}}));
    world.extents.erase(2);
    world.extents.erase(3);
    EXPECT_EQ(files_of(usage), world.files());
}

// Without its shard nobody knows whose an extent is; the numbers leave out the words that are none.
TEST(Usage, DamagedShards)
{
    const UsedV3 world;
    const Device device = world.device();
    flip(device, shard_offset(world.sb, 0) + 4000);
    const Json usage = usage_of(device.path(), 1);
    Sum orphans;
    orphans.add(world.sb.block_size, true);
    orphans.add(world.sb.block_size, false);
    orphans.add(world.sb.block_size, false);
    EXPECT_EQ(sum_of(usage.at("total").at("unknown_files")), orphans);
    EXPECT_EQ(
        usage.at("unknown"),
        (Json{{{"table", "shard"}, {"why", "damaged"}, {"no", 1}, {"last", 511}, {"count", 511}}}));
    EXPECT_EQ(total_of(device, 1),
              "at most 0 bytes of 0 files, and 16.0 KiB of files that are not known, not written "
              "back");
}

// References to inodes that are free, or do not exist.
TEST(Usage, StaleReferences)
{
    UsedV1 world;
    world.extents[1].inode_no = 4;
    world.extents[2].inode_no = 5;
    world.extents[3].inode_no = 0xFFFF'FFFF;
    const Json usage = usage_of(world.device().path());
    EXPECT_EQ(usage.at("bricks").back().at("largest").at(0).at("no"), 4);
    EXPECT_EQ(usage.at("bricks").back().at("largest").at(0).at("state"), "free");
    Sum orphans;
    orphans.add(world.sb.block_size, false);
    orphans.add(0, true);
    EXPECT_EQ(sum_of(usage.at("total").at("unknown_files")), orphans);
}

TEST(Usage, ManyLostRuns)
{
    SuperV1 sb = super_v1(1, 1, 2400);
    Device device = make_v1_device(sb);
    Block bad{};
    for (std::uint64_t no = 1; no < sb.block_cnt; no += 2)
        put_block(device, extent_offset(sb, no), bad);
    const Json usage = usage_of(device.path(), 1);
    EXPECT_EQ(usage.at("unknown").size(), 1000U);
    EXPECT_EQ(usage.at("unknown_more"), 200);
    EXPECT_EQ(usage.at("unknown").at(999).at("no"), 1999);
    EXPECT_EQ(usage.at("total").at("unknown_extents"), 1200);
    EXPECT_NE(run_ctl({"usage", device.path()}).out.find("\nand 1188 such runs more\n"),
              std::string::npos);
}

// Where the super block does not tell where pieces are described, nothing of them is known.
TEST(Usage, PiecesThatAreNotDescribed)
{
    UsedV2 world;
    Device device = world.device();
    world.sb.size_mapped_meta = 24;
    put_block(device, SUPER_OFFSET, encode(world.sb));
    const Json usage = usage_of(device.path(), 1);
    EXPECT_EQ(sum_of(usage.at("total")), Sum{});
    EXPECT_EQ(usage.at("total").at("unknown_extents"), 4);
    EXPECT_EQ(usage.at("unknown").size(), 1U);
    EXPECT_EQ(usage.at("unknown").at(0).at("last"), 3);
}

TEST(Usage, SumsStopAtTheLargestNumber)
{
    UsedV3 world;
    Device device = world.device();
    world.sb.block_size = std::uint64_t{1} << 63;
    put_block(device, SUPER_OFFSET, encode(world.sb));
    const Json usage = usage_of(device.path());
    EXPECT_EQ(usage.at("total").at("cached"), 0xFFFF'FFFF'FFFF'FFFFU);
    EXPECT_EQ(usage.at("total").at("dirty"), 0xFFFF'FFFF'FFFF'FFFFU);
    EXPECT_EQ(total_of(device), "at most 16.0 EiB or more of 2 files not written back");
}

TEST(Usage, Ages)
{
    constexpr std::uint64_t DAY = 86'400'000'000'000U;
    UsedV1 world;
    world.inodes[0].mtime = 400 * DAY;
    world.inodes[1].mtime = 400 * DAY - DAY;
    world.inodes[2].mtime = 0;
    world.extents[3].inode_no = 4; // free
    const auto files = world.files();
    const Device device = world.device();
    const Json usage = usage_of(device.path(), 0, {"--by", "age"});
    std::map<std::string, Sum> ages;
    for (const Json &age : usage.at("ages"))
        if (age.at("files") != 0)
            ages[age.at("within")] = sum_of(age);
    EXPECT_EQ(ages, (std::map<std::string, Sum>{{"hour", files.at(0)},
                                                {"day", files.at(1)},
                                                {"older", files.at(2)},
                                                {"unknown", files.at(4)}}));
    EXPECT_EQ(usage.at("ages").size(), 7U);
    const std::vector<std::string> lines =
        lines_of(run_ctl({"usage", device.path(), "--by", "age"}).out);
    EXPECT_EQ(lines.at(4),
              "hour                 4.0 KiB           4.0 KiB         1                    1");
    EXPECT_TRUE(lines.at(10).starts_with("unknown   ")) << lines.at(10);
}

TEST(Usage, TextForPeople)
{
    UsedV1 world;
    const Device device = world.device();
    const auto row = [](const std::string &name, const char *cached, const char *dirty,
                        unsigned pieces, const std::string &changed) {
        return text("%-16s%12s%18s%10u%21s", name.c_str(), cached, dirty, pieces, changed.c_str());
    };
    const auto changed = [&world](std::size_t inode) {
        return time_text(world.inodes[inode].mtime);
    };
    const std::vector<std::string> expected{
        device.path(),
        "layout v1, cache " + uuid_text(world.sb.uuid),
        "",
        "brick                 cached  not written back    pieces          last change",
        row("brick 0", "1.0 MiB", "1.0 MiB", 3, changed(2)),
        row("  inode 2", "1.0 MiB", "1.0 MiB", 1, changed(2)),
        "  and 1 more",
        row("brick 1", "100.0 KiB", "0", 1, changed(1)),
        row("  inode 1", "100.0 KiB", "0", 1, changed(1)),
        "",
        "1.0 MiB of 2 files not written back"};
    const RunOptions plain{.environment = {{"COLUMNS", ""}, {"NO_COLOR", ""}}};
    EXPECT_EQ(lines_of(run_ctl({"usage", "--top", "1", device.path()}, plain).out), expected);
    const RunResult terminal =
        run_on_terminal(ZU_TIERCTL, {"usage", "--top", "1", device.path()}, 200, plain);
    EXPECT_NE(terminal.out.find("\x1b["), std::string::npos);
    EXPECT_NE(terminal.out.find("████████████████"), std::string::npos);
    EXPECT_NE(terminal.out.find(world.bricks[0].brickid), std::string::npos) << terminal;
    const RunResult narrow =
        run_ctl({"usage", device.path()}, {.environment = {{"COLUMNS", "20"}}});
    for (const std::string &line : lines_of(narrow.out))
        EXPECT_LE(line.size(), 20U) << line;
    const std::vector<std::string> files =
        lines_of(run_ctl({"usage", "--by", "inode", "--top", "2", device.path()}, plain).out);
    EXPECT_EQ(files.at(4), row("inode 2", "1.0 MiB", "1.0 MiB", 1, changed(2)));
    EXPECT_EQ(files.at(6), "and 1 more");
}

TEST(Usage, OneFile)
{
    const UsedV1 world;
    const Device device = world.device();
    const std::vector<std::string> lines =
        lines_of(run_ctl({"usage", "--inode", "2", device.path()}, WIDE).out);
    EXPECT_EQ(lines.at(5), "identity " + uuid_text(world.inodes[2].uuid) + ", brick 0, " +
                               std::to_string(world.inodes[2].size) + " bytes");
    EXPECT_EQ(lines.back(), "1.0 MiB of 1 file not written back");
    const RunResult free = run_ctl({"usage", "--inode", "4", device.path()});
    EXPECT_EQ(free.status, 0) << free;
    EXPECT_TRUE(lines_of(free.out).at(4).ends_with(" free")) << free;
    EXPECT_EQ(last_line(free), "0 bytes of 0 files not written back");
    expect_complaint(run_ctl({"usage", "--inode", "5", device.path()}), 2,
                     "there is no inode 5 in " + device.path());
}

TEST(Usage, SeveralDevices)
{
    const UsedV1 v1;
    const UsedV2 v2;
    const UsedV3 v3;
    const Device devices[] = {v1.device(), v2.device(), v3.device()};
    std::vector<std::string> args{"usage", "--json"};
    for (const Device &device : devices)
        args.push_back(device.path());
    RunResult run = run_ctl(args);
    EXPECT_EQ(run.status, 0) << run;
    std::vector<Json> found = documents(run.out);
    ASSERT_EQ(found.size(), 4U);
    for (const char *key : {"cached", "dirty", "pieces", "files", "dirty_files"}) {
        std::uint64_t sum = 0;
        for (std::size_t i = 0; i < 3; ++i)
            sum += found[i].at("total").at(key).get<std::uint64_t>();
        EXPECT_EQ(found[3].at("total").at(key), sum) << key;
    }
    args.insert(args.begin() + 2, "/dev/null");
    run = run_ctl(args);
    EXPECT_EQ(run.status, 2) << run;
    EXPECT_EQ(run.err, "zu_tierctl: /dev/null is neither a regular file nor a block device\n");
    EXPECT_EQ(documents(run.out).at(0),
              (Json{{"device", "/dev/null"},
                    {"error", "/dev/null is neither a regular file nor a block device"}}));
    EXPECT_EQ(documents(run.out).at(4).at("total"), found[3].at("total"));
    EXPECT_EQ(found[3].at("not_read"), 0);
    EXPECT_EQ(documents(run.out).at(4).at("not_read"), 1);
    args.erase(args.begin() + 1);
    run = run_ctl(args, WIDE);
    EXPECT_EQ(run.status, 2);
    const std::string total = found[3].at("total").at("text").get<std::string>();
    EXPECT_EQ(last_line(run), "all devices but 1 that could not be read: " + total);
    args.erase(args.begin() + 1);
    run = run_ctl(args, WIDE);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(last_line(run), "all devices: " + total);
    expect_complaint(run_ctl({"usage", "--super", "x", devices[0].path(), devices[1].path()}), 2,
                     "--super is for one DEVICE");
}

// Whatever their names.
TEST(Usage, NoDeviceIsCountedTwice)
{
    const Device device = UsedV1().device();
    const Device other = UsedV2().device();
    const TempDir directory;
    const std::string link = directory.path("link");
    std::filesystem::create_symlink(device.path(), link);
    for (const std::string &again : {device.path(), link}) {
        expect_complaint(run_ctl({"usage", device.path(), other.path(), again}), 2,
                         device.path() + " and " + again + " are the same device");
        expect_complaint(run_ctl({"sql", device.path(), again, "select 1"}), 2,
                         device.path() + " and " + again + " are the same device");
    }
    // Names of nothing are no device.
    const RunResult run = run_ctl({"usage", directory.path("x"), directory.path("x")});
    EXPECT_EQ(last_line(run), "all devices but 2 that could not be read: 0 bytes of 0 files not "
                              "written back");
}

TEST(Usage, BadArguments)
{
    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {"--top", "-1"}, {"--top", "x"}, {"--inode", "0x"}, {"--by", "size"}}) {
        const RunResult run = run_ctl({"usage", "device", args[0], args[1]});
        EXPECT_EQ(run.status, 2) << run;
        EXPECT_NE(run.err.find(args[0]), std::string::npos);
    }
    expect_complaint(run_ctl({"usage", "device", "--by", "file"}), 2,
                     "--by file: expected brick, inode or age");
}

// By the super block of another file.
TEST(Usage, LostSuperBlock)
{
    const UsedV1 world;
    Device device = world.device();
    const std::string super = device.directory().path("super");
    const Block block = encode(world.sb);
    device.directory().write("super", std::string(block.begin(), block.end()));
    put_block(device, SUPER_OFFSET, Block{});
    const RunResult run = run_ctl({"usage", "--super", super, device.path()});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(last_line(run), "1.0 MiB of 2 files not written back");
}

} // namespace
