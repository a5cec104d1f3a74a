// The walk over a table and the single entry, seen through the bricks and inodes of V1 devices.

#include "expect.h"
#include "v1_device.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>

using namespace tier_test;

namespace {

std::string joined(const std::vector<std::string> &items)
{
    std::string result = "[";
    for (const std::string &item : items)
        result += (result.size() > 1 ? "," : "") + item;
    return result + "]";
}

std::string error_record(int error, const std::string &key, std::uint64_t no, std::int64_t offset)
{
    return text("{\"error\":%d, \"%s\":%lu, \"meta_offset\":%ld}", error, key.c_str(), no, offset);
}

// A brick table whose entries are in use; those listed carry a wrong checksum.
class BrickWalk : public testing::Test {
protected:
    SuperV1 super;
    std::vector<BrickV1> bricks;

    Device table(std::uint32_t count, const std::vector<std::uint32_t> &damaged = {})
    {
        super = super_v1(count, 1, 1);
        bricks.clear();
        for (std::uint32_t no = 0; no < count; ++no) {
            bricks.push_back(brick_used(no));
            if (std::ranges::count(damaged, no) != 0)
                bricks.back().checksum = good_crc(bricks.back()) ^ 0x80U;
        }
        return make_v1_device(super, bricks);
    }

    static std::uint32_t good_crc(const BrickV1 &brick)
    {
        return record_crc(encode(brick), BrickV1::LENGTH);
    }

    std::string item(std::uint32_t no) const { return json(bricks[no], brick_offset(super, no)); }

    std::string bad_item(std::uint32_t no) const
    {
        return error_record(14, "bi_no", no, brick_offset(super, no));
    }

    // What the log says of a damaged brick: a message, then its text at offset 0.
    Log damage(std::uint32_t no) const
    {
        const BrickV1 &brick = bricks[no];
        return {error_line("__dump_brick_v1",
                           text("no:%u, brick no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", no,
                                brick.no, brick.magic, get_u32(encode(brick), 0), good_crc(brick))),
                raw_text(json(brick, 0))};
    }

    LogLine ignored(std::uint32_t no) const
    {
        return debug_line("__dump_brick_v1", text("ignore brick %u, bi_use=%u, bi_brickid=%s", no,
                                                  bricks[no].use, bricks[no].brickid.c_str()));
    }
};

TEST_F(BrickWalk, WalkIsOneArrayWithoutALineEnd)
{
    const Device device = table(3);
    expect_run(run_logged(device, "dump_brick"), {.status = 0,
                                                  .out = joined({item(0), item(1), item(2)}),
                                                  .log = {settings_line(device, "dump_brick")}});
}

TEST_F(BrickWalk, WalkOfOneEntryHasNoComma)
{
    const Device device = table(1);
    EXPECT_EQ(run_logged(device, "dump_brick").out, joined({item(0)}));
}

TEST_F(BrickWalk, OutputFileTakesTheArray)
{
    const Device device = table(3, {1});
    const std::string out = device.directory().path("out");
    const LoggedRun run = run_logged(device, "dump_brick", {"-o", out});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(read_file(out), joined({item(0), bad_item(1), item(2)}));
}

TEST_F(BrickWalk, ErrorRecordsByPositionAndFilter)
{
    const std::vector<std::vector<std::uint32_t>> damages{{0},    {1},    {3},       {0, 1},
                                                          {2, 3}, {0, 3}, {0, 1, 3}, {0, 1, 2, 3}};
    for (const auto &damaged : damages) {
        const Device device = table(4, damaged);
        for (const std::string error : {"", "-1", "0", "1", "2"}) {
            SCOPED_TRACE(testing::PrintToString(damaged) + " error=" + error);
            Settings settings;
            std::vector<std::string> args;
            if (!error.empty()) {
                settings.error = std::stoi(error);
                args = {"-g", "error=" + error};
            }
            std::vector<std::string> items;
            Log log{settings_line(device, "dump_brick", settings)};
            for (std::uint32_t no = 0; no < 4; ++no) {
                const bool bad = std::ranges::count(damaged, no) != 0;
                if (bad && error != "0")
                    items.push_back(bad_item(no));
                if (!bad && error != "1")
                    items.push_back(item(no));
                if (bad)
                    std::ranges::copy(damage(no), std::back_inserter(log));
                else if (error == "1")
                    log.push_back(ignored(no));
            }
            expect_run(run_logged(device, "dump_brick", args),
                       {.status = 0, .out = joined(items), .log = log});
        }
    }
}

TEST_F(BrickWalk, WalkThatSkipsEverythingIsEmpty)
{
    const Device device = table(3);
    for (const std::string filter : {"use=0", "error=1", "id=none"}) {
        SCOPED_TRACE(filter);
        const LoggedRun run = run_logged(device, "dump_brick", {"-g", filter});
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out, "[]");
        EXPECT_EQ(run.errors, Log{});
        ASSERT_EQ(run.log.size(), 4U);
        EXPECT_EQ(Log(run.log.begin() + 1, run.log.end()),
                  (Log{ignored(0), ignored(1), ignored(2)}));
    }
}

