// Exports and metrics on a disk that is full or fails: the older ones stay as they were.

#include "faulty_run.h"
#include "v1_device.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

using namespace tier_test;

namespace {

class NewFigures : public testing::Test {
protected:
    const SuperV1 sb = super_v1(2, 9, 7);
    Device device = make_v1_device(sb, {brick_used(0)}, {inode_used(0, 0)}, {});
    const TempDir directory;
    const std::vector<std::string> exported{"export", device.path(), directory.path("fleet"),
                                            "--node", "n"};
    const std::vector<std::string> checked{"check", "--metrics", directory.path("x.prom"),
                                           device.path()};

    static RunResult run(const std::vector<std::string> &args, const std::string &faults)
    {
        return run_program(
            ZU_TIERCTL, args,
            {.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB}, {"ZUTR_FAULTS", faults}}});
    }

    // What each file holds.
    std::map<std::string, std::string> files() const
    {
        std::map<std::string, std::string> found;
        for (const auto &entry :
             std::filesystem::recursive_directory_iterator(directory.path(""))) {
            if (entry.is_regular_file())
                found[entry.path()] = read_file(entry.path());
        }
        return found;
    }

    // Fails call `k` of that kind, from the first on, up to call `last`; nothing has changed.
    void expect_kept(const std::vector<std::string> &args, const std::string &call, int last,
                     const std::string &reason) const
    {
        const auto before = files();
        for (int k = 1; k <= last; ++k) {
            SCOPED_TRACE(text("%s, %s %d", args.front().c_str(), call.c_str(), k));
            const RunResult failed = run(args, text("%s#%d=", call.c_str(), k) + reason);
            EXPECT_NE(failed.status, 0) << failed;
            EXPECT_NE(failed.err.find("cannot write "), std::string::npos) << failed;
            EXPECT_TRUE(files() == before);
        }
    }
};

TEST_F(NewFigures, OlderExportsStayWhole)
{
    constexpr int TABLES = 7; // each written and synced once before the first takes its place
    ASSERT_EQ(run(exported, "").status, 0);
    ASSERT_EQ(files().size(), static_cast<std::size_t>(TABLES));
    device.write(static_cast<std::uint64_t>(inode_offset(sb, 1)),
                 Block{}); // the new ones would differ
    expect_kept(exported, "pwrite", TABLES, "ENOSPC");
    expect_kept(exported, "fsync", TABLES, "EIO");
}

TEST_F(NewFigures, OlderMetricsStayWhole)
{
    run(checked, "");
    ASSERT_EQ(files().size(), 1U);
    expect_kept(checked, "pwrite", 1, "ENOSPC");
    expect_kept(checked, "fsync", 1, "EIO");
}

} // namespace
