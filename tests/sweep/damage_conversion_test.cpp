// Damage among the extents that a conversion probes: it reads no super block, and trusts 256 sound
// extents alone.

#include "damage_device.h"
#include "damage_kinds.h"
#include "super_keys.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

constexpr std::uint32_t PROBED = 256;

const DamagedTable &extent_table() { return layouts_to_damage()[1]->tables.back(); }

class DamagedConversion : public testing::Test {
protected:
    const SuperV2 super = super_v2(1, 1, PROBED);
    SweptDevice device{make_v2_device(super), damage_runs};

    void TearDown() override { damage_runs.record_test(); }

    std::vector<std::string> arguments() const
    {
        SuperV2 old = super;
        old.version = 0x10000;
        return {"-v", "2", "-f", device.file("conf", repair_file(old).text())};
    }

    void expect_conversion(const RunOptions &options = {})
    {
        for (std::vector<std::string> args : {arguments(), with_commit()}) {
            const RunResult run = device.run("convert_super", args, {}, options);
            EXPECT_EQ(run.status, 0) << run;
            EXPECT_EQ(run.out, json(super));
        }
    }

    void expect_refusal(const std::string &message, const RunOptions &options = {})
    {
        for (std::vector<std::string> args : {arguments(), with_commit()}) {
            const RunResult run = device.run("convert_super", args, {}, options);
            EXPECT_EQ(run.status, 22) << run;
            EXPECT_EQ(run.out, "");
            EXPECT_NE(run.err.find(message), std::string::npos) << run;
        }
    }

private:
    std::vector<std::string> with_commit() const
    {
        std::vector<std::string> args = arguments();
        args.emplace_back("-y");
        return args;
    }
};

TEST_F(DamagedConversion, EveryKindInOneExtent)
{
    expect_conversion();
    const DamagedTable &table = extent_table();
    for (const std::uint64_t no : {0U, 128U, PROBED - 1}) {
        const auto place = static_cast<std::uint64_t>(extent_offset(super, no));
        const Block old = device.block(place);
        for (const DamageKind &kind : damage_kinds()) {
            if (!kind.applies(table))
                continue;
            SCOPED_TRACE(text("%lu: %s", no, kind.name.c_str()));
            Block slot = old;
            kind.spoil(table, slot);
            device.put(place, slot);
            if (kind.name == "number") // which the probe does not look at
                expect_conversion();
            else
                expect_refusal("cannot find valid map_cnt. ret:-22, map_cnt:65");
        }
        device.put(place, old);
    }
}

TEST_F(DamagedConversion, SuperBlock)
{
    device.put(SUPER_OFFSET, Block{});
    expect_conversion();
}

TEST_F(DamagedConversion, Unreadable)
{
    for (const std::uint64_t no : {0U, 128U, PROBED - 1}) {
        const auto place = static_cast<std::uint64_t>(extent_offset(super, no));
        expect_refusal("all extent area read failed:-1",
                       {.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                                        {"ZUTR_FAULTS", text("pread@%lu+4096=EIO", place)}}});
    }
    expect_conversion(
        {.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB}, {"ZUTR_FAULTS", "pread@0+8192=EIO"}}});
}

} // namespace
