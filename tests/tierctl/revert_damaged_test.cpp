// zu_tierctl revert --damaged: an entry that was damaged when it was saved is put back as it was.

#include "revert_run.h"

#include <filesystem>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

class RevertDamaged : public Revert {
protected:
    // Saves the cache anew with that entry in place of a sound one, which it then has again.
    void save_with(const std::string &table, std::uint64_t no, const Block &damaged)
    {
        const Block sound = block_of(table, no);
        put_block(cache.device, cache.offset(table, no), damaged);
        fs::remove(saved);
        save();
        put_block(cache.device, cache.offset(table, no), sound);
    }

    // Refused without the option and done with it; the entry of the device is sound before.
    void expect_taken_back(const std::string &table, std::uint64_t no, const Block &damaged,
                           const std::string &flaws)
    {
        const std::string name = table + ' ' + std::to_string(no);
        expect_refused(table, no,
                       name + " is damaged in " + saved + " (" + flaws +
                           "); to put it back as it was: --damaged");
        const auto before = cache.device.bytes();
        const RunResult shown = revert(table, no, {"--damaged"});
        EXPECT_EQ(shown.status, 0) << shown;
        EXPECT_EQ(shown.err, NOTHING_WRITTEN);
        EXPECT_NE(shown.out.find("\nthen damaged: " + flaws + "\n  "), std::string::npos) << shown;
        EXPECT_TRUE(cache.device.bytes() == before);
        const RunResult done = revert(table, no, {"--damaged", "--commit"});
        EXPECT_EQ(done.status, 0) << done;
        EXPECT_EQ(done.out, shown.out + "written\n");
        EXPECT_EQ(done.err, "");
        EXPECT_TRUE(block_of(table, no) == damaged);
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, RevertDamaged, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(RevertDamaged, EveryTable)
{
    for (const CacheTable &table : cache.tables) {
        if (table.name == "super" || table.name == "hot")
            continue;
        SCOPED_TRACE(table.name);
        const Block sound = block_of(table.name, 1);
        Block damaged = sound;
        damaged[20] ^= 0x04;
        save_with(table.name, 1, damaged);
        expect_taken_back(table.name, 1, damaged, "checksum");
        put_block(cache.device, table.offset(1), sound);
    }
}

TEST_P(RevertDamaged, EveryFlaw)
{
    const Block zeros{};
    save_with("inode", 3, zeros);
    expect_taken_back("inode", 3, zeros, "magic, number, checksum");
}

// What zu_tier repairs is taken back, byte by byte.
TEST_P(RevertDamaged, UndoesARepairOfADamagedEntry)
{
    flip(cache.device, cache.offset("inode", 2) + 1);
    fs::remove(saved);
    save();
    const auto before = cache.device.bytes();
    const RunResult made = run_ctl({"template", cache.device.path(), "inode", "2"});
    const std::string conf = directory.write("inode.json", made.out);
    const LoggedRun repair = run_logged(cache.device, "repair_inode", {"-f", conf, "-y"});
    ASSERT_EQ(repair.status, 0) << repair;
    ASSERT_FALSE(cache.device.bytes() == before);
    EXPECT_EQ(revert("inode", 2, {"--damaged", "--commit"}).status, 0);
    EXPECT_TRUE(cache.device.bytes() == before);
}

// A copy of a device that had lost its super block, and the device after its repair.
TEST_P(RevertDamaged, SuperBlock)
{
    const Block sound = block_of("super", 0);
    Block damaged = sound;
    damaged[100] ^= 1;
    put_block(cache.device, SUPER_OFFSET, damaged);
    fs::remove(saved);
    fs::copy_file(cache.device.path(), saved);
    put_block(cache.device, SUPER_OFFSET, sound);
    const RunResult refused = revert("super", 0);
    EXPECT_EQ(refused.status, 1) << refused;
    EXPECT_TRUE(
        refused.err.starts_with("zu_tierctl: " + saved + " has a damaged super block of layout "))
        << refused;
    const RunResult done = revert("super", 0, {"--damaged", "--commit"});
    EXPECT_EQ(done.status, 0) << done;
    EXPECT_NE(done.out.find("\nthen damaged: checksum\n"), std::string::npos) << done;
    EXPECT_TRUE(block_of("super", 0) == damaged);
    EXPECT_EQ(revert("super", 0, {"--damaged", "--commit"}).status, 1); // neither has one now
}

TEST_P(RevertDamaged, SoundEntriesNeedNoOption)
{
    flip(cache.device, cache.offset("inode", 2) + 60);
    EXPECT_EQ(revert("inode", 2, {"--damaged"}).out, revert("inode", 2).out);
}

TEST_P(RevertDamaged, MissingEntriesStayMissing)
{
    fs::resize_file(saved, static_cast<std::uint64_t>(cache.offset("extent", 2)));
    expect_complaint(revert("extent", 2, {"--damaged"}), 1,
                     "cannot read extent 2 in " + saved + ": No such device or address");
}

} // namespace
