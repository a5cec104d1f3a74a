// A device of layout version 1 whose every entry is repaired from its own content stays as it is.

#include "expect.h"
#include "loop_device.h"
#include "table_v1.h"

#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <tuple>

using namespace tier_test;

namespace {

enum class Medium { IMAGE, LOOP };

class V1Rebuild : public testing::TestWithParam<std::tuple<std::uint32_t, Medium>> {
protected:
    SuperV1 super = super_v1(3, 5, 6);
    std::vector<BrickV1> bricks;
    std::vector<InodeV1> inodes;
    std::vector<ExtentV1> extents;
    std::optional<Device> device;
    std::unique_ptr<LoopDevice> loop;

    void SetUp() override
    {
        super.extent_size = std::get<0>(GetParam());
        for (std::uint32_t no = 0; no < 3; ++no) // a free brick would get another UUID
            bricks.push_back(table_v1<BrickV1>().repairable(no, 0));
        for (std::uint32_t no = 0; no < 5; ++no)
            inodes.push_back(no == 3 ? InodeV1{.no = no}
                                     : table_v1<InodeV1>().repairable(no, no % 3));
        for (std::uint32_t no = 0; no < 6; ++no)
            extents.push_back(no == 0 ? ExtentV1{.no = no} : extent(no));
        device.emplace(make_v1_device(super, bricks, inodes, extents));
        if (std::get<1>(GetParam()) == Medium::LOOP) {
            loop = LoopDevice::attach(device->path());
            if (!loop)
                GTEST_SKIP() << "no loop devices";
        }
    }

    // One with all its words set.
    ExtentV1 extent(std::uint32_t no) const
    {
        ExtentV1 used = extent_used(no, no % 5);
        used.bitmap.clear();
        for (std::uint64_t i = 0; i < (super.extent_size - 56) / 8; ++i)
            used.bitmap.push_back(0xFEDC'BA98'7654'3210U - i * 0x0101'0101'0101'0101U - no);
        return used;
    }

    LoggedRun run(const std::string &command, const std::vector<std::string> &args = {})
    {
        std::vector<std::string> all{"-p", loop ? loop->path() : device->path(), "-c", command};
        all.insert(all.end(), args.begin(), args.end());
        return run_with_log(device->directory(), all);
    }

    void expect_repair(const std::string &command, const std::string &document,
                       const std::string &out, const std::vector<std::string> &args = {})
    {
        std::vector<std::string> all{"-f", device->directory().write("conf.json", document), "-y"};
        all.insert(all.end(), args.begin(), args.end());
        const LoggedRun repair = run(command, all);
        EXPECT_EQ(repair.status, 0) << repair;
        EXPECT_EQ(repair.out, out);
    }

    template <class Entry>
    std::string item(const Entry &entry) const
    {
        const TableV1<Entry> &table = table_v1<Entry>();
        return table.json(super, entry, table.offset(super, entry.no));
    }

    template <class Entry>
    void expect_table(const std::vector<Entry> &entries)
    {
        std::vector<std::string> items;
        for (const Entry &entry : entries)
            items.push_back(item(entry));
        EXPECT_EQ(run(table_v1<Entry>().dump).out, json_array(items));
    }

    template <class Entry>
    void repair_table(const std::vector<Entry> &entries)
    {
        const TableV1<Entry> &table = table_v1<Entry>();
        for (const Entry &entry : entries)
            expect_repair(table.repair, repair_file(table.keys, entry).text(), item(entry));
    }

    void expect_dumps()
    {
        EXPECT_EQ(run("dump_super").out, json(super));
        expect_table(bricks);
        expect_table(inodes);
        expect_table(extents);
    }

    void repair_everything()
    {
        expect_repair("repair_super", json(super), json(super), {"-v", "1"});
        repair_table(bricks);
        repair_table(inodes);
        repair_table(extents);
    }

    // Fills everything from the super block to the end of the inode or extent slots with noise.
    void destroy()
    {
        const std::vector<std::uint8_t> noise(3 * BLOCK_SIZE, 0xEE);
        device->write(SUPER_OFFSET, ConstByteSpan(noise).first(BLOCK_SIZE));
        for (const std::int64_t table :
             {brick_offset(super, 0), inode_offset(super, 0), inode_offset(super, 2),
              extent_offset(super, 0), extent_offset(super, 3)})
            device->write(static_cast<std::uint64_t>(table), noise);
    }
};

TEST_P(V1Rebuild, RepairsInPlaceChangeNothing)
{
    const std::vector<std::uint8_t> original = device->bytes();
    expect_dumps();
    repair_everything();
    EXPECT_EQ(device->bytes(), original);
    expect_dumps();
}

TEST_P(V1Rebuild, DestroyedEntriesComeBack)
{
    const std::vector<std::uint8_t> original = device->bytes();
    destroy();
    EXPECT_NE(device->bytes(), original);
    repair_everything();
    EXPECT_EQ(device->bytes(), original);
    expect_dumps();
}

std::string case_name(const testing::TestParamInfo<V1Rebuild::ParamType> &info)
{
    const auto [extent_size, medium] = info.param;
    return std::to_string(extent_size) + (medium == Medium::LOOP ? "OnALoopDevice" : "OnAnImage");
}

INSTANTIATE_TEST_SUITE_P(ExtentSizes, V1Rebuild,
                         testing::Combine(testing::Values(56U, 60U, 64U, 72U, 568U, 4096U),
                                          testing::Values(Medium::IMAGE, Medium::LOOP)),
                         case_name);

} // namespace
