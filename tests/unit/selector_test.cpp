// The selectors of all layouts as they are registered, and what their dumps rely on.

#include "in_process.h"
#include "v3_device.h"

#include <algorithm>
#include <limits>

using namespace tier_test;

namespace {

template <class Super>
struct Version;

template <>
struct Version<SuperV1> {
    static constexpr std::int32_t NUMBER = 1;
    static SuperV1 super() { return super_v1(1, 1, 1); }
    static std::vector<std::int32_t> commands() { return {0, 1, 2, 3, 7, 9, 10, 11, 12}; }
};

template <>
struct Version<SuperV2> {
    static constexpr std::int32_t NUMBER = 2;
    static SuperV2 super() { return super_v2(1, 1, 1); }
    static std::vector<std::int32_t> commands() { return {0, 1, 2, 3, 7, 9, 10, 11, 12, 15}; }
};

template <>
struct Version<SuperV3> {
    static constexpr std::int32_t NUMBER = 3;
    static SuperV3 super() { return super_v3(1, 1, 1); }
    static std::vector<std::int32_t> commands()
    {
        return {0, 1, 2, 3, 4, 5, 9, 10, 11, 12, 13, 14};
    }
};

using Supers = testing::Types<SuperV1, SuperV2, SuperV3>;

struct SuperNames {
    template <class Super>
    static std::string GetName(int)
    {
        return "V" + std::to_string(Version<Super>::NUMBER);
    }
};

int32_t some_handler(zutr_params_t *) { return 0; }

template <class Super>
class Selector : public testing::Test {
protected:
    const std::string version = "v" + std::to_string(Version<Super>::NUMBER);
    const std::string line = json(Version<Super>::super());
    Block super = encode(Version<Super>::super());
    zutr_cmd_func_t handler = some_handler;
    MemoryStream stream;
    zutr_params_t params;

    Selector()
    {
        zutr_params_init(&params);
        params.fd = 0; // of no matter
        params.sb = super.data();
        params.out_fp = stream.get();
    }
    ~Selector() override
    {
        params = {}; // it owns nothing
    }

