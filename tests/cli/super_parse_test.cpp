// Repairs from the files of super blocks: what is logged, printed and written.

#include "super_repair.h"
#include "super_values.h"

using namespace tier_test;

namespace {

template <class Super>
class SuperParse : public SuperRepair<Super> {
protected:
    Super super = Layout<Super>::super(3, 3, 3);
    RepairFile file = repair_file(super);

    // The parse ends with this message.
    void expect_refused_with(const std::string &conf_text, const std::string &message,
                             const std::vector<std::string> &args = {})
    {
        const bool is_object = conf_text.front() == '{';
        const Log lines = parsed(super_table(super), {}, is_object ? conf_text : "{}").log;
        EXPECT_EQ(lines.back(), error_line(this->parser, message));
        this->expect_refused(conf_text, this->log_with(lines, {this->rejected()}), args);
    }
};

TYPED_TEST_SUITE(SuperParse, Supers, SuperNames);

TYPED_TEST(SuperParse, DebugModeShowsTheKeysOnStandardError)
{
    const LoggedRun run = this->repair(this->file.text(), {"-D"});
    EXPECT_EQ(run.log, this->log_with(key_log(this->super), {this->not_written()}));
    EXPECT_EQ(run.errors, run.log);
}

TYPED_TEST(SuperParse, RecordIsPrintedToStandardOutputAndNeverToTheOutputFile)
{
    const std::string out = this->device.directory().path("out");
    EXPECT_EQ(this->repair(this->file.text(), {"-o", out}).out, json(this->super));
    EXPECT_EQ(read_file(out), "");
}

TYPED_TEST(SuperParse, TopLevelWithoutKeys)
{
    for (const std::string document : {"{}", "[]", "[1,2]", "17", "\"text\"", "null"}) {
        SCOPED_TRACE(document);
        const std::string &first = super_table(this->super).keys.front().name;
        this->expect_refused_with(document, "parse " + first + " failed");
    }
}

TYPED_TEST(SuperParse, DumpedLineGivesTheSameBlockAgain)
{
    for (const std::uint64_t ctime : {std::uint64_t{0}, std::uint64_t{1'600'000'000'000'000'000},
                                      std::uint64_t{0x123456789}, ~std::uint64_t{0}}) {
        SCOPED_TRACE(ctime);
        this->super.ctime = ctime;
        this->device.write(SUPER_OFFSET, encode(this->super));
        const LoggedRun dump = run_logged(this->device, "dump_super");
        ASSERT_EQ(dump.out, json(this->super));
        this->device.write(SUPER_OFFSET, encode(this->old_super));
        EXPECT_EQ(this->repair(dump.out, {"-y"}).status, 0);
        EXPECT_EQ(this->device.block(SUPER_OFFSET), encode(this->super));
    }
}

TYPED_TEST(SuperParse, BlankDeviceIsRepairedWithTheVersionForced)
{
    this->device.write(SUPER_OFFSET, Block{});
    EXPECT_EQ(this->repair(this->file.text(), {"-y"}).status, 14);
    EXPECT_EQ(this->device.block(SUPER_OFFSET), Block{});
    this->expect_accepted(this->file.text(), this->super, {"-v", this->version});
}

using SuperV2Parse = SuperParse<SuperV2>;

TEST_F(SuperV2Parse, NothingIsReadAfterAnotherVersion)
{
    file.string("version", "0x10000").set("exp_inode_cnt", "\"none\"").erase("min_alloc_size");
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{}, std::vector<std::string>{"-F"}})
        expect_refused_with(file.text(), "version 65536 is invalid, cmd:9", args);
}

using SuperV3Parse = SuperParse<SuperV3>;

TEST_F(SuperV3Parse, KeysOfTheOtherLayoutsStandForNothing)
{
    for (const auto &[key, other] :
         {std::pair{"shard_table_cnt", "shard_cnt"}, std::pair{"extent_table_cnt", "extent_cnt"},
          std::pair{"brick_cnt", "brick_table_cnt"}, std::pair{"inode_cnt", "inode_table_cnt"},
          std::pair{"data_table_size", "data_size"}, std::pair{"reserved", "sb_reserved"},
          std::pair{"super block size", "sb_size"}}) {
        SCOPED_TRACE(other);
        RepairFile renamed = file;
        renamed.rename(key, other);
        expect_refused_with(renamed.text(), std::string("parse ") + key + " failed");
    }
}

} // namespace
