// The expansion inode area of a sample image: what zu_tierctl writes there, and how zu_tier takes
// it.

#include "dump_text.h"
#include "sample_contents.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace tier_test;

namespace {

constexpr std::uint32_t INODES = 40;
constexpr std::uint32_t EXPANSION = 153600; // the smallest area
constexpr std::uint32_t SUM = INODES + EXPANSION;

const std::vector<std::string> EXPANDED_SIZES{"--bricks", "3",   "--inodes",     "40",
                                              "--blocks", "200", "--block-size", "262144"};

std::vector<std::string> with_sizes(std::vector<std::string> args)
{
    args.insert(args.end(), EXPANDED_SIZES.begin(), EXPANDED_SIZES.end());
    return args;
}

SuperV2 expected_super(const SuperV2 &sb)
{
    SuperV2 expected = super_v2(3, INODES, 200);
    expected.block_size = 262144;
    expected.extent_size = 64;
    expected.ctime = sb.ctime;
    expected.uuid = sb.uuid;
    expected.ssd_uuid = sb.ssd_uuid;
    expected.min_alloc_size = 16384;
    set_maps(expected, 16);
    set_expansion(expected, EXPANSION, true);
    return expected;
}

TEST(SampleExpansionLarge, IsFormattedAndInUse)
{
    const Device device = make_sample(with_sizes({"--expansion", "153600"}), "v2");
    const SuperV2 sb = decode_super_v2(device.block(4096));
    EXPECT_EQ(device.block(4096), encode(expected_super(sb)));
    EXPECT_EQ(static_cast<std::int64_t>(device.size()), expansion_offset(sb, EXPANSION));
    struct stat status {};
    ASSERT_EQ(stat(device.path().c_str(), &status), 0);
    EXPECT_LT(status.st_blocks * 512, (1 + 3 + INODES + 200 + EXPANSION) * 4096LL + 262144);

    const std::vector<SampleTable> tables = sample_tables(sb);
    const auto bricks = read_entries(device, tables[0], 3, decode_brick,
                                     [](const BrickV2 &brick) { return encode(brick); });
    expect_bricks(bricks);
    const auto inodes = read_entries(device, tables[1], SUM, decode_inode_v2,
                                     [](const InodeV2 &inode) { return encode(inode); });
    expect_inodes(inodes, bricks, sb.ctime, [](std::uint32_t no) { return encode(inode_v2(no)); });
    const auto extents = read_entries(
        device, tables[2], 200, [&sb](const Block &block) { return decode_extent_v2(block, sb); },
        [&sb](const ExtentV2 &extent) { return encode(extent, sb); });
    expect_extents(extents, inodes, sb.block_size);
    EXPECT_TRUE(std::ranges::any_of(
        extents, [](const ExtentV2 &extent) { return extent.inode_no >= INODES; }));

    expect_no_fault(device, tables[1], "{ \"inode\":[], \"exp_inode\":[]}");
    expect_no_fault(device, tables[2], "[]");
    expect_accepted(device, json(sb));
    for (const std::uint32_t no : {INODES - 1, INODES, SUM - 1})
        EXPECT_EQ(run_logged(device, "dump_inode", {"-n", std::to_string(no)}).out,
                  json(inodes[no], inode_offset(sb, no)));
}

TEST(SampleExpansionLarge, DamageIsFoundOnEitherSideOfTheBorder)
{
    const std::vector<std::string> damages{"39:zero", "40:number", "100000:bit", "153639:magic"};
    std::vector<std::string> args = with_sizes({"--expansion", "153600"});
    for (const std::string &damage : damages)
        args.insert(args.end(), {"--damage", "inode:" + damage});
    const Device device = make_sample(args, "v2");
    const SuperV2 sb = decode_super_v2(device.block(4096));
    const auto record = [&sb](std::uint32_t no) {
        return error_record(14, "no", no, inode_offset(sb, no));
    };
    EXPECT_EQ(run_logged(device, "dump_inode", {"-g", "error=1"}).out,
              "{ \"inode\":" + joined({record(39)}) +
                  ", \"exp_inode\":" + joined({record(40), record(100000), record(153639)}) + "}");
}

TEST(SampleExpansion, RefusedSizesAndEntries)
{
    struct Row {
        std::string layout;
        std::vector<std::string> args;
        std::string complaint;
    };
    const std::string range = ": expected 153600..486400 in steps of 25600";
    const std::vector<Row> rows{
        {"v2", {"--expansion", "0"}, "--expansion 0" + range},
        {"v2", {"--expansion", "153599"}, "--expansion 153599" + range},
        {"v2", {"--expansion", "153601"}, "--expansion 153601" + range},
        {"v2", {"--expansion", "512000"}, "--expansion 512000" + range},
        {"v1", {"--expansion", "153600"}, "--expansion 153600: expected none"},
        {"v1", {"--expansion", "0"}, "--expansion 0: expected none"},
        {"v2", {"--damage", "inode:40"}, "--damage inode:40: expected an entry of 0..39"},
        {"v2",
         {"--expansion", "153600", "--damage", "inode:153640"},
         "--damage inode:153640: expected an entry of 0..153639"},
    };
    for (const Row &row : rows)
        expect_refused(with_sizes(row.args), row.complaint, row.layout);
}

} // namespace
