// Walks over large tables of layout version 3, and over whole devices whose blocks are repaired
// from their own dumps.

#include "large_table.h"

using namespace tier_test;

namespace {

TYPED_TEST_SUITE(LargeTable, PackedTables, BlockTableNames);

TYPED_TEST(LargeTable, EveryBlockIsShownOrHasAnErrorRecord)
{
    const auto walk = [this](int error_filter) {
        std::vector<std::string> args = this->arguments(error_filter);
        args.insert(args.end(), {"-p", this->device.path(), "-c", this->table.dump});
        return run_tool(args);
    };
    for (const int error_filter : {-1, 0, 1})
        this->expect_walked(walk(error_filter), error_filter, [](std::uint64_t) { return false; });

    // Cut off within a chunk, and within a block.
    const std::uint64_t lost = this->count - 300;
    this->device.truncate(static_cast<std::uint64_t>(this->offset(lost)) + 100);
    for (const int error_filter : {-1, 0, 1})
        this->expect_walked(walk(error_filter), error_filter,
                            [lost](std::uint64_t no) { return no >= lost; });
}

template <class T>
class PackedRebuild : public testing::Test {
protected:
    static constexpr std::uint64_t BLOCKS = 4;

    const T &table = block_table<T>();
    const SuperV3 super = packed_super(BLOCKS);
    Device device = make_v3_device(super);

    // Full, free, with one entry, and with some.
    PackedRebuild()
    {
        put(0, 1);
        put(2, SLOTS_V3);
        put(3, 40);
    }

    void put(std::uint64_t no, std::uint32_t distance)
    {
        typename T::Packed packed;
        for (std::uint32_t slot = table.first_slot; slot < SLOTS_V3; slot += distance)
            (packed.*table.entries).push_back(sample_entry(table, slot));
        put_block(device, table.offset(super, no), encode(packed));
    }

    std::vector<std::string> dumps() const
    {
        std::vector<std::string> lines;
        for (std::uint64_t no = 0; no < BLOCKS; ++no) {
            const LoggedRun run =
                run_logged(device, table.dump, {"-n", std::to_string(no), "-g", "use=1"});
            EXPECT_EQ(run.status, 0) << run;
            lines.push_back(run.out);
        }
        return lines;
    }

    void repair(const std::vector<std::string> &documents) const
    {
        for (const std::string &document : documents) {
            const std::string conf = device.directory().write("conf.json", document);
            const LoggedRun run = run_logged(device, table.repair, {"-f", conf, "-y"});
            EXPECT_EQ(run.status, 0) << run;
            EXPECT_EQ(run.out, "");
        }
    }
};

TYPED_TEST_SUITE(PackedRebuild, PackedTables, BlockTableNames);

TYPED_TEST(PackedRebuild, RepairsFromTheOwnDumpChangeNothing)
{
    const std::vector<std::uint8_t> before = this->device.bytes();
    this->repair(this->dumps());
    EXPECT_EQ(this->device.bytes(), before);
}

TYPED_TEST(PackedRebuild, DestroyedBlocksComeBack)
{
    const std::vector<std::uint8_t> before = this->device.bytes();
    const std::vector<std::string> lines = this->dumps();
    this->device.write(static_cast<std::uint64_t>(this->table.offset(this->super, 0)),
                       std::vector<std::uint8_t>(this->BLOCKS * BLOCK_SIZE, 0xEE));
    EXPECT_NE(this->device.bytes(), before);
    this->repair(lines);
    EXPECT_EQ(this->device.bytes(), before);
}

} // namespace
