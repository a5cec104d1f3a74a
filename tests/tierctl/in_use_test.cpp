// Block devices that something else uses: the commands say so, and nothing is written.

#include "loop_device.h"
#include "revert_run.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <unistd.h>

using namespace tier_test;

namespace {

class InUse : public Revert {
protected:
    InUse() : Revert("v1") { flip(cache.device, cache.offset("inode", 2) + 60); }

    void SetUp() override
    {
        if (device == nullptr)
            GTEST_SKIP() << "no right to set up a loop device";
    }

    // Reading commands hint at the users, once; a write is refused because of them.
    void expect_users(const std::string &users)
    {
        const std::string path = device->path();
        const std::string in_use = path + " is in use by " + users;
        const std::string hint = "zu_tierctl: " + in_use + ": what is read may change meanwhile\n";
        EXPECT_EQ(run_ctl({"check", path}).err, hint);
        EXPECT_EQ(run_ctl({"check", "--json", path}).err, hint);
        EXPECT_EQ(run_ctl({"diff", path, saved}).err, hint);
        EXPECT_EQ(run_ctl({"diff", saved, path}).err, hint);
        EXPECT_EQ(run_ctl({"save", path, directory.path("copy")}).err, hint);
        EXPECT_EQ(revert_on(path, "inode", 2).err, hint + NOTHING_WRITTEN);
        const auto before = cache.device.bytes();
        expect_complaint(revert_on(path, "inode", 2, {"--commit"}), 1,
                         in_use + ": stop that first");
        expect_complaint(run_ctl({"sample", "--layout", "v1", "--force", path}), 1,
                         in_use + ": stop that first");
        EXPECT_TRUE(cache.device.bytes() == before);
    }

    const std::unique_ptr<LoopDevice> device = LoopDevice::attach(cache.device.path());
};

TEST_F(InUse, ByNobody)
{
    for (const auto &args : std::vector<std::vector<std::string>>{{"check", device->path()},
                                                                  {"diff", saved, device->path()}})
        EXPECT_EQ(run_ctl(args).err, "");
    EXPECT_EQ(revert_on(device->path(), "inode", 2, {"--commit"}).err, "");
}

TEST_F(InUse, ByAProcess)
{
    const int holder = open(device->path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
    ASSERT_GE(holder, 0);
    expect_users(text("process %d (tierctl_tests)", getpid()));
    close(holder);
}

TEST_F(InUse, ByAVolume)
{
    const std::string name = text("tierctl_test_%d", getpid());
    const std::string table =
        text("0 %lu linear ", cache.device.size() / 512) + device->path() + " 0";
    if (run_program("/sbin/dmsetup", {"create", name, "--table", table}).status != 0)
        GTEST_SKIP() << "no right to set up a volume";
    expect_users(text("/dev/mapper/%s, process %d (tierctl_tests)", name.c_str(), getpid()));
    EXPECT_EQ(run_program("/sbin/dmsetup", {"remove", name}).status, 0);
}

// A file system in the place of a cache.
TEST_F(InUse, ByAMount)
{
    const std::string place = directory.path("a place");
    std::filesystem::create_directory(place);
    const std::string path = device->path();
    if (run_program("/sbin/mkfs.ext2", {"-q", "-F", path}).status != 0 ||
        mount(path.c_str(), place.c_str(), "ext2", MS_RDONLY, nullptr) != 0)
        GTEST_SKIP() << "no right to mount, or no file system";
    expect_complaint(revert_on(path, "inode", 2, {"--commit"}), 1,
                     path + " is in use by " + place + " (mounted), " +
                         text("process %d (tierctl_tests)", getpid()) + ": stop that first");
    EXPECT_EQ(umount(place.c_str()), 0);
}

} // namespace
