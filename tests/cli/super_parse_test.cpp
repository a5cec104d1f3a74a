// The keys of a super block's repair file: which are needed, and how values are converted.

#include "super_parse.h"
#include "super_values.h"

#include <algorithm>
#include <cctype>

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

TYPED_TEST(SuperParse, EveryKeyIsRequired)
{
    for (const SuperKey &key : this->keys) {
        SCOPED_TRACE(key.name);
        RepairFile without = this->file;
        without.erase(key.name);
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{}, std::vector<std::string>{"-F"}})
            this->expect_refused_at(key.name, without.text(), "parse " + key.name + " failed",
                                    args);
    }
}

TYPED_TEST(SuperParse, EveryKeyHasItsType)
{
    for (const SuperKey &key : this->keys) {
        const bool is_text = key.value.front() == '"';
        const std::string other = is_text ? "65536" : json_string(key.value);
        for (const std::string &value :
             {other, std::string("null"), std::string("true"), std::string("false"),
              std::string("[1]"), std::string(R"({"a":1})")}) {
            SCOPED_TRACE(key.name + ": " + value);
            RepairFile mistyped = this->file;
            mistyped.set(key.name, value);
            this->expect_refused_at(key.name, mistyped.text(), "parse " + key.name + " failed");
        }
    }
}

TYPED_TEST(SuperParse, TopLevelWithoutKeys)
{
    for (const std::string document : {"{}", "[]", "[1,2]", "17", "\"text\"", "null"}) {
        SCOPED_TRACE(document);
        const std::string &first = this->keys.front().name;
        this->expect_refused_at(first, document, "parse " + first + " failed");
    }
}

