// The registry of layouts.

#include "in_process.h"

#include <limits>

using namespace tier_test;

namespace {

int32_t refuse_everything(int32_t, const void *, zutr_cmd_func_t *) { return -14; }

TEST(Registry, VersionsAreRegisteredBeforeMain)
{
    for (const std::int32_t version : {ZUTR_VER_CODE_V1, ZUTR_VER_CODE_V2, ZUTR_VER_CODE_V3})
        EXPECT_NE(zutr_get_selector(version), nullptr) << version;
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

} // namespace
