// Bricks are the same records in layout versions 1 and 2.

#include "run.h"
#include "table.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// What the tool writes on a V1 device is valid on a V2 device, and shown by the same line.
TEST(BrickV2, EntryWrittenUnderV1IsShownByTheSameLine)
{
    const SuperV1 old_super = super_v1(4, 2, 2);
    const SuperV2 new_super = super_v2(4, 2, 2);
    ASSERT_EQ(brick_offset(old_super, 2), brick_offset(new_super, 2));
    const auto slot = static_cast<std::uint64_t>(brick_offset(new_super, 2));
    const std::string used = table<SuperV1, BrickV1>().file_of({}, brick_used(2)).text();
    for (const std::string &document : {used, std::string(R"({"bi_use":0,"bi_no":2})")}) {
        const Device old_device = make_v1_device(old_super);
        const std::string conf = old_device.directory().write("conf.json", document);
        const LoggedRun repair = run_logged(old_device, "repair_brick", {"-y", "-f", conf});
        ASSERT_EQ(repair.status, 0) << repair;

        Device new_device = make_v2_device(new_super);
        new_device.write(slot, old_device.block(slot));
        const LoggedRun dump = run_logged(new_device, "dump_brick", {"-n", "2"});
        EXPECT_EQ(dump.status, 0) << dump;
        EXPECT_EQ(dump.out, repair.out);
        EXPECT_EQ(dump.out, run_logged(old_device, "dump_brick", {"-n", "2"}).out);
    }
}

TEST(BrickV2, NumberIsBoundedByTheSuperBlockOfTheDevice)
{
    for (const std::uint32_t count : {1U, 3U, 300U}) {
        const Device device = make_v2_device(super_v2(count, 1, 1));
        const auto repair = [&](std::uint32_t no) {
            const std::string document = text("{\"bi_use\":0,\"bi_no\":%u}", no);
            const std::string conf = device.directory().write("conf.json", document);
            return run_logged(device, "repair_brick", {"-f", conf});
        };
        EXPECT_EQ(repair(count - 1).status, 0);
        const LoggedRun refused = repair(count);
        EXPECT_EQ(refused.status, 22);
        ASSERT_FALSE(refused.errors.empty());
        EXPECT_EQ(refused.errors.front(),
                  error_line("parse_brick_from_json_v2",
                             text("bi_no %u is invalid, max: %u", count, count)));
    }
}

} // namespace
