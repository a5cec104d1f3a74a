// A sample image made for conversion: V2 tables under a V1 super block, which zu_tier turns into a
// V2 device.

#include "sample_contents.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

struct ConversionGeometry {
    std::vector<std::string> args;
    std::uint32_t map_size;
    std::uint32_t map_cnt;
};

const std::vector<ConversionGeometry> CONVERSION_GEOMETRIES{
    {.args = {}, .map_size = 32768, .map_cnt = 32},
    {.args = {"--blocks", "300", "--block-size", "266240"}, .map_size = 16384, .map_cnt = 17},
    {.args = {"--block-size", "4194304", "--extent-size", "77"}, .map_size = 65536, .map_cnt = 64},
};

std::vector<std::string> for_conversion(std::vector<std::string> args)
{
    args.emplace_back("--for-conversion");
    return args;
}

// All that lies before the data blocks.
std::vector<Block> metadata(const Device &device)
{
    std::vector<Block> blocks;
    for (std::uint64_t at = 0; at < decode_super(device.block(4096)).data_offset; at += BLOCK_SIZE)
        blocks.push_back(device.block(at));
    return blocks;
}

class SampleConversion : public testing::TestWithParam<ConversionGeometry> {
protected:
    const Device device = make_sample(for_conversion(GetParam().args));
    const SuperV1 old = decode_super(device.block(4096));

    // What the conversion makes of the old super block.
    SuperV2 converted() const
    {
        SuperV2 sb;
        static_cast<SuperHead &>(sb) = old;
        sb.version = 0x20000;
        sb.min_alloc_size = GetParam().map_size;
        set_maps(sb, GetParam().map_cnt);
        return sb;
    }
};

INSTANTIATE_TEST_SUITE_P(Geometry, SampleConversion, testing::ValuesIn(CONVERSION_GEOMETRIES));

TEST_P(SampleConversion, SuperBlockIsThatOfLayoutV1)
{
    EXPECT_EQ(old.version, 0x10000U);
    EXPECT_EQ(old.reserved, 0U);
    EXPECT_EQ(device.block(4096), encode(old));
    expect_accepted(device, json(old));
}

// Everything else is the same as in a V2 image of these sizes.
TEST_P(SampleConversion, TablesAreThoseOfLayoutV2)
{
    Device other = make_sample(GetParam().args, "v2");
    EXPECT_EQ(other.size(), device.size());
    other.write(4096, device.block(4096));
    EXPECT_TRUE(metadata(other) == metadata(device));
}

TEST_P(SampleConversion, BecomesADeviceOfLayoutV2)
{
    const TempDir &directory = device.directory();
    const std::string old_line = directory.write("old.json", run_logged(device, "dump_super").out);
    const std::vector<Block> before = metadata(device);
    const LoggedRun conversion =
        run_logged(device, "convert_super", {"-v", "2", "-f", old_line, "-y"});
    EXPECT_EQ(conversion.status, 0) << conversion;
    EXPECT_EQ(conversion.out, json(converted()));
    EXPECT_TRUE(metadata(device) == before);

    const std::string new_line = directory.write("new.json", conversion.out);
    const LoggedRun repair = run_logged(device, "repair_super", {"-v", "2", "-f", new_line, "-y"});
    EXPECT_EQ(repair.status, 0) << repair;
    EXPECT_EQ(repair.out, conversion.out);
    EXPECT_EQ(device.block(4096), encode(converted()));

    const std::vector<SampleTable> tables = sample_tables(converted());
    expect_no_fault(device, tables[0], "[]");
    expect_no_fault(device, tables[1], "{ \"inode\":[]}");
    expect_no_fault(device, tables[2], "[]");
    const std::string all = run_logged(device, "dump_inode").out;
    const auto at = static_cast<std::uint64_t>(tables[1].offset(0));
    const InodeV2 first = decode_inode_v2(device.block(at));
    EXPECT_TRUE(all.starts_with("{ \"inode\":[" + json(first, tables[1].offset(0)) + ","));
}

// Without the checksums of V2 there is nothing to find the number of pieces by.
TEST(SampleConversionNeeds, ChecksumsOfLayoutV2)
{
    const Device device = make_sample();
    const std::string line =
        device.directory().write("old.json", run_logged(device, "dump_super").out);
    EXPECT_EQ(run_logged(device, "convert_super", {"-v", "2", "-f", line}).status, 22);
}

TEST(SampleConversionNeeds, RefusedRequests)
{
    struct Row {
        std::string layout;
        std::vector<std::string> args;
        std::string complaint;
    };
    const std::vector<Row> rows{
        {"v2", {}, "--for-conversion: layout v2 cannot be converted"},
        {"v3", {}, "--for-conversion: layout v3 cannot be converted"},
        {"v1", {"--expansion", "153600"}, "--expansion 153600: expected none"},
        {"v1", {"--blocks", "255"}, "--blocks 255: expected 256..1048576"},
        {"v1", {"--extent-size", "3009"}, "--extent-size 3009: expected 56..3008"},
        {"v1",
         {"--block-size", "3145728"},
         "--block-size 3145728: a block would have more than 64 mapped pieces"},
    };
    for (const Row &row : rows)
        expect_refused(for_conversion(row.args), row.complaint, row.layout);
}

} // namespace
