// Arguments that no caller passes: an assertion ends the process, or the call is refused.

#include "in_process.h"
#include "v2_device.h"
#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/layout/brick.h"
#include "zu_tier/layout/extent.h"
#include "zu_tier/layout/v2/map.h"
#include "zu_tier/layout/v2/v2.h"
#include "zu_tier/record/log.h"

using namespace tier_test;

namespace {

TEST(ArgumentDeathTest, PrintersNeedAnEntryAndAStream)
{
    tier_brick_info_t brick{};
    EXPECT_ABORT(tier_print_brick(nullptr, 0, stdout), "brick && fp");
    EXPECT_ABORT(tier_print_brick(&brick, 0, nullptr), "brick && fp");
    tier_inode_v2_t inode{};
    const zutr_print_func_t print_inode = TIER_INODE_TABLE_V2.repair.print;
    EXPECT_ABORT(print_inode(nullptr, nullptr, 0, stdout), "inode && fp");
    EXPECT_ABORT(print_inode(&inode, nullptr, 0, nullptr), "inode && fp");
}

TEST(ArgumentDeathTest, ChecksumNeedsAnExtentAndALength)
{
    const Block block{};
    EXPECT_ABORT(tier_extent_crc(nullptr, 56), "ex && ex_size");
    EXPECT_ABORT(tier_extent_crc(block.data(), 0), "ex && ex_size");
}

TEST(ArgumentDeathTest, ProbeNeedsASuperBlockADeviceAndACount)
{
    tier_super_block_v2_t sb{};
    const std::string arguments = "sb && dev_fd >= 0 && map_cnt > 0";
    EXPECT_ABORT(verify_map_cnt(nullptr, 0, 1), arguments);
    EXPECT_ABORT(verify_map_cnt(&sb, -1, 1), arguments);
    EXPECT_ABORT(verify_map_cnt(&sb, 0, 0), arguments);
    EXPECT_ABORT(calc_super_block_v2(0, nullptr), "sb != NULL && dev_fd >= 0");
    EXPECT_ABORT(calc_super_block_v2(-1, &sb), "sb != NULL && dev_fd >= 0");
}

TEST(ArgumentDeathTest, ParsersNeedAllThatTheyReadAndFill)
{
    Block block{};
    const cJSON document{};
    zutr_params_t params;
    zutr_params_init(&params);
    const std::string text = "all of it";
    EXPECT_ABORT(zutr_assert_parse(&params, &document, &block, text.c_str()), text);
    params.sb = &block;
    zutr_assert_parse(&params, &document, &block, text.c_str());
    EXPECT_ABORT(zutr_assert_parse(nullptr, &document, &block, text.c_str()), text);
    EXPECT_ABORT(zutr_assert_parse(&params, nullptr, &block, text.c_str()), text);
    EXPECT_ABORT(zutr_assert_parse(&params, &document, nullptr, text.c_str()), text);
}

TEST(ArgumentDeathTest, FormattersNeedAllThatTheyReadAndANumber)
{
    const Block block{};
    zutr_params_t params;
    zutr_params_init(&params);
    zutr_assert_entry(0, &block, "", &params);
    const std::string arguments = "no >= 0 && meta && delim && params";
    EXPECT_ABORT(zutr_assert_entry(-1, &block, "", &params), arguments);
    EXPECT_ABORT(zutr_assert_entry(0, nullptr, "", &params), arguments);
    EXPECT_ABORT(zutr_assert_entry(0, &block, nullptr, &params), arguments);
    EXPECT_ABORT(zutr_assert_entry(0, &block, "", nullptr), arguments);
}

TEST(ArgumentDeathTest, FilterIsReadFromATextIntoAFilter)
{
    zutr_filter_t filter{};
    std::string text = "use=1";
    EXPECT_ABORT(zutr_filter_parse(nullptr, text.data()), "f && str");
    EXPECT_ABORT(zutr_filter_parse(&filter, nullptr), "f && str");
}

// A message and its head have room in a line.
TEST(ArgumentDeathTest, LogLineIsBounded)
{
    const std::string format(600, 'x');
    const std::string function(200, 'f');
    EXPECT_ABORT(zutr_error("f", format.c_str(), 0), "length < room");
    EXPECT_ABORT(zutr_error(function.c_str(), "%d", 0), "length < room");
}

TEST(Argument, ExpansionAreaIsLookedForOnAnOpenDevice)
{
    const tier_super_block_v2_t sb{};
    for (const std::int32_t fd : {0, -1})
        EXPECT_EQ(__check_exp_inode_formated(&sb, fd, 153600), -22) << fd;
}

TEST(Argument, ConversionNeedsAFileAndADevice)
{
    zutr_cmd_func_t convert = nullptr;
    ASSERT_EQ(zutr_get_selector(2)(ZUTR_CMD_CONVERT_SUPER, nullptr, &convert), 0);
    ASSERT_NE(convert, nullptr);
    zutr_params_t params;
    zutr_params_init(&params);
    params.fd = 0;
    const auto refused = [&](zutr_params_t *of) {
        return captured([&] { return convert(of); }) == Call{.result = -22};
    };
    EXPECT_TRUE(refused(nullptr));
    EXPECT_TRUE(refused(&params)); // no file
    params.repair_conf = "conf";
    params.fd = -1;
    EXPECT_TRUE(refused(&params));
}

} // namespace
