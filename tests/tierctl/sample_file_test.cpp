// The file that zu_tierctl sample writes: what it refuses, replaces and leaves behind.

#include "loop_device.h"
#include "sample_image.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

const std::vector<std::string> SMALL_FILE{"--inodes",     "4",     "--blocks", "4",
                                          "--block-size", "262144"};

std::vector<std::string> small(std::vector<std::string> args)
{
    args.insert(args.end(), SMALL_FILE.begin(), SMALL_FILE.end());
    return args;
}

class SampleFile : public testing::Test {
protected:
    const TempDir directory;
    const std::string path = directory.path("image");

    std::vector<std::string> names() const
    {
        std::vector<std::string> result;
        for (const auto &entry : fs::directory_iterator(directory.path("")))
            result.push_back(entry.path().filename());
        std::ranges::sort(result);
        return result;
    }

    static void expect_failure(const RunResult &run, int status, const std::string &complaint)
    {
        EXPECT_EQ(run.status, status) << run;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "zu_tierctl: " + complaint + "\n");
    }

    // The file is a device image that the tool accepts.
    static void expect_image(const std::string &file)
    {
        const TempDir logs;
        EXPECT_EQ(run_with_log(logs, {"-p", file, "-c", "dump_super"}).status, 0);
    }
};

TEST_F(SampleFile, OnlyTheImageIsThere)
{
    EXPECT_EQ(run_sample(path, SMALL_FILE).status, 0);
    EXPECT_EQ(names(), std::vector<std::string>{"image"});
    expect_image(path);
}

TEST_F(SampleFile, NameWithoutADirectory)
{
    std::vector<std::string> args = small({"sample", "--layout", "v1"});
    args.push_back("image");
    RunOptions options;
    options.working_directory = directory.path("");
    EXPECT_EQ(run_program(ZU_TIERCTL, args, options).status, 0);
    expect_image(path);
}

TEST_F(SampleFile, PermissionsFollowTheMask)
{
    for (const mode_t mask : {022U, 077U}) {
        const mode_t before = umask(mask);
        const RunResult run = run_sample(path, small({"--force"}));
        umask(before);
        EXPECT_EQ(run.status, 0);
        struct stat status {};
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | (0666U & ~mask));
    }
}

TEST_F(SampleFile, ImageIsSparse)
{
    ASSERT_EQ(run_sample(path).status, 0); // 4 bricks, 64 inodes, 256 blocks of 1 MiB
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    const std::int64_t tables = (1 + 4 + 64 + 256) * 4096;
    EXPECT_GT(status.st_size, 256 * 1048576);
    EXPECT_LT(status.st_blocks * 512, tables + 65536);
}

TEST_F(SampleFile, LargestTables)
{
    ASSERT_EQ(run_sample(path, {"--bricks", "300", "--inodes", "100000", "--blocks", "1"}).status,
              0);
    const TempDir logs;
    const std::vector<std::string> last{"-p", path, "-c", "dump_inode", "-n", "99999"};
    const LoggedRun run = run_with_log(logs, last);
    EXPECT_EQ(run.status, 0);
    const SuperV1 sb = super_v1(300, 100000, 1);
    EXPECT_EQ(run.out, json(InodeV1{.no = 99999}, inode_offset(sb, 99999)));
}

TEST_F(SampleFile, ExistingFileIsKept)
{
    directory.write("image", "precious");
    expect_failure(run_sample(path, SMALL_FILE), 1, path + " exists, only --force overwrites it");
    EXPECT_EQ(directory.read("image"), "precious");
    EXPECT_EQ(names(), std::vector<std::string>{"image"});
}

TEST_F(SampleFile, ForceReplacesAFile)
{
    directory.write("image", std::string(100'000'000, 'x')); // longer than what replaces it
    EXPECT_EQ(run_sample(path, small({"--force"})).status, 0);
    EXPECT_EQ(names(), std::vector<std::string>{"image"});
    const std::string plain = directory.path("plain");
    ASSERT_EQ(run_sample(plain, SMALL_FILE).status, 0);
    EXPECT_TRUE(directory.read("image") == directory.read("plain"));
}

TEST_F(SampleFile, ForceIsNotNeededForANewFile)
{
    EXPECT_EQ(run_sample(path, small({"--force"})).status, 0);
    expect_image(path);
}

