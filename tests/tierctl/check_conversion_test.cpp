// zu_tierctl check of a super block that is of an older layout than the tables: it says so first,
// whenever zu_tier would convert it.

#include "check_run.h"
#include "sample_image.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// Whether zu_tier makes a super block for the tables.
bool converts(const Device &device)
{
    const TempDir directory;
    const LoggedRun dump = run_with_log(directory, {"-p", device.path(), "-c", "dump_super"});
    EXPECT_EQ(dump.status, 0) << dump;
    const std::string file = directory.write("old.json", dump.out);
    return run_with_log(directory,
                        {"-p", device.path(), "-v", "2", "-c", "convert_super", "-f", file})
               .status == 0;
}

bool is_said(const Device &device)
{
    const Report report = run_check(device.path());
    std::size_t said = 0;
    for (const Finding &finding : report.findings)
        said += finding.kind == "tables_of_another_layout";
    EXPECT_LE(said, 1U);
    if (said != 0) { // first
        EXPECT_EQ(summary(report.findings[0]),
                  error("tables_of_another_layout", "super", 0, SUPER_OFFSET));
        EXPECT_EQ(report.findings[0].text,
                  "the tables are those of layout v2: zu_tier -l tier.log -p " + device.path() +
                      " -v 2 -c convert_super -f FILE makes their super block, where FILE is the "
                      "output of dump_super");
        EXPECT_EQ(report.findings[0].command,
                  "zu_tier -l tier.log -p " + device.path() + " -c dump_super");
    }
    return said != 0;
}

Device convertible(std::vector<std::string> args = {})
{
    args.insert(args.begin(), "--for-conversion");
    return make_sample(args, "v1");
}

TEST(CheckConversion, IsSaidWhenItWouldSucceed)
{
    for (const std::vector<std::string> &args :
         std::vector<std::vector<std::string>>{{},
                                               {"--block-size", "262144"},
                                               {"--block-size", "4194304"},
                                               {"--extent-size", "56"},
                                               {"--extent-size", "3000"},
                                               {"--blocks", "1000"}}) {
        const Device device = convertible(args);
        EXPECT_TRUE(converts(device));
        const std::vector<std::uint8_t> before = device.bytes();
        EXPECT_TRUE(is_said(device));
        EXPECT_TRUE(device.bytes() == before);
    }
}

// The probe looks at the first 256 extents.
TEST(CheckConversion, IsNotSaidWhenItWouldFail)
{
    const std::pair<const char *, bool> cases[] = {
        {"extent:0", false}, {"extent:255:bit", false}, {"extent:256", true}, {"inode:0", true}};
    for (const auto &[damage, expected] : cases) {
        SCOPED_TRACE(damage);
        const Device device = convertible({"--blocks", "300", "--damage", damage});
        EXPECT_EQ(converts(device), expected);
        EXPECT_EQ(is_said(device), expected);
    }
}

TEST(CheckConversion, IsNotSaidOfOtherTables)
{
    EXPECT_FALSE(is_said(make_sample({"--blocks", "300"}, "v1")));
    EXPECT_FALSE(is_said(make_sample({"--blocks", "300"}, "v2")));
    EXPECT_FALSE(is_said(make_sample({}, "v3")));
    EXPECT_FALSE(is_said(WorldV1().device()));
}

TEST(CheckConversion, IsPartOfTheSuperBlock)
{
    const Device device = convertible();
    expect_findings(device, {error("tables_of_another_layout", "super", 0, SUPER_OFFSET)},
                    {"--table", "super"});
    for (const Finding &finding : run_check(device.path(), {"--table", "extent"}).findings)
        EXPECT_EQ(finding.table, "extent");
}

// It is the first line, and the only cause, whichever findings are asked for.
TEST(CheckConversion, IsTheOneCause)
{
    const Device device = convertible();
    const std::string first = "cause: the tables are those of layout v2: zu_tier -l tier.log -p " +
                              device.path() + " -v 2 -c convert_super";
    for (const std::vector<std::string> &options :
         std::vector<std::vector<std::string>>{{}, {"--table", "extent"}, {"--summary"}}) {
        std::vector<std::string> args{"check", device.path()};
        args.insert(args.end(), options.begin(), options.end());
        const RunResult run = run_program(ZU_TIERCTL, args);
        EXPECT_EQ(run.status, 1) << run;
        EXPECT_TRUE(run.out.starts_with(first)) << run;
        EXPECT_EQ(run.out.find("\ncause: "), std::string::npos) << run;
    }
}

// Numbers for which the rule of the pieces has no answer, or of which the probe must not read much.
TEST(CheckConversion, StrangeSuperBlocks)
{
    struct {
        const char *name;
        void (*change)(SuperV1 &);
    } const cases[] = {
        {"no block size", [](SuperV1 &sb) { sb.block_size = 0; }},
        {"block size of a byte", [](SuperV1 &sb) { sb.block_size = 1; }},
        {"pieces that are too many", [](SuperV1 &sb) { sb.block_size = 3 * 1048576; }},
        {"blocks that are too large", [](SuperV1 &sb) { sb.block_size = 4194304 + 4096; }},
        {"blocks that are huge", [](SuperV1 &sb) { sb.block_size = 0xFFFF'FFFF; }},
        {"extents without head", [](SuperV1 &sb) { sb.extent_size = 0; }},
        {"extents of a slot", [](SuperV1 &sb) { sb.extent_size = 4096; }},
        {"extents that are huge", [](SuperV1 &sb) { sb.extent_size = 0xFFFF'FFFF; }},
        {"many blocks", [](SuperV1 &sb) { sb.block_cnt = 0xFFFF'FFFF; }},
        {"extents past the end",
         [](SuperV1 &sb) {
             sb.block_cnt = 0xFFFF'FFFF;
             sb.brick_table_size = std::uint64_t{1} << 62;
             sb.data_offset = ~std::uint64_t{0};
         }},
        {"extents before the beginning",
         [](SuperV1 &sb) {
             sb.block_cnt = 0xFFFF'FFFF;
             sb.brick_table_size = std::uint64_t{1} << 63;
         }},
    };
    Device device = convertible();
    const SuperV1 sound = decode_super(device.block(SUPER_OFFSET));
    for (const auto &[name, change] : cases) {
        SCOPED_TRACE(name);
        SuperV1 sb = sound;
        change(sb);
        put_block(device, SUPER_OFFSET, encode(sb));
        RunOptions options;
        options.timeout = std::chrono::seconds(10);
        const RunResult run =
            run_program(ZU_TIERCTL, {"check", device.path(), "--table", "super"}, options);
        EXPECT_LE(static_cast<unsigned>(run.status), 1U) << run;
        EXPECT_EQ(run.err, "");
    }
}

} // namespace
