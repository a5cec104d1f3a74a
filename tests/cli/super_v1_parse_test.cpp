// The keys of a V1 super block's repair file: which are needed, and how values are converted.

#include "super_v1_repair.h"

#include <algorithm>
#include <cctype>

using namespace tier_test;

namespace {

constexpr std::uint64_t BIT_63 = std::uint64_t{1} << 63;

class SuperV1Parse : public SuperV1Repair {
protected:
    SuperV1 super = super_v1(3, 3, 3);
    RepairFile file = repair_file(super);
    std::vector<SuperKey> keys = super_keys(super);

    std::size_t keys_before(const std::string &name) const
    {
        return static_cast<std::size_t>(std::ranges::find(keys, name, &SuperKey::name) -
                                        keys.begin());
    }

    // The parse ends at `key` with this message.
    void expect_refused_at(const std::string &key, const std::string &conf_text,
                           const std::string &message, const std::vector<std::string> &args = {})
    {
        expect_refused(conf_text,
                       log_of_keys(super, keys_before(key),
                                   {error_line("parse_sb_from_json_v1", message), rejected()}),
                       args);
    }

    // Forced, the file is accepted and the log says this of the key.
    void expect_logged(const std::string &key, const std::string &value, const SuperV1 &stored,
                       const std::string &logged)
    {
        SCOPED_TRACE(key + ": " + value);
        RepairFile changed = file;
        changed.set(key, value);
        const Log log = expect_accepted(changed.text(), stored, {"-F"});
        ASSERT_EQ(log.size(), 1 + keys.size());
        EXPECT_EQ(log[1 + keys_before(key)],
                  debug_line("parse_sb_from_json_v1", key + ": " + logged));
    }
};

TEST_F(SuperV1Parse, AcceptedKeysAreLoggedInOrder)
{
    const LogLine not_written = debug_line(
        "zutr_repair_common", "'commit' flag not set, won't write dev. cmd:9, conf:" + conf());
    expect_run(repair(file.text(), {}),
               {.status = 0, .out = json(super), .log = log_of_keys(super, 14, {not_written})});
    expect_run(repair(file.text(), {"-y"}),
               {.status = 0, .out = json(super), .log = log_of_keys(super, 14, {})});
}

TEST_F(SuperV1Parse, DebugModeShowsTheKeysOnStandardError)
{
    const LoggedRun run = repair(file.text(), {"-D"});
    EXPECT_EQ(run.log.size(), 16U);
    EXPECT_EQ(run.errors, run.log);
}

TEST_F(SuperV1Parse, RecordIsPrintedToStandardOutputAndNeverToTheOutputFile)
{
    const std::string out = device.directory().path("out");
    EXPECT_EQ(repair(file.text(), {"-o", out}).out, json(super));
    EXPECT_EQ(read_file(out), "");
}

TEST_F(SuperV1Parse, EveryKeyIsRequired)
{
    for (const SuperKey &key : keys) {
        SCOPED_TRACE(key.name);
        RepairFile without = file;
        without.erase(key.name);
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{}, std::vector<std::string>{"-F"}})
            expect_refused_at(key.name, without.text(), "parse " + key.name + " failed", args);
    }
}

TEST_F(SuperV1Parse, EveryKeyHasItsType)
{
    for (const SuperKey &key : keys) {
        const bool is_text = key.value.front() == '"';
        const std::string other = is_text ? "65536" : json_string(key.value);
        for (const std::string &value :
             {other, std::string("null"), std::string("true"), std::string("false"),
              std::string("[1]"), std::string(R"({"a":1})")}) {
            SCOPED_TRACE(key.name + ": " + value);
            RepairFile mistyped = file;
            mistyped.set(key.name, value);
            expect_refused_at(key.name, mistyped.text(), "parse " + key.name + " failed");
        }
    }
}

