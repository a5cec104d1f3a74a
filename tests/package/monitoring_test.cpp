// What the package brings for monitoring: units that check a device by the clock, and alert rules.

#include "run.h"
#include "temp_dir.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

// Of the unit files, the instance for /dev/x, which runs the program of the build.
class Units : public testing::Test {
protected:
    Units()
    {
        for (const std::string kind : {".service", ".timer"}) {
            std::string unit = read_file(MONITORING_DIRECTORY "/zu_tierctl-check@" + kind);
            const std::size_t at = unit.find(INSTALLED);
            if (at != std::string::npos)
                unit.replace(at, INSTALLED.size(), ZU_TIERCTL);
            files_.write("zu_tierctl-check@dev-x" + kind, unit);
        }
    }

    RunResult verify(const std::string &kind) const
    {
        return run_program("/usr/bin/systemd-analyze",
                           {"verify", "--man=no", files_.path("zu_tierctl-check@dev-x" + kind)});
    }

    void spoil(const std::string &kind, const std::string &what) const
    {
        const std::string name = "zu_tierctl-check@dev-x" + kind;
        std::string unit = read_file(files_.path(name));
        const std::size_t at = unit.find(what);
        ASSERT_NE(at, std::string::npos) << unit;
        files_.write(name, unit.insert(at, "Un"));
    }

private:
    const std::string INSTALLED = "/usr/sbin/zu_tierctl";
    TempDir files_;
};

TEST_F(Units, AreAsTheSystemReadsThem)
{
    for (const std::string kind : {".service", ".timer"}) {
        const RunResult run = verify(kind);
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.err, "");
    }
}

TEST_F(Units, AMistakeIsFound)
{
    spoil(".service", "ProtectSystem");
    EXPECT_NE(verify(".service").err.find("UnProtectSystem"), std::string::npos);
    spoil(".timer", "OnCalendar");
    EXPECT_NE(verify(".timer").err.find("UnOnCalendar"), std::string::npos);
}

TEST(AlertRules, FireWhenTheyShould)
{
    const TempDir files;
    fs::copy_file(MONITORING_DIRECTORY "/zu_tier.rules.yml", files.path("zu_tier.rules.yml"));
    fs::copy_file(RULES_TEST, files.path("test.yml"));
    const RunResult run =
        run_program("/usr/bin/promtool", {"test", "rules", files.path("test.yml")});
    EXPECT_EQ(run.status, 0) << run;
}

} // namespace