TEST_F(SampleFile, LinkStaysAndItsFileIsReplaced)
{
    directory.write("image", "precious");
    const std::string name = directory.path("link");
    fs::create_symlink("image", name);
    expect_failure(run_sample(name, SMALL_FILE), 1, name + " exists, only --force overwrites it");
    EXPECT_EQ(directory.read("image"), "precious");

    EXPECT_EQ(run_sample(name, small({"--force"})).status, 0);
    EXPECT_EQ(fs::read_symlink(name), "image");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));
    expect_image(path);
    EXPECT_EQ(names(), (std::vector<std::string>{"image", "link"}));
}

TEST_F(SampleFile, OnlyFilesAndBlockDevicesAreWritten)
{
    const std::string pipe = directory.path("pipe");
    const std::string dangling = directory.path("dangling");
    fs::create_directory(path);
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    fs::create_symlink("nothing", dangling);
    for (const std::string &target : {path, pipe, dangling, std::string("/dev/null")}) {
        SCOPED_TRACE(target);
        for (const auto &args : {SMALL_FILE, small({"--force"})})
            expect_failure(run_sample(target, args), 1,
                           target + " is neither a regular file nor a block device");
    }
    EXPECT_EQ(names(), (std::vector<std::string>{"dangling", "image", "pipe"}));
}

TEST_F(SampleFile, BlockDeviceNeedsForce)
{
    // No driver has that number: opening it fails.
    if (mknod(path.c_str(), S_IFBLK | 0600, makedev(0, 0)) != 0)
        GTEST_SKIP() << "no right to make a device node";
    expect_failure(run_sample(path, SMALL_FILE), 1, path + " exists, only --force overwrites it");
    expect_failure(run_sample(path, small({"--force"})), 1,
                   "cannot open " + path + ": No such device or address");
    EXPECT_TRUE(fs::is_block_file(path));
    EXPECT_EQ(names(), std::vector<std::string>{"image"});
}

TEST_F(SampleFile, BlockDeviceIsWrittenInPlace)
{
    const SuperV1 sb = [] {
        SuperV1 result = super_v1(4, 4, 4);
        result.block_size = 262144;
        return result;
    }();
    const std::uint64_t needed = sb.data_offset + 4 * 262144;
    ASSERT_EQ(run_sample(path, SMALL_FILE).status, 0);
    std::string expected(needed, 'x');
    const std::string image = directory.read("image");
    const auto take = [&](std::int64_t offset, std::size_t slots) {
        const auto at = static_cast<std::size_t>(offset);
        expected.replace(at, slots * 4096, image, at, slots * 4096);
    };
    take(4096, 1);
    take(brick_offset(sb, 0), 4);
    take(inode_offset(sb, 0), 4);
    take(extent_offset(sb, 0), 4);

    for (const std::uint64_t room : {needed, needed - 4096}) {
        const std::string file = directory.write("disk", std::string(room, 'x'));
        {
            const auto device = LoopDevice::attach(file);
            if (device == nullptr)
                GTEST_SKIP() << "no right to set up a loop device";
            const RunResult run = run_sample(device->path(), small({"--force"}));
            if (room == needed) {
                EXPECT_EQ(run.status, 0) << run;
            } else {
                expect_failure(run, 1,
                               text("%s is too small: %lu bytes of %lu", device->path().c_str(),
                                    room, needed));
            }
        }
        EXPECT_TRUE(directory.read("disk") == (room == needed ? expected : std::string(room, 'x')));
    }
}

// Block devices that hold something

