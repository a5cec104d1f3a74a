// Repairs from the files of super blocks: what is logged, printed and written.

#include "super_parse.h"
#include "super_values.h"

using namespace tier_test;

namespace {

template <class Super>
class SuperParse : public SuperParseFixture<Super> {
};

TYPED_TEST_SUITE(SuperParse, Supers, SuperNames);

TYPED_TEST(SuperParse, AcceptedKeysAreLoggedInOrder)
{
    const std::size_t count = this->keys.size();
    expect_run(this->repair(this->file.text(), {}),
               {.status = 0,
                .out = json(this->super),
                .log = this->log_of_keys(this->super, count, {this->not_written()})});
    expect_run(
        this->repair(this->file.text(), {"-y"}),
        {.status = 0, .out = json(this->super), .log = this->log_of_keys(this->super, count, {})});
}

TYPED_TEST(SuperParse, DebugModeShowsTheKeysOnStandardError)
{
    const LoggedRun run = this->repair(this->file.text(), {"-D"});
    EXPECT_EQ(run.log, this->log_of_keys(this->super, this->keys.size(), {this->not_written()}));
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
        const std::string &first = this->keys.front().name;
        this->expect_refused_at(first, document, "parse " + first + " failed");
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

} // namespace
