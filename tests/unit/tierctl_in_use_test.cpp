// Who uses a block device, read from files that look like those of the kernel.

#include "temp_dir.h"
#include "zu_tierctl/device/in_use.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class InUse : public testing::Test {
protected:
    void lay(const std::string &name, const std::string &content) const
    {
        const fs::path path = root.path(name);
        fs::create_directories(path.parent_path());
        root.write(name, content);
    }

    std::string users(unsigned int major = 7, unsigned int minor = 3) const
    {
        return tierctl::users_text(makedev(major, minor), root.path(""));
    }

    const TempDir root;
};

TEST_F(InUse, BySomethingElse) { EXPECT_EQ(users(), "another program"); }

TEST_F(InUse, ByVolumes)
{
    lay("sys/dev/block/7:3/holders/dm-1/dev", "");
    lay("sys/dev/block/7:3/holders/md0/dev", "");
    lay("sys/dev/block/7:30/holders/md9/dev", "");
    lay("sys/block/dm-1/dm/name", "vg-lv\n");
    EXPECT_EQ(users(), "/dev/mapper/vg-lv, /dev/md0");
}

TEST_F(InUse, ByMounts)
{
    lay("proc/self/mountinfo", "25 1 7:30 / /other rw - ext4 /dev/loop30 rw\n"
                               "26 1 7:3 / /srv/a\\040b rw - ext4 /dev/loop3 rw\n"
                               "27 1 7:3 /sub /srv/b rw shared:1 - ext4 /dev/loop3 rw\n"
                               "28 1 7:3 / /srv/b rw - ext4 /dev/loop3 rw\n"
                               "29 1\n"
                               "30 1 7:3 / /srv/\\0 rw - ext4 /dev/loop3 rw\n"
                               "31 1 7:3 / /srv/c\\012d rw - ext4 /dev/loop3 rw\n");
    EXPECT_EQ(users(), "/srv/a b (mounted), /srv/b (mounted), "
                       "\"/srv/\\\\0\" (mounted), \"/srv/c\\x0ad\" (mounted)");
}

// Some file systems are mounted under a number that is not that of their device.
TEST_F(InUse, ByMountsThatNameItsPath)
{
    struct stat status {};
    const std::string path = "/dev/loop0";
    if (stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode))
        GTEST_SKIP() << "no loop device";
    lay("proc/self/mountinfo", "25 1 0:45 / /one rw - btrfs " + path +
                                   " rw\n"
                                   "26 1 0:45 /sub /two rw shared:1 master:2 - btrfs /dev/loo\\1600"
                                   " rw\n"
                                   "27 1 0:46 / /other rw - btrfs /dev/null rw\n"
                                   "28 1 0:47 " +
                                   path + " /within rw - btrfs /dev/null rw\n" +
                                   "29 1 0:48 / /none rw " + path + "\n" +
                                   "30 1 0:49 / /kind rw - " + path + "\n");
    EXPECT_EQ(users(major(status.st_rdev), minor(status.st_rdev)),
              "/one (mounted), /two (mounted)");
}

TEST_F(InUse, ByUsersOfItsPartitions)
{
    lay("sys/dev/block/7:3/loop3p1/partition", "1\n");
    lay("sys/dev/block/7:3/loop3p1/dev", "259:12\n");
    lay("sys/dev/block/7:3/loop3p2/partition", "2\n");
    lay("sys/dev/block/7:3/loop3p2/dev", "nonsense\n");
    lay("sys/dev/block/7:3/queue/dev", "259:13\n");
    lay("sys/dev/block/259:12/holders/dm-7/dev", "");
    lay("proc/self/mountinfo", "26 1 259:12 / /one rw - ext4 /dev/loop3p1 rw\n"
                               "26 1 259:13 / /two rw - ext4 /dev/other rw\n");
    EXPECT_EQ(users(), "/dev/dm-7, /one (mounted)");
}

// With a device that this machine has.
TEST_F(InUse, BySwapAndProcesses)
{
    struct stat status {};
    const std::string path = "/dev/loop0";
    if (stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode))
        GTEST_SKIP() << "no loop device";
    lay("proc/swaps",
        "Filename Type Size Used Priority\n" + path +
            "                              partition 1 0 -2\n/swapfile file 1 0 -3\n");
    lay("proc/7/comm", "mke2fs\n");
    lay("proc/8/comm", "odd\x1b\n");
    lay("proc/9/comm", "bystander\n");
    for (const std::string process : {"7", "8", "9"})
        fs::create_directories(root.path("proc/" + process + "/fd"));
    for (const std::string file : {"7/fd/3", "7/fd/4", "8/fd/0"})
        fs::create_symlink(path, root.path("proc/" + file));
    fs::create_symlink("/dev/null", root.path("proc/9/fd/0"));
    fs::create_symlink("pipe:[1]", root.path("proc/9/fd/1"));
    EXPECT_EQ(users(major(status.st_rdev), minor(status.st_rdev)),
              "swap, process 7 (mke2fs), process 8 (\"odd\\x1b\")");
}

// Whether a file system lies on a device. That of the tests stands for one on 7:3, or on what is
// built on it.
class StoredOn : public InUse {
protected:
    void SetUp() override
    {
        struct stat status {};
        ASSERT_EQ(stat(root.path("").c_str(), &status), 0);
        here = std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev));
    }

    bool is_stored(const std::string &device) const
    {
        return tierctl::is_stored_on(root.path(""), device, root.path(""));
    }
    std::string below(const std::string &name) const { return "sys/dev/block/" + name; }

    std::string here;
};

TEST_F(StoredOn, AnImageThatALoopDeviceHas)
{
    const std::string image = root.write("image", "");
    EXPECT_FALSE(is_stored(image));
    lay(below(here) + "/loop/backing_file", image + "\n");
    EXPECT_TRUE(is_stored(image));
    EXPECT_FALSE(is_stored(root.write("other", "")));
}

TEST_F(StoredOn, VolumesAndPartitions)
{
    const std::string image = root.write("image", "");
    lay(below(here) + "/slaves/dm-3/dev", "253:3\n");
    lay(below(here) + "/slaves/none/dev", "?\n");
    lay(below("253:3") + "/partition", "1\n");
    EXPECT_FALSE(is_stored(image));
    lay(below("dev"), "7:3\n"); // that of the disk, one above its partition
    lay(below("7:3") + "/loop/backing_file", image + "\n");
    EXPECT_TRUE(is_stored(image));
}

TEST_F(StoredOn, MountsThatNameTheirDevice)
{
    struct stat status {};
    if (stat("/dev/loop0", &status) != 0 || !S_ISBLK(status.st_mode))
        GTEST_SKIP() << "no loop device";
    EXPECT_FALSE(is_stored("/dev/loop0"));
    lay("proc/self/mountinfo", "25 1 0:99 / /other rw - btrfs /dev/loop0 rw\n26 1 " + here +
                                   " / /a rw - btrfs /dev/nothing rw\n27 1 " + here +
                                   " / /b rw - btrfs none rw\n");
    EXPECT_FALSE(is_stored("/dev/loop0"));
    lay("proc/self/mountinfo", "26 1 " + here + " / /a rw - btrfs /dev/loop0 rw\n");
    EXPECT_TRUE(is_stored("/dev/loop0"));
    EXPECT_FALSE(is_stored(root.path("nothing")));
}

} // namespace