class SampleOccupied : public SampleFile {
protected:
    // Makes a file of the sample's size with the given program, puts it on a block device and runs
    // the sample on that.
    void expect_refused_content(const std::vector<std::string> &maker, const std::string &content)
    {
        SCOPED_TRACE(content);
        fs::remove(path);
        directory.write("disk", "");
        const std::string disk = directory.path("disk");
        fs::resize_file(disk, 16 << 20);
        if (!maker.empty()) {
            const RunResult made = run_program("/usr/bin/env", maker);
            ASSERT_EQ(made.status, 0) << made;
        }
        const std::string before = directory.read("disk");
        {
            const auto device = LoopDevice::attach(disk);
            if (device == nullptr)
                GTEST_SKIP() << "no right to set up a loop device";
            const std::string name = device->path();
            expect_failure(run_sample(name, SMALL_FILE), 1,
                           name + " exists, only --force overwrites it");
            expect_failure(run_sample(name, small({"--overwrite-cache"})), 1,
                           name + " exists, only --force overwrites it");
            const RunResult run = run_sample(name, small({"--force"}));
            EXPECT_EQ(run.status, content.empty() ? 0 : 1) << run;
            EXPECT_EQ(run.out, "");
            if (!content.empty()) {
                EXPECT_TRUE(run.err.starts_with("zu_tierctl: " + name + " holds " + content))
                    << run;
                EXPECT_TRUE(run.err.ends_with(": only --overwrite-cache overwrites it\n")) << run;
                EXPECT_TRUE(directory.read("disk") == before);
                EXPECT_EQ(run_sample(name, small({"--force", "--overwrite-cache"})).status, 0);
            }
        }
        EXPECT_TRUE(directory.read("disk") != before);
    }
};

TEST_F(SampleOccupied, CachesOfEveryLayout)
{
    for (const std::string layout : {"v1", "v2", "v3"}) {
        std::vector<std::string> maker{ZU_TIERCTL, "sample",   "--layout", layout,
                                       "--force",  "--blocks", "2",        directory.path("disk")};
        expect_refused_content(maker, "a cache of layout " + layout + ":");
        maker.insert(maker.end(), {"--damage", "super:0"});
        expect_refused_content(maker, "a cache of layout " + layout + ":");
    }
}

TEST_F(SampleOccupied, CachesWithoutTheMagicOfTheirSuperBlock)
{
    for (const std::string layout : {"v1", "v2", "v3"})
        expect_refused_content({"/bin/sh", "-c",
                                "\"$1\" sample --layout \"$2\" --force --blocks 2 \"$3\" && dd "
                                "if=/dev/zero of=\"$3\" bs=1 seek=4100 count=4 conv=notrunc "
                                "status=none",
                                "sh", ZU_TIERCTL, layout, directory.path("disk")},
                               "a cache whose super block is damaged:");
}

// All zero, as after a dd: the tables are what rescue needs.
TEST_F(SampleOccupied, CachesWithoutASuperBlock)
{
    for (const std::string layout : {"v1", "v2", "v3"})
        expect_refused_content({"/bin/sh", "-c",
                                "\"$1\" sample --layout \"$2\" --force --blocks 2 \"$3\" && dd "
                                "if=/dev/zero of=\"$3\" bs=4096 seek=1 count=1 conv=notrunc "
                                "status=none",
                                "sh", ZU_TIERCTL, layout, directory.path("disk")},
                               "tables of a cache whose super block is lost:");
}

TEST_F(SampleOccupied, WhatTheLibraryRecognises)
{
    const std::string disk = directory.path("disk");
    const std::string uuid = "0b630f04-2f04-42d8-80b7-c5f813a292de";
    expect_refused_content({"/sbin/mke2fs", "-q", "-F", "-t", "ext4", "-U", uuid, disk},
                           "ext4, uuid " + uuid + ":");
    expect_refused_content({"/sbin/mkswap", "-q", "-U", uuid, disk}, "swap, uuid " + uuid + ":");
    // A master boot record: a partition of 100 sectors from sector 2048 on.
    expect_refused_content({"/bin/sh", "-c",
                            "{ printf '\\0%.0s' $(seq 446); printf "
                            "'\\0\\0\\0\\0\\203\\0\\0\\0\\0\\10\\0\\0\\144\\0\\0\\0';"
                            "  printf '\\0%.0s' $(seq 48); printf '\\125\\252'; } |"
                            " dd of=\"$1\" conv=notrunc status=none",
                            "sh", disk},
                           "a partition table, dos");
}

TEST_F(SampleOccupied, WhatIsBlankOrUnknownIsWritten)
{
    expect_refused_content({}, "");
    expect_refused_content({"/bin/sh", "-c", "yes | head -c 9000 >\"$1\"; truncate -s 16M \"$1\"",
                            "sh", directory.path("disk")},
                           "");
}

// Files are replaced as before: only a block device may be the wrong one by a letter of its name.
TEST_F(SampleOccupied, FilesNeedNoMoreThanForce)
{
    ASSERT_EQ(run_sample(path, SMALL_FILE).status, 0);
    EXPECT_EQ(run_sample(path, small({"--force"})).status, 0);
}