TEST_F(SuperV1Parse, TopLevelWithoutKeys)
{
    for (const std::string document : {"{}", "[]", "[1,2]", "17", "\"text\"", "null"}) {
        SCOPED_TRACE(document);
        expect_refused_at("brick_table_size", document, "parse brick_table_size failed");
    }
}

TEST_F(SuperV1Parse, KeysInAnyOrderAndCaseAndTheFirstOfTwoWins)
{
    RepairFile reversed;
    std::for_each(keys.rbegin(), keys.rend(),
                  [&](const SuperKey &key) { reversed.set(key.name, key.value); });
    expect_accepted(reversed.text(), super);

    RepairFile upper = file;
    upper.rename("brick_cnt", "BRICK_CNT").rename("super block size", "Super Block Size");
    expect_accepted(upper.text(), super);

    RepairFile twice = file;
    twice.set("Brick_Cnt", "77").set("UUID", "\"none\"");
    expect_accepted(twice.text(), super);
}

TEST_F(SuperV1Parse, ChecksumMagicAndReservedAreIgnored)
{
    for (const std::string value : {"1", "\"0x1\"", "[]", "null"}) {
        RepairFile more = file;
        more.set("checksum", value).set("magic", value).set("sb_reserved", value);
        expect_accepted(more.text(), super);
    }
}

TEST_F(SuperV1Parse, DumpedLineGivesTheSameBlockAgain)
{
    for (const std::uint64_t ctime : {std::uint64_t{0}, std::uint64_t{1'600'000'000'000'000'000},
                                      std::uint64_t{0x123456789}, ~std::uint64_t{0}}) {
        SCOPED_TRACE(ctime);
        super.ctime = ctime;
        device.write(SUPER_OFFSET, encode(super));
        const LoggedRun dump = run_logged(device, "dump_super");
        ASSERT_EQ(dump.out, json(super));
        device.write(SUPER_OFFSET, encode(old_super));
        EXPECT_EQ(repair(dump.out, {"-y"}).status, 0);
        EXPECT_EQ(device.block(SUPER_OFFSET), encode(super));
    }
}

TEST_F(SuperV1Parse, ReservedOfADumpedLineBecomesZero)
{
    SuperV1 dumped = super;
    dumped.reserved = 99;
    expect_accepted(json(dumped), super);
}

TEST_F(SuperV1Parse, BlankDeviceIsRepairedWithTheVersionForced)
{
    device.write(SUPER_OFFSET, Block{});
    EXPECT_EQ(repair(file.text(), {"-y"}).status, 14);
    EXPECT_EQ(device.block(SUPER_OFFSET), Block{});
    expect_accepted(file.text(), super, {"-v", "1"});
}

struct NumberCase {
    std::string value;
    std::uint64_t wide;   // in a field of 64 bits
    std::uint32_t narrow; // in a field of 32 bits
};

TEST_F(SuperV1Parse, NumbersKeep64BitsAndNarrowFieldsTheLow32)
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
    const std::vector<std::pair<std::string, std::uint64_t SuperV1::*>> wide{
        {"brick_table_size", &SuperV1::brick_table_size},
        {"inode_table_size", &SuperV1::inode_table_size},
        {"extent_table_size", &SuperV1::extent_table_size},
        {"data_offset", &SuperV1::data_offset}};
    const std::vector<std::pair<std::string, std::uint32_t SuperV1::*>> narrow{
        {"super block size", &SuperV1::size}, {"brick_cnt", &SuperV1::brick_cnt},
        {"inode_cnt", &SuperV1::inode_cnt},   {"block_size", &SuperV1::block_size},
        {"block_cnt", &SuperV1::block_cnt},   {"extent_size", &SuperV1::extent_size}};
    for (const NumberCase &number : cases) {
        for (const auto &[key, field] : wide) {
            SuperV1 stored = super;
            stored.*field = number.wide;
            expect_logged(key, number.value, stored, std::to_string(number.wide));
        }
        for (const auto &[key, field] : narrow) {
            SuperV1 stored = super;
            stored.*field = number.narrow;
            expect_logged(key, number.value, stored, std::to_string(number.narrow));
        }
    }
}

