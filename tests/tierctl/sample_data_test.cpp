// The data blocks of samples: every byte of what the extents hold tells where it belongs, and
// everything else is zero.

#include "held_data.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

struct DataGeometry {
    std::string layout;
    std::vector<std::string> args;
    std::string name;
};

const std::vector<DataGeometry> GEOMETRIES{
    {"v1", {"--blocks", "12", "--block-size", "262144"}, "v1"},
    {"v1", {"--blocks", "9", "--block-size", "266240", "--extent-size", "64"}, "v1BySize"},
    {"v2", {"--blocks", "12", "--block-size", "262144"}, "v2"},
    {"v3", {"--extents", "512", "--blocks", "200", "--block-size", "8192"}, "v3"},
    {"v3", {"--extents", "512", "--blocks", "7", "--block-size", "12288"}, "v3FewBlocks"},
};

class SampleData : public testing::TestWithParam<DataGeometry> {};

INSTANTIATE_TEST_SUITE_P(Layout, SampleData, testing::ValuesIn(GEOMETRIES),
                         [](const auto &geometry) { return geometry.param.name; });

TEST_P(SampleData, EveryPageTellsWhereItBelongs)
{
    const auto &[layout, args, name] = GetParam();
    const Device bare = make_sample(args, layout);
    std::vector<std::string> filled = args;
    filled.emplace_back("--data");
    const Device device = make_sample(filled, layout);

    std::vector<std::uint8_t> expected = bare.bytes();
    std::uint64_t pages = 0;
    for (const HeldPiece &piece : held_pieces(bare, layout)) {
        for (std::uint64_t at = 0; at < piece.length && piece.device + at < expected.size();
             at += BLOCK_SIZE, ++pages)
            std::ranges::copy(sample_page(piece, at),
                              expected.begin() + static_cast<std::ptrdiff_t>(piece.device + at));
    }
    EXPECT_GT(pages, 8U);
    EXPECT_TRUE(device.bytes() == expected);
}

TEST_P(SampleData, DamageLeavesItAsItIs)
{
    const auto &[layout, args, name] = GetParam();
    std::vector<std::string> filled = args;
    filled.insert(filled.end(), {"--data", "--damage", "extent:0"});
    const Device damaged = make_sample(filled, layout);
    filled.resize(filled.size() - 2);
    const Device sound = make_sample(filled, layout);
    std::vector<std::uint8_t> bytes = damaged.bytes();
    const std::int64_t slot = layout == "v3" ? extent_offset(decode_super_v3(sound.block(4096)), 0)
                              : layout == "v2"
                                  ? extent_offset(decode_super_v2(sound.block(4096)), 0)
                                  : extent_offset(decode_super(sound.block(4096)), 0);
    const std::vector<std::uint8_t> all = sound.bytes();
    EXPECT_FALSE(bytes == all);
    std::ranges::copy(sound.block(static_cast<std::uint64_t>(slot)), bytes.begin() + slot);
    EXPECT_TRUE(bytes == all);
}

TEST(SampleDataOption, NotForDevicesToConvert)
{
    expect_refused({"--for-conversion", "--data"}, "--for-conversion excludes --data");
}

} // namespace