TEST_F(SampleFile, FailureLeavesNothingBehind)
{
    const std::string limited = "trap '' XFSZ; ulimit -S -f 100; exec \"$@\"";
    std::vector<std::string> args{"-c", limited, "sh", ZU_TIERCTL, "sample", "--layout", "v1"};
    args.insert(args.end(), {"--force", path});
    const std::string complaint = "cannot create " + path + ": File too large";

    expect_failure(run_program("/bin/sh", args), 1, complaint);
    EXPECT_EQ(names(), std::vector<std::string>{});

    directory.write("image", "precious");
    expect_failure(run_program("/bin/sh", args), 1, complaint);
    EXPECT_EQ(names(), std::vector<std::string>{"image"});
    EXPECT_EQ(directory.read("image"), "precious");
}

TEST_F(SampleFile, SizesOutOfRange)
{
    const std::vector<SizeBounds> sizes{
        {"--bricks", "1..300", {"0", "301", "4294967297", "18446744073709551615"}},
        {"--inodes", "1..100000", {"0", "100001", "4294967297"}},
        {"--blocks", "1..1048576", {"0", "1048577", "4294967297"}},
        {"--extent-size", "56..4096", {"0", "55", "4097", "4294967352"}},
        {"--block-size",
         "262144..4194304 in steps of 4096",
         {"0", "258048", "262143", "262145", "264192", "4194305", "4198400", "4295229440"}},
    };
    expect_sizes_refused(sizes);
    for (const SizeBounds &size : sizes)
        for (const std::string value : {"x", "-1", "+1", "1.5", "08", "0x", "18446744073709551616"})
            expect_refused({size.option, value},
                           size.option + " " + value + ": expected a number of up to 64 bits");
}

TEST_F(SampleFile, BadCommandLines)
{
    const std::vector<std::vector<std::string>> lines{
        {},
        {"example"},
        {"--none"},
        {"sample"},
        {"sample", "--layout", "v1"},
        {"sample", path},
        {"sample", "--layout", "v0", path},
        {"sample", "--layout", "v4", path},
        {"sample", "--layout", "V1", path},
        {"sample", "--layout", "v1", path, path + "2"},
        {"sample", "--layout", "v1", "--none", path},
        {"sample", "--layout", "v1", "--seed", "x", path},
        {"sample", "--layout", "v1", "--seed", "1", "--seed", "1", path},
        {"sample", "--layout", "v1", path, "--damage"},
    };
    for (const auto &line : lines) {
        const RunResult run = run_program(ZU_TIERCTL, line);
        SCOPED_TRACE(testing::PrintToString(line));
        EXPECT_EQ(run.status, 2) << run;
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.starts_with("zu_tierctl: ")) << run;
        EXPECT_EQ(std::ranges::count(run.err, '\n'), 1) << run;
    }
    EXPECT_EQ(names(), std::vector<std::string>{});
}

TEST(SampleHelp, NamesEveryOptionAndAnExample)
{
    const RunResult run = run_program(ZU_TIERCTL, {"sample", "--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    const std::vector<std::string> options{
        "FILE",     "--layout",     "--bricks",      "--inodes",
        "--blocks", "--block-size", "--extent-size", "--expansion",
        "--shards", "--extents",    "--hot-size",    "--for-conversion",
        "--seed",   "--damage",     "--force",       "--overwrite-cache"};
    const std::vector<std::string> texts{"1..300, default 4",
                                         "1..100000, default 64",
                                         "1..1048576, default 256",
                                         "262144..4194304 in steps of 4096, default 1048576",
                                         "56..4096",
                                         "2026-01-01 00:00:00 UTC",
                                         "zu_tierctl sample --layout v1"};
    for (const auto &words : {options, texts})
        for (const std::string &word : words)
            EXPECT_NE(run.out.find(word), std::string::npos) << word;
    EXPECT_NE(run.out.find(" Layout of the device: v1, v2, v3\n"), std::string::npos) << run;
    const RunResult top = run_program(ZU_TIERCTL, {"--help"});
    EXPECT_EQ(top.status, 0);
    EXPECT_NE(top.out.find("sample"), std::string::npos);
}

} // namespace