    std::int32_t select(std::int32_t cmd, const void *sb)
    {
        return zutr_get_selector(Version<Super>::NUMBER)(cmd, sb, &handler);
    }
    void choose(std::int32_t cmd) { ASSERT_EQ(select(cmd, nullptr), 0); }
};

TYPED_TEST_SUITE(Selector, Supers, SuperNames);

TYPED_TEST(Selector, OffersItsCommandsWithAndWithoutASuperBlock)
{
    const std::vector<std::int32_t> commands = Version<TypeParam>::commands();
    for (std::int32_t cmd = 0; cmd < ZUTR_CMD_MAXVALUE; ++cmd) {
        for (const void *sb :
             {static_cast<const void *>(this->super.data()), static_cast<const void *>(nullptr)}) {
            this->handler = some_handler;
            EXPECT_EQ(this->select(cmd, sb), 0);
            EXPECT_EQ(this->handler != nullptr, std::ranges::count(commands, cmd) == 1) << cmd;
            EXPECT_NE(this->handler, some_handler);
        }
    }
}

TYPED_TEST(Selector, RefusedSuperBlockLeavesTheHandlerAlone)
{
    const std::vector<std::pair<std::size_t, std::uint8_t>> flips{
        {0, 0x01}, {3, 0x80}, {4, 0x01}, {7, 0x80}, {112, 0x01}, {TypeParam::LENGTH - 1, 0x80}};
    for (const auto &[offset, bit] : flips) {
        SCOPED_TRACE(offset);
        Block bad = this->super;
        bad[offset] ^= bit;
        const Call call = captured([&] { return this->select(ZUTR_CMD_DUMP_SUPER, bad.data()); });
        EXPECT_EQ(
            call,
            (Call{.result = -14,
                  .log = {debug_line("__check_super_" + this->version,
                                     text("%s check super block failed. magic:0x%x, ver:0x%x, "
                                          "cksum:0x%x:0x%x",
                                          this->version.c_str(), get_u32(bad, 4), get_u32(bad, 112),
                                          get_u32(bad, 0), record_crc(bad, TypeParam::LENGTH)))}}));
        EXPECT_EQ(this->handler, some_handler);
    }
}

TYPED_TEST(Selector, BytesBehindTheRecordAreNotChecked)
{
    this->super[TypeParam::LENGTH] ^= 0xFF;
    this->super[4095] ^= 0xFF;
    EXPECT_EQ(this->select(ZUTR_CMD_DUMP_SUPER, this->super.data()), 0);
}

TYPED_TEST(Selector, SuperBlockIsCheckedBeforeTheCommand)
{
    this->super[0] ^= 1;
    EXPECT_EQ(captured([&] { return this->select(ZUTR_CMD_MAXVALUE, this->super.data()); }).result,
              -14);
}

TYPED_TEST(Selector, DumpSuperNeedsASuperBlockAndAnOutput)
{
    this->choose(ZUTR_CMD_DUMP_SUPER);
    this->params.sb = nullptr;
    EXPECT_EQ(this->handler(&this->params), -22);
    this->params.sb = this->super.data();
    this->params.out_fp = nullptr;
    EXPECT_EQ(this->handler(&this->params), -22);
    EXPECT_EQ(this->stream.text(), "");
    this->params.out_fp = this->stream.get();
    EXPECT_EQ(this->handler(&this->params), 0);
    EXPECT_EQ(this->stream.text(), this->line);
    this->super[0] ^= 1;
    EXPECT_EQ(captured([&] { return this->handler(&this->params); }).result, -14);
    EXPECT_EQ(this->stream.text(), this->line);
}

template <class Super>
class SelectorDeathTest : public Selector<Super> {
};

TYPED_TEST_SUITE(SelectorDeathTest, Supers, SuperNames);

TYPED_TEST(SelectorDeathTest, CommandOutOfRangeAborts)
{
    for (const std::int32_t cmd : {-1, 16, 17, std::numeric_limits<std::int32_t>::min(),
                                   std::numeric_limits<std::int32_t>::max()}) {
        EXPECT_ABORT(this->select(cmd, this->super.data()), "ZUTR_CMD_VALID(cmd)");
        EXPECT_ABORT(this->select(cmd, nullptr), "ZUTR_CMD_VALID(cmd)");
    }
}

TYPED_TEST(SelectorDeathTest, TableDumpsNeedAnOpenDeviceAndAValidSuperBlock)
{
    const std::string arguments = "params && params->sb && params->fd >= 0";
    const std::string check = "!__check_super_" + this->version + "(params->sb)";
    const std::vector<std::int32_t> commands = Version<TypeParam>::commands();
    for (std::int32_t cmd = ZUTR_CMD_DUMP_BRICK; cmd <= ZUTR_CMD_DUMP_HOT_TABLE; ++cmd) {
        if (std::ranges::count(commands, cmd) == 0)
            continue;
        SCOPED_TRACE(cmd);
        this->choose(cmd);
        EXPECT_ABORT(this->handler(nullptr), arguments);
        this->params.fd = -1;
        EXPECT_ABORT(this->handler(&this->params), arguments);
        this->params.fd = 0;
        this->params.sb = nullptr;
        EXPECT_ABORT(this->handler(&this->params), arguments);
        Block bad = this->super;
        bad[4] ^= 1;
        this->params.sb = bad.data();
        EXPECT_ABORT(this->handler(&this->params), check);
    }
}

template <class Super>
class DumpSuperDeathTest : public Selector<Super> {
};

using LaterSupers = testing::Types<SuperV2, SuperV3>;
TYPED_TEST_SUITE(DumpSuperDeathTest, LaterSupers, SuperNames);

TYPED_TEST(DumpSuperDeathTest, NeedsParameters)
{
    this->choose(ZUTR_CMD_DUMP_SUPER);
    EXPECT_ABORT(this->handler(nullptr), "params");
}

} // namespace
