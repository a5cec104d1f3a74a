// Samples at the limits of the file system and of the layout.

#include "sample_image.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

TEST(SampleLimit, NameThatNoFileCanHave)
{
    const TempDir directory;
    const std::string path = directory.path(std::string(256, 'n'));
    const RunResult run = run_sample(path, {"--blocks", "4"});
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_EQ(run.err, "zu_tierctl: cannot create " + path + ": File name too long\n");
    EXPECT_TRUE(std::filesystem::is_empty(directory.path("")));
}

// Blocks of 3 MiB have a size of piece from 1 TiB on. The images would be as large: where they are
// not refused, a limit ends the run.
TEST(SampleLimit, BlocksThatOnlyALargeDeviceHas)
{
    constexpr std::uint64_t BLOCK = 3 * MIB;
    constexpr std::uint64_t MOST_REFUSED = (std::uint64_t{1} << 40) / BLOCK;
    const TempDir directory;
    const std::string path = directory.path("image");
    for (const std::uint64_t blocks : {MOST_REFUSED, MOST_REFUSED + 1}) {
        const RunResult run = run_program(
            "/bin/sh", {"-c", "trap '' XFSZ; ulimit -S -f 100; exec \"$@\"", "sh", ZU_TIERCTL,
                        "sample", "--layout", "v2", "--block-size", std::to_string(BLOCK),
                        "--blocks", std::to_string(blocks), path});
        const bool refused = blocks == MOST_REFUSED;
        EXPECT_EQ(run.status, refused ? 2 : 1) << run;
        EXPECT_EQ(run.err.find("more than 64 mapped pieces") != std::string::npos, refused);
        EXPECT_EQ(run.err.find("File too large") != std::string::npos, !refused);
        EXPECT_TRUE(std::filesystem::is_empty(directory.path("")));
    }
}

} // namespace
