// Whatever a sealed super block says, the commands that read all tables end, in little memory.

#include "cache.h"
#include "check_run.h"
#include "hostile_super.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace tier_test;

namespace {

template <class World>
class HostileSuperBlocks : public testing::Test {
protected:
    const World world;
    const std::vector<Device> devices =
        hostile_devices(world.VERSION, encode(world.sb), [this] { return world.device(); });

    // The command, its options and all devices.
    std::vector<std::string> with_devices(std::vector<std::string> args) const
    {
        for (const Device &device : devices)
            args.push_back(device.path());
        return args;
    }

    void check() const
    {
        for (const Device &device : devices) {
            const RunResult run = run_ctl_in_little_memory({"check", device.path()});
            EXPECT_LE(static_cast<unsigned>(run.status), 1U) << run;
            EXPECT_EQ(run.err, "");
            EXPECT_NE(run.out.find("\nfindings "), std::string::npos) << run;
        }
    }

    void usage() const
    {
        const RunResult run = run_ctl_in_little_memory(with_devices({"usage"}));
        EXPECT_LE(static_cast<unsigned>(run.status), 1U) << run;
        EXPECT_EQ(run.err, "");
        const std::vector<std::string> lines = lines_of(run.out);
        EXPECT_EQ(std::ranges::count_if(
                      lines, [](const auto &line) { return line.starts_with("layout "); }),
                  std::ssize(devices));
        EXPECT_TRUE(lines.back().starts_with("all devices: ")) << lines.back();
    }

    void sql() const
    {
        std::vector<std::string> args = with_devices({"sql", "--csv"});
        args.push_back(
            "select (select count(*) from super), (select count(state) from brick) > 0, "
            "(select count(uuid) from inode) > 0, (select count(ino) from shard) >= 0, "
            "(select total(lba) from extent) >= 0, (select count(te_bitmap) from extent) >= 0, "
            "(select count(mapno) from piece) >= 0, (select max(extent_size) from super) > 0 or " +
            std::to_string(world.VERSION) + " = 3");
        const RunResult run = run_ctl_in_little_memory(args);
        EXPECT_EQ(run.status, 0) << run;
        const std::vector<std::string> lines = lines_of(run.out);
        ASSERT_EQ(lines.size(), 2U) << run;
        EXPECT_EQ(lines[1], std::to_string(devices.size()) + ",1,1,1,1,1,1,1");
    }
};

TYPED_TEST_SUITE(HostileSuperBlocks, AllWorlds);

TYPED_TEST(HostileSuperBlocks, AreReadToTheEnd)
{
    ASSERT_GT(this->devices.size(), 60U);
    this->check();
    this->usage();
    this->sql();
}

} // namespace