TEST_F(BrickWalk, SkippedEntriesLeaveNoComma)
{
    Device device = table(5);
    for (const std::uint32_t no : {0U, 2U, 4U}) {
        bricks[no].use = 0;
        device.write(static_cast<std::uint64_t>(brick_offset(super, no)), encode(bricks[no]));
    }
    EXPECT_EQ(run_logged(device, "dump_brick", {"-g", "use=1"}).out, joined({item(1), item(3)}));
    EXPECT_EQ(run_logged(device, "dump_brick", {"-g", "use=0"}).out,
              joined({item(0), item(2), item(4)}));
}

TEST_F(BrickWalk, SingleEntry)
{
    const Device device = table(3);
    for (std::uint32_t no = 0; no < 3; ++no) {
        SCOPED_TRACE(no);
        expect_run(
            run_logged(device, "dump_brick", {"-n", std::to_string(no)}),
            {.status = 0,
             .out = item(no),
             .log = {settings_line(device, "dump_brick", {.meta_no = static_cast<int>(no)})}});
    }
}

TEST_F(BrickWalk, SingleDamagedEntryIsOnlyLogged)
{
    const Device device = table(3, {1});
    for (const std::string error : {"0", "1", "2"}) {
        SCOPED_TRACE(error);
        Log log{settings_line(device, "dump_brick", {.meta_no = 1, .error = std::stoi(error)})};
        std::ranges::copy(damage(1), std::back_inserter(log));
        expect_run(run_logged(device, "dump_brick", {"-n", "1", "-g", "error=" + error}),
                   {.status = 14, .out = "", .log = log});
    }
}

TEST_F(BrickWalk, SingleSkippedEntryIsASuccessWithoutOutput)
{
    const Device device = table(3);
    expect_run(
        run_logged(device, "dump_brick", {"-n", "1", "-g", "use=0"}),
        {.status = 0,
         .out = "",
         .log = {settings_line(device, "dump_brick", {.meta_no = 1, .use = 0}), ignored(1)}});
}

TEST_F(BrickWalk, EntryNumberMustBeBelowTheCount)
{
    const Device device = table(3);
    for (const int no : {3, 4, 2147483647}) {
        SCOPED_TRACE(no);
        expect_run(
            run_logged(device, "dump_brick", {"-n", std::to_string(no)}),
            {.status = 22,
             .out = "",
             .log = {settings_line(device, "dump_brick", {.meta_no = no}),
                     error_line("zutr_dump_common", text("invalid bi_no %d, max cnt:3", no))}});
    }
}

TEST_F(BrickWalk, SingleEntryBehindTheEndOfTheDeviceIsAReadError)
{
    Device device = table(3);
    const std::int64_t offset = brick_offset(super, 2);
    device.truncate(static_cast<std::uint64_t>(offset));
    expect_run(run_logged(device, "dump_brick", {"-n", "2"}),
               {.status = 5,
                .out = "",
                .log = {settings_line(device, "dump_brick", {.meta_no = 2}),
                        error_line("zutr_dump_common",
                                   text("read bi_no 2 failed:-1, offset:%ld", offset))}});
    EXPECT_EQ(run_logged(device, "dump_brick", {"-n", "1"}).out, item(1));
}

TEST_F(BrickWalk, TableOf300EntriesIsWalkedInTwoChunks)
{
    Device device = table(300, {0, 255, 256, 299});
    std::vector<std::string> items;
    for (std::uint32_t no = 0; no < 300; ++no)
        items.push_back(bricks[no].checksum ? bad_item(no) : item(no));
    const LoggedRun whole = run_logged(device, "dump_brick");
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(whole.out, joined(items));

    // Cut off in the second chunk: the first stays as it was, the second is read block by block.
    constexpr std::uint32_t FIRST_LOST = 270;
    device.truncate(static_cast<std::uint64_t>(brick_offset(super, FIRST_LOST)));
    const std::int64_t chunk = brick_offset(super, 256);
    Log log{settings_line(device, "dump_brick")};
    for (const std::uint32_t no : {0U, 255U})
        std::ranges::copy(damage(no), std::back_inserter(log));
    log.push_back(debug_line("zutr_dump_common",
                             text("read bi_no failed:-1, offset:%ld, len:%d", chunk, 44 * 4096)));
    std::ranges::copy(damage(256), std::back_inserter(log));
    for (std::uint32_t no = FIRST_LOST; no < 300; ++no) {
        items[no] = error_record(5, "bi_no", no, brick_offset(super, no));
        log.push_back(
            debug_line("zutr_dump_common", text("read bi_no %u failed:-1, offset:%ld", no, chunk)));
    }
    expect_run(run_logged(device, "dump_brick"), {.status = 0, .out = joined(items), .log = log});
}