struct CtimeCase {
    std::string given;
    std::uint64_t value;
};

TEST_F(SuperV1Parse, CtimeIsHexadecimalInItsFirst18Characters)
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
        SuperV1 stored = super;
        stored.ctime = ctime.value;
        expect_logged("ctime", json_string(ctime.given), stored, ctime.given.substr(0, 18));
    }
}

TEST_F(SuperV1Parse, CtimeOutOfRangeIsRefused)
{
    for (const std::string given : {"10000000000000000", "fffffffffffffffffffff"}) {
        file.string("ctime", given);
        expect_refused_at("ctime", file.text(),
                          "ctime " + given.substr(0, 18) +
                              " is invalid:Numerical result out of range. cmd:9",
                          {"-F"});
    }
}

TEST_F(SuperV1Parse, UuidIsReadInAnyCaseAndLoggedInLowerCase)
{
    const std::string lower = uuid_text(super.uuid);
    std::string upper = lower;
    std::ranges::transform(upper, upper.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    ASSERT_NE(upper, lower);
    expect_logged("uuid", json_string(upper), super, lower);

    SuperV1 nil = super;
    nil.uuid.fill(0);
    expect_logged("uuid", json_string(uuid_text(nil.uuid)), nil, uuid_text(nil.uuid));
}

TEST_F(SuperV1Parse, MalformedUuidsAreRefused)
{
    const std::string good = uuid_text(super.uuid);
    for (const std::string &uuid :
         {std::string(), good.substr(1), text("%s0", good.c_str()), text(" %s", good.c_str()),
          text("g%s", good.c_str() + 1), std::string(36, 'a'), text("{%s}", good.c_str())}) {
        SCOPED_TRACE(uuid);
        RepairFile changed = file;
        changed.string("uuid", uuid);
        expect_refused_at("uuid", changed.text(), "parse uuid " + uuid + " failed:-1", {"-F"});
    }
}

TEST_F(SuperV1Parse, SsdUuidKeeps47Characters)
{
    std::string long_text;
    for (char c = '0'; long_text.size() < 60; ++c)
        long_text += c == '"' || c == '\\' ? '_' : c;
    for (const std::size_t length : {0U, 1U, 46U, 47U, 48U, 60U}) {
        SuperV1 stored = super;
        stored.ssd_uuid = long_text.substr(0, std::min<std::size_t>(length, 47));
        expect_logged("ssd_uuid", json_string(long_text.substr(0, length)), stored,
                      stored.ssd_uuid);
    }
}

TEST_F(SuperV1Parse, VersionIsHexadecimal10000)
{
    const std::string longest = std::string(26, '0') + "10000"; // 31 characters
    for (const std::string &version :
         {std::string("10000"), std::string("0x10000"), std::string("0X10000"),
          std::string("0010000"), std::string("10000 and more"), std::string("0x10000)"), longest,
          longest + "0"})
        expect_logged("version", json_string(version), super, version.substr(0, 31));
}

TEST_F(SuperV1Parse, AnyOtherVersionIsRefusedEvenWithForce)
{
    const std::string range = "Numerical result out of range";
    const std::vector<std::pair<std::string, std::string>> cases{
        {"0x20000", "Success"},
        {"0x30000", "Success"},
        {"0x10001", "Success"},
        {"65536", "Success"},
        {"", "Success"},
        {"version", "Success"},
        {"100000000000010000", range},
        {std::string(40, '1'), range},
        {"100010000", "Success"}, // right in its low 32 bits
    };
    for (const auto &[version, reason] : cases) {
        SCOPED_TRACE(version);
        RepairFile changed = file;
        changed.string("version", version);
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{}, std::vector<std::string>{"-F"}})
            expect_refused_at(
                "version", changed.text(),
                "version str " + version.substr(0, 31) + " is invalid:" + reason + ". cmd:9", args);
    }
}

} // namespace
