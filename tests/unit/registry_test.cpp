// The registry of layout versions, and the selector of V1 as it is registered there.

#include "in_process.h"
#include "v1_device.h"

#include <limits>

using namespace tier_test;

namespace {

int32_t refuse_everything(int32_t, const void *, zutr_cmd_func_t *)
{
    return -14;
}

int32_t some_handler(zutr_params_t *)
{
    return 0;
}

TEST(Registry, VersionsAreRegisteredBeforeMain)
{
    EXPECT_NE(zutr_get_selector(ZUTR_VER_CODE_V1), nullptr);
}

TEST(Registry, AnyOtherNumberHasNoSelector)
{
    for (const std::int32_t version :
         {0, 4, 5, -1, 1000000, std::numeric_limits<std::int32_t>::min(),
          std::numeric_limits<std::int32_t>::max()})
        EXPECT_EQ(zutr_get_selector(version), nullptr) << version;
}

TEST(RegistryDeathTest, VersionRegistersOnce)
{
    EXPECT_ABORT(zutr_func_register(ZUTR_VER_CODE_V1, refuse_everything), "!s_func_selectors[ver]");
    EXPECT_ABORT(zutr_func_register(ZUTR_VER_CODE_V1, zutr_get_selector(ZUTR_VER_CODE_V1)),
                 "!s_func_selectors[ver]");
}

TEST(RegistryDeathTest, InvalidVersionOrSelectorAborts)
{
    for (const std::int32_t version : {0, 4, -1, std::numeric_limits<std::int32_t>::min(),
                                       std::numeric_limits<std::int32_t>::max()})
        EXPECT_ABORT(zutr_func_register(version, refuse_everything), "ZUTR_VER_VALID(ver) && s");
    EXPECT_ABORT(zutr_func_register(ZUTR_VER_CODE_V1, nullptr), "ZUTR_VER_VALID(ver) && s");
}

class SelectorV1 : public testing::Test {
protected:
    Block super = encode(super_v1(1, 1, 1));
    zutr_cmd_func_t handler = some_handler;

    std::int32_t select(std::int32_t cmd, const void *sb)
    {
        return zutr_get_selector(ZUTR_VER_CODE_V1)(cmd, sb, &handler);
    }
};

TEST_F(SelectorV1, OffersItsCommandsWithAndWithoutASuperBlock)
{
    const std::vector<bool> offered{true,  true, true, true, false, false, false, true,
                                    false, true, true, true, true,  false, false, false};
    ASSERT_EQ(offered.size(), static_cast<std::size_t>(ZUTR_CMD_MAXVALUE));
    for (std::int32_t cmd = 0; cmd < ZUTR_CMD_MAXVALUE; ++cmd) {
        for (const void *sb :
             {static_cast<const void *>(super.data()), static_cast<const void *>(nullptr)}) {
            handler = some_handler;
            EXPECT_EQ(select(cmd, sb), 0);
            EXPECT_EQ(handler != nullptr, offered[static_cast<std::size_t>(cmd)]) << cmd;
            EXPECT_NE(handler, some_handler);
        }
    }
}

TEST_F(SelectorV1, RefusedSuperBlockLeavesTheHandlerAlone)
{
    const std::vector<std::pair<std::size_t, std::uint8_t>> flips{
        {0, 0x01}, {3, 0x80}, {4, 0x01}, {7, 0x80}, {112, 0x01}, {143, 0x80}};
    for (const auto &[offset, bit] : flips) {
        SCOPED_TRACE(offset);
        Block bad = super;
        bad[offset] ^= bit;
        const Call call = captured([&] { return select(ZUTR_CMD_DUMP_SUPER, bad.data()); });
        EXPECT_EQ(
            call,
            (Call{.result = -14,
                  .log = {debug_line("__check_super_v1",
                                     text("v1 check super block failed. magic:0x%x, ver:0x%x, "
                                          "cksum:0x%x:0x%x",
                                          get_u32(bad, 4), get_u32(bad, 112), get_u32(bad, 0),
                                          record_crc(bad, SuperV1::LENGTH)))}}));
        EXPECT_EQ(handler, some_handler);
    }
}

TEST_F(SelectorV1, BytesBehindTheRecordAreNotChecked)
{
    super[144] ^= 0xFF;
    super[4095] ^= 0xFF;
    EXPECT_EQ(select(ZUTR_CMD_DUMP_SUPER, super.data()), 0);
}

TEST_F(SelectorV1, SuperBlockIsCheckedBeforeTheCommand)
{
    super[0] ^= 1;
    EXPECT_EQ(captured([&] { return select(ZUTR_CMD_MAXVALUE, super.data()); }).result, -14);
}

using SelectorV1DeathTest = SelectorV1;

TEST_F(SelectorV1DeathTest, CommandOutOfRangeAborts)
{
    for (const std::int32_t cmd : {-1, 16, 17, std::numeric_limits<std::int32_t>::min(),
                                   std::numeric_limits<std::int32_t>::max()}) {
        EXPECT_ABORT(select(cmd, super.data()), "ZUTR_CMD_VALID(cmd)");
        EXPECT_ABORT(select(cmd, nullptr), "ZUTR_CMD_VALID(cmd)");
    }
}

TEST_F(SelectorV1, DumpSuperNeedsASuperBlockAndAnOutput)
{
    ASSERT_EQ(select(ZUTR_CMD_DUMP_SUPER, nullptr), 0);
    const MemoryStream stream;
    zutr_params_t params;
    zutr_params_init(&params);
    params.out_fp = stream.get();
    EXPECT_EQ(handler(&params), -22);
    params.sb = super.data();
    params.out_fp = nullptr;
    EXPECT_EQ(handler(&params), -22);
    EXPECT_EQ(stream.text(), "");
    params.out_fp = stream.get();
    EXPECT_EQ(handler(&params), 0);
    EXPECT_EQ(stream.text(), json(super_v1(1, 1, 1)));
    super[0] ^= 1;
    EXPECT_EQ(captured([&] { return handler(&params); }).result, -14);
    EXPECT_EQ(stream.text(), json(super_v1(1, 1, 1)));
}

} // namespace