TEST_F(BrickWalk, UnreadableEntriesFollowTheErrorFilter)
{
    Device device = table(3, {1});
    device.truncate(static_cast<std::uint64_t>(brick_offset(super, 2)));
    const std::string unread = error_record(5, "bi_no", 2, brick_offset(super, 2));
    EXPECT_EQ(run_logged(device, "dump_brick", {"-g", "error=1"}).out,
              joined({bad_item(1), unread}));
    EXPECT_EQ(run_logged(device, "dump_brick", {"-g", "error=0"}).out, joined({item(0)}));
    // Where nothing can be read, the use filter hides nothing.
    EXPECT_EQ(run_logged(device, "dump_brick", {"-g", "use=0"}).out, joined({bad_item(1), unread}));
}

TEST_F(BrickWalk, TableThatCannotBeReadAtAll)
{
    Device device = table(2);
    device.truncate(static_cast<std::uint64_t>(brick_offset(super, 0)));
    const LoggedRun run = run_logged(device, "dump_brick");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, joined({error_record(5, "bi_no", 0, brick_offset(super, 0)),
                               error_record(5, "bi_no", 1, brick_offset(super, 1))}));
    EXPECT_EQ(run_logged(device, "dump_brick", {"-g", "error=0"}).out, "[]");
}

TEST_F(BrickWalk, DamagedEntryWithoutALogFileAborts)
{
    if (!default_log_is_missing())
        return;
    const Device device = table(2, {1});
    expect_abort(run_tool({"-p", device.path(), "-c", "dump_brick"}), "brick && fp");
}

TEST_F(BrickWalk, TextOfADamagedEntryStaysInTheLogFileEvenInDebugMode)
{
    const Device device = table(2, {0, 1});
    const LoggedRun run = run_logged(device, "dump_brick", {"-D"});
    EXPECT_EQ(run.log.size(), 5U);
    EXPECT_EQ(messages_of(run.log).size(), 3U);
    EXPECT_EQ(run.errors, messages_of(run.log));
}

TEST_F(BrickWalk, EmptyTableAborts)
{
    expect_abort(run_logged(table(0), "dump_brick"),
                 "params && meta_type && max_cnt > 0 && format_func");
}

TEST_F(BrickWalk, TableOffTheBlockBoundaryAborts)
{
    super = super_v1(1, 1, 1);
    super.size += 512;
    Device device(4 * MIB);
    device.write(SUPER_OFFSET, encode(super));
    expect_abort(run_logged(device, "dump_brick"), "meta_start % SIZE_4K == 0");
}

TEST_F(BrickWalk, DumpsLeaveTheDeviceAlone)
{
    const Device device = table(3, {1});
    const std::vector<std::uint8_t> before = device.bytes();
    EXPECT_EQ(run_logged(device, "dump_brick", {"-y", "-F"}).status, 0);
    EXPECT_EQ(run_logged(device, "dump_brick", {"-y", "-n", "1"}).status, 14);
    EXPECT_EQ(device.bytes(), before);
}

// The same driver under another key name, over a table that begins where the bricks end.
TEST(InodeDump, ErrorRecordsCarryTheKeyOfTheTable)
{
    const SuperV1 super = super_v1(2, 300, 1);
    std::vector<InodeV1> inodes{inode_used(0, 1), inode_used(1, 0), inode_used(299, 1)};
    inodes[1].magic ^= 1U;
    const Device device = make_v1_device(super, {}, inodes);

    std::vector<std::string> items;
    for (std::uint32_t no = 0; no < 300; ++no)
        items.push_back(json(InodeV1{.no = no}, inode_offset(super, no)));
    items[0] = json(inodes[0], inode_offset(super, 0));
    items[1] = error_record(14, "no", 1, inode_offset(super, 1));
    items[299] = json(inodes[2], inode_offset(super, 299));

    const Block bad = encode(inodes[1]);
    expect_run(run_logged(device, "dump_inode"),
               {.status = 0,
                .out = joined(items),
                .log = {settings_line(device, "dump_inode"),
                        error_line("__dump_inode_v1",
                                   text("inode no: 1 magic: 0x%x, checksum: 0x%x crc32: 0x%x",
                                        inodes[1].magic, get_u32(bad, 0),
                                        record_crc(bad, InodeV1::LENGTH))),
                        raw_text(json(inodes[1], 0))}});
    expect_run(run_logged(device, "dump_inode", {"-n", "300"}),
               {.status = 22,
                .out = "",
                .log = {settings_line(device, "dump_inode", {.meta_no = 300}),
                        error_line("zutr_dump_common", "invalid no 300, max cnt:300")}});
}

} // namespace