TYPED_TEST(SuperParse, KeysInAnyOrderAndCaseAndTheFirstOfTwoWins)
{
    RepairFile reversed;
    std::for_each(this->keys.rbegin(), this->keys.rend(),
                  [&](const SuperKey &key) { reversed.set(key.name, key.value); });
    this->expect_accepted(reversed.text(), this->super);

    RepairFile upper = this->file;
    upper.rename("brick_cnt", "BRICK_CNT").rename("super block size", "Super Block Size");
    this->expect_accepted(upper.text(), this->super);

    RepairFile twice = this->file;
    twice.set("Brick_Cnt", "77").set("UUID", "\"none\"");
    this->expect_accepted(twice.text(), this->super);
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

struct NumberCase {
    std::string value;
    std::uint64_t wide;   // in a field of 64 bits
    std::uint32_t narrow; // in a field of 32 bits
};

TYPED_TEST(SuperParse, NumbersKeep64BitsAndNarrowFieldsTheLow32)
{
    const std::vector<NumberCase> cases{
        {"0", 0, 0},
        {"1.9", 1, 1},
        {"0.999", 0, 0},
        {"-0.5", 0, 0},
        {"1e3", 1000, 1000},
        {"4294967295", 0xFFFFFFFF, 0xFFFFFFFF},
        {"4294967297", 0x1'0000'0001, 1},
        {"1e10", 10'000'000'000, 1'410'065'408},
        {"9007199254740993", 0x20'0000'0000'0001, 1}, // 2^53 + 1
        {"9223372036854775807", BIT_63 - 1, 0xFFFFFFFF},
        {"9223372036854775807.5", BIT_63 - 1, 0xFFFFFFFF},
        {"9223372036854775808", BIT_63, 0},
        {"9223372036854775809", BIT_63 + 1, 0},
        {"18446744073709551615", ~std::uint64_t{0}, 0},
        {"18446744073709551616", BIT_63, 0}, // out of range
        {"1e30", BIT_63, 0},
        {"-1", ~std::uint64_t{0}, 0xFFFFFFFF},
        {"-1.9", ~std::uint64_t{0}, 0xFFFFFFFF},
        {"-4294967297", 0xFFFF'FFFE'FFFF'FFFF, 0xFFFFFFFF},
        {"-9223372036854775808", BIT_63, 0},
        {"-1e30", BIT_63, 0},
    };
    for (const NumberCase &number : cases) {
        SCOPED_TRACE(number.value);
        TypeParam stored = this->super;
        RepairFile numbers = this->file;
        for (const auto &[key, field] : wide_fields(stored)) {
            stored.*field = number.wide;
            numbers.set(key, number.value);
        }
        for (const auto &[key, field] : word_fields(stored)) {
            stored.*field = number.narrow;
            numbers.set(key, number.value);
        }
        derive(stored);
        const Log expected = this->log_of_keys(stored, this->keys.size(), {});
        EXPECT_EQ(this->expect_accepted(numbers.text(), stored, {"-F"}), expected);
    }
}

TYPED_TEST(SuperParse, EveryKeyFillsItsOwnField)
{
    TypeParam stored = this->super;
    std::uint64_t last = 10;
    for (const auto &[key, field] : wide_fields(stored))
        stored.*field = ++last;
    for (const auto &[key, field] : word_fields(stored))
        stored.*field = static_cast<std::uint32_t>(++last);
    derive(stored);
    this->expect_accepted(repair_file(stored).text(), stored, {"-F"});
}

struct CtimeCase {
    std::string given;
    std::uint64_t value;
};

TYPED_TEST(SuperParse, CtimeIsHexadecimalInItsFirst18Characters)
{
    const std::vector<CtimeCase> cases{
        {"0x16345785dffbcd15(2020-09-13 12:26:40)", 0x16345785dffbcd15},
        {"0x5f5e1000(1970-01-01 00:00:01)", 0x5f5e1000},
        {"0x0(1970-01-01 00:00:00)", 0},
        {"16345785DFFBCD15", 0x16345785dffbcd15},
        {"0XfFfF", 0xffff},
        {"10", 0x10},
        {" 10", 0x10},
        {"12 34", 0x12},
        {"1fg2", 0x1f},
        {"0xffffffffffffffff", ~std::uint64_t{0}},
        {"0x123456789abcdef012", 0x123456789abcdef0}, // cut off
        {"000123456789abcdef99", 0x123456789abcdef},
        {"", 0},
        {"none", 0},
    };
    for (const CtimeCase &ctime : cases) {
        TypeParam stored = this->super;
        stored.ctime = ctime.value;
        this->expect_logged("ctime", json_string(ctime.given), stored, ctime.given.substr(0, 18));
    }
}

TYPED_TEST(SuperParse, CtimeOutOfRangeIsRefused)
{
    for (const std::string given : {"10000000000000000", "fffffffffffffffffffff"}) {
        this->file.string("ctime", given);
        this->expect_refused_at("ctime", this->file.text(),
                                "ctime " + given.substr(0, 18) +
                                    " is invalid:Numerical result out of range. cmd:9",
                                {"-F"});
    }
}

TYPED_TEST(SuperParse, UuidIsReadInAnyCaseAndLoggedInLowerCase)
{
    const std::string lower = uuid_text(this->super.uuid);
    std::string upper = lower;
    std::ranges::transform(upper, upper.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    ASSERT_NE(upper, lower);
    this->expect_logged("uuid", json_string(upper), this->super, lower);

    TypeParam nil = this->super;
    nil.uuid.fill(0);
    this->expect_logged("uuid", json_string(uuid_text(nil.uuid)), nil, uuid_text(nil.uuid));
}

TYPED_TEST(SuperParse, MalformedUuidsAreRefused)
{
    const std::string good = uuid_text(this->super.uuid);
    for (const std::string &uuid :
         {std::string(), good.substr(1), text("%s0", good.c_str()), text(" %s", good.c_str()),
          text("g%s", good.c_str() + 1), std::string(36, 'a'), text("{%s}", good.c_str())}) {
        SCOPED_TRACE(uuid);
        RepairFile changed = this->file;
        changed.string("uuid", uuid);
        this->expect_refused_at("uuid", changed.text(), "parse uuid " + uuid + " failed:-1",
                                {"-F"});
    }
}

TYPED_TEST(SuperParse, SsdUuidKeeps47Characters)
{
    std::string long_text;
    for (char c = '0'; long_text.size() < 60; ++c)
        long_text += c == '"' || c == '\\' ? '_' : c;
    for (const std::size_t length : {0U, 1U, 46U, 47U, 48U, 60U}) {
        TypeParam stored = this->super;
        stored.ssd_uuid = long_text.substr(0, std::min<std::size_t>(length, 47));
        this->expect_logged("ssd_uuid", json_string(long_text.substr(0, length)), stored,
                            stored.ssd_uuid);
    }
}

} // namespace
