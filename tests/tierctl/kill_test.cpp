// zu_tierctl killed where it enters and leaves every system call: a file is complete or not there,
// and an entry is the old one or the new one.

#include "cache.h"
#include "kill_run.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class Killed : public testing::Test {
protected:
    Device device = make_v1_device(super_v1(2, 3, 2), {brick_used(1)}, {inode_used(2, 1)});
    const TempDir directory;
    const std::string file = directory.path("saved");
    const std::string list = file + ".unreadable.json";

    // From the end of a system call to the start of the next nothing changes on the disk.
    static constexpr std::size_t STEP = 2;

    // Calls `check` after each killed run; gives how many there were.
    template <class Check>
    static std::size_t kill_everywhere(const std::vector<std::string> &args, int status,
                                       const Check &check)
    {
        const std::size_t first = first_stop_of_tierctl();
        std::size_t stop = first;
        for (; run_killed_at(stop, args, ZU_TIERCTL, status) == stop; stop += STEP) {
            SCOPED_TRACE(stop);
            check();
        }
        return (stop - first) / STEP;
    }
};

TEST_F(Killed, SavedFilesAreCompleteOrNotThere)
{
    ASSERT_EQ(run_ctl({"save", device.path(), file}).status, 0);
    const std::string complete = read_file(file);
    fs::remove(file);
    std::size_t named = 0;
    const auto check = [&] {
        if (fs::remove(list))
            ADD_FAILURE() << "a list of nothing";
        if (!fs::exists(file))
            return;
        named++;
        EXPECT_TRUE(read_file(file) == complete);
        fs::remove(file);
    };
    EXPECT_GT(kill_everywhere({"save", device.path(), file}, 0, check), 20U);
    EXPECT_GT(named, 0U);
}

TEST_F(Killed, IncompleteFilesAreNeverWithoutTheirList)
{
    fs::resize_file(device.path(), device.size() - 4096);
    ASSERT_EQ(run_ctl({"save", device.path(), file}).status, 1);
    const std::string complete = read_file(file);
    const std::string listed = read_file(list);
    fs::remove(file);
    fs::remove(list);
    std::size_t both = 0;
    std::size_t only_list = 0;
    const auto check = [&] {
        const bool has_list = fs::exists(list);
        if (has_list) {
            EXPECT_EQ(read_file(list), listed);
        }
        if (fs::exists(file)) {
            EXPECT_TRUE(has_list);
            EXPECT_TRUE(read_file(file) == complete);
            both++;
        } else if (has_list) {
            only_list++;
        }
        fs::remove(file);
        fs::remove(list);
    };
    EXPECT_GT(kill_everywhere({"save", device.path(), file}, 1, check), 20U);
    EXPECT_GT(both, 0U);
    EXPECT_GT(only_list, 0U);
}

TEST_F(Killed, EntriesAreTheOldOrTheNew)
{
    ASSERT_EQ(run_ctl({"save", device.path(), file}).status, 0);
    const auto then = device.bytes();
    flip(device, inode_offset(super_v1(2, 3, 2), 2) + 60);
    const auto now = device.bytes();
    std::size_t written = 0;
    const auto check = [&] {
        const auto bytes = device.bytes();
        EXPECT_TRUE(bytes == now || bytes == then);
        written += bytes == then ? 1 : 0;
        device.write(0, now);
    };
    EXPECT_GT(kill_everywhere({"revert", file, device.path(), "inode", "2", "--commit"}, 0, check),
              20U);
    EXPECT_GT(written, 0U);
    EXPECT_TRUE(device.bytes() == then);
}

} // namespace
