// zu_tierctl check --live: on a device that a writer changes meanwhile only what stays is found.

#include "cache.h"
#include "check_run.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

using namespace tier_test;
using namespace std::chrono_literals;

namespace {

// Damages one inode after the other, each for a moment and once only.
class Writer {
public:
    Writer(const Device &device, const SuperV1 &sb, std::uint32_t first)
        : thread_([this, &device, &sb, first] {
              for (std::uint32_t no = first; no < sb.inode_cnt && !stopped_; ++no) {
                  flip(device, inode_offset(sb, no) + 60);
                  std::this_thread::sleep_for(50ms);
                  flip(device, inode_offset(sb, no) + 60);
              }
          })
    {
    }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;
    ~Writer()
    {
        stopped_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stopped_ = false;
    std::thread thread_;
};

TEST(CheckLive, ReportsOnlyWhatStays)
{
    WorldV1 world;
    world.sb = super_v1(3, 1000, 6);
    world.inodes[2].brick_no = 2; // which is free
    const Device device = world.device();
    flip(device, inode_offset(world.sb, 5) + 60);
    flip(device, inode_offset(world.sb, 6) + 60);
    const Writer writer(device, world.sb, 10);
    const auto start = std::chrono::steady_clock::now();
    const RunResult run = run_ctl({"check", "--live", "--table", "inode", device.path()});
    EXPECT_GE(std::chrono::steady_clock::now() - start, 4s);
    EXPECT_EQ(run.status, 1) << run;
    const std::string show = ": zu_tier -l tier.log -p " + device.path() + " -c dump_inode -n ";
    std::string expected = text("error: inode 2 at %ld: it refers to brick 2, which is free "
                                "(inode_of_free_brick)",
                                inode_offset(world.sb, 2)) +
                           show + "2\n";
    expected += text("error: inode 5..6 (2 findings) at %ld: its checksum does not match its "
                     "content (bad_checksum)",
                     inode_offset(world.sb, 5)) +
                show + "5\n\n";
    EXPECT_EQ(run.out.substr(0, expected.size()), expected) << run;
    EXPECT_TRUE(run.out.ends_with("\nbad_checksum                                2\n"
                                  "inode_of_free_brick                         1\n"
                                  "findings                                    3\n"))
        << run;
}

// Nothing stays: one look is enough.
TEST(CheckLive, SoundDevice)
{
    const Device device = WorldV3().device();
    const auto start = std::chrono::steady_clock::now();
    const Report report = run_check(device.path(), {"--live"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
    EXPECT_EQ(report.findings.size(), 0U);
    EXPECT_EQ(report.tables.at("extent").in_use, 3U);
}

} // namespace
