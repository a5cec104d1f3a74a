// The fields that decide about the expansion inodes, on a device that has an area of them.

#include "damage_device.h"
#include "damage_values.h"
#include "v2_device.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

constexpr std::uint32_t EXPANSION_INODE = 4; // the first of the area
constexpr std::uint64_t LONGEST_WALK = 32768;

SuperV2 super_with_area()
{
    SuperV2 super = super_v2(3, EXPANSION_INODE, 3);
    set_expansion(super, EXPANSION_UNIT, true);
    return super;
}

// It ends after the first two inodes of the area.
Device device_with_area()
{
    const SuperV2 super = super_with_area();
    Device device = make_v2_device(super, {}, {inode_v2(4), inode_v2(5)});
    device.truncate(static_cast<std::uint64_t>(expansion_offset(super, 2)));
    return device;
}

// What the record says of the area.
struct Area {
    explicit Area(const Block &super)
        : exists(get_u16(super, 140) == 0x4558), in_use(get_u8(super, 143) == 0x53),
          regular(get_u32(super, 124)), all(regular + get_u8(super, 142) * EXPANSION_UNIT),
          start(get_u64(super, 32) + std::uint64_t{get_u32(super, 128)} * get_u32(super, 132) + MIB)
    {
    }

    bool exists;
    bool in_use;
    std::uint32_t regular; // count of inodes
    std::uint32_t all;
    std::uint64_t start;

    bool admits(std::uint32_t no) const
    {
        return no < 500'000 && (no < regular || (exists && in_use && no < all));
    }
    std::uint64_t place(const Block &super, std::uint32_t no) const
    {
        const std::uint64_t table = get_u32(super, 116) + 4096U + get_u64(super, 8);
        return no < regular ? table + no * BLOCK_SIZE
                            : start + std::uint64_t{no - regular} * BLOCK_SIZE;
    }
};

// A walk goes over both tables; see damage_super_test.cpp about long ones.
bool is_long(const Area &area)
{
    const auto slots = [](std::uint32_t count) {
        return static_cast<std::int32_t>(count) > 0 ? std::uint64_t{count} : 0;
    };
    return slots(area.regular) + (area.exists ? slots(area.all - area.regular) : 0) > LONGEST_WALK;
}

class DamagedExpansion : public testing::TestWithParam<SuperField> {
protected:
    SweptDevice device{device_with_area(), damage_runs};
    const Block sound = device.block(SUPER_OFFSET);

    void TearDown() override { damage_runs.record_test(); }

    void expect_walk()
    {
        const RunResult run =
            device.run("dump_inode", {"-g", "error=0"}, {.situations = ABSURD_SUPER});
        EXPECT_TRUE(run.status == 0 || run.signal == SIGABRT) << run;
    }

    void expect_entry(const Block &super, std::uint32_t no)
    {
        SCOPED_TRACE(text("-n %u", no));
        const Area area(super);
        const RunResult run =
            device.run("dump_inode", {"-n", std::to_string(no)}, {.situations = ABSURD_SUPER});
        const bool regular = no < area.regular;
        const std::uint32_t count = regular ? area.regular : area.all;
        const std::uint64_t place = area.place(super, no);
        const bool aligned = area.start % BLOCK_SIZE == 0 || regular;
        if (static_cast<std::int64_t>(area.start) <= 0)
            EXPECT_EQ(run.signal, SIGABRT) << run;
        else if (!regular && !area.exists)
            EXPECT_EQ(run.status, 22) << run;
        else if (static_cast<std::int32_t>(count) <= 0 || !aligned)
            EXPECT_EQ(run.signal, SIGABRT) << run;
        else if (no >= count)
            EXPECT_EQ(run.status, 22) << run;
        else if (place > device.size() - BLOCK_SIZE)
            EXPECT_EQ(run.status, 5) << run;
        else
            EXPECT_TRUE(run.status == 0 || run.status == 14) << run;
    }

    void expect_repairs(const Block &super)
    {
        const Area area(super);
        const std::string inode = device.file("inode", "{\"i_no\":4,\"i_use\":0}");
        const std::uint64_t place = area.place(super, EXPANSION_INODE);
        for (const bool commit : {false, true}) {
            std::vector<std::string> args{"-f", inode};
            if (commit)
                args.emplace_back("-y");
            const RunResult run =
                device.run("repair_inode", args, {.commit = commit, .situations = ABSURD_SUPER});
            if (!area.admits(EXPANSION_INODE))
                EXPECT_EQ(run.status, 22) << run;
            else if (static_cast<std::int64_t>(place) < 0)
                EXPECT_EQ(run.status, 14) << run;
            else if (commit && place % BLOCK_SIZE != 0)
                EXPECT_EQ(run.status, 5) << run;
            else if (commit && place > device.size()) // as far as the disk lets an image grow
                EXPECT_TRUE(run.status == 0 || run.status == 5) << run;
            else
                EXPECT_EQ(run.status, 0) << run;
        }
        const std::string extent = device.file(
            "extent", "{\"te_use\":1,\"te_no\":0,\"te_inode_no\":4,\"te_sampling_low\":1,"
                      "\"te_mapped_meta\":[]}");
        const RunResult run = device.run("repair_extent", {"-f", extent, "-y"}, {.commit = true});
        const bool known = area.admits(EXPANSION_INODE) && get_u32(super, 132) != 0;
        EXPECT_EQ(run.status, known ? 0 : 22) << run;
    }
};

TEST_P(DamagedExpansion, EveryValue)
{
    const SuperField &field = GetParam();
    std::set<std::uint64_t> values = damage_values(field, get_field(sound, field));
    values.insert(get_field(sound, field));
    for (const std::uint64_t value : values) {
        SCOPED_TRACE(text("%s = %lu", field.name.c_str(), value));
        Block super = sound;
        put_field(super, field, value);
        seal(super, SuperV2::LENGTH);
        device.put(SUPER_OFFSET, super);
        if (!is_long(Area(super)))
            expect_walk();
        for (const std::uint32_t no :
             {0U, 3U, 4U, 5U, 6U, 25603U, 25604U, 0x7FFF'FFFEU, 0x7FFF'FFFFU})
            expect_entry(super, no);
        expect_repairs(super);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sweep, DamagedExpansion,
    testing::Values(SuperField{"data_offset", 32, 8}, SuperField{"inode_cnt", 124, 4},
                    SuperField{"block_size", 128, 4}, SuperField{"block_cnt", 132, 4},
                    SuperField{"exp_magic", 140, 2}, SuperField{"exp_area", 142, 1},
                    SuperField{"exp_inuse", 143, 1}),
    [](const auto &test) { return test.param.name; });

} // namespace
