// The version of a V1 super block's repair file, and the keys that it does not read.

#include "super_parse.h"

using namespace tier_test;

namespace {

class SuperV1Parse : public SuperParseFixture<SuperV1> {};

TEST_F(SuperV1Parse, ChecksumMagicAndReservedAreIgnored)
{
    for (const std::string value : {"1", "\"0x1\"", "[]", "null"}) {
        RepairFile more = file;
        more.set("checksum", value).set("magic", value).set("sb_reserved", value);
        expect_accepted(more.text(), super);
    }
}

TEST_F(SuperV1Parse, ReservedOfADumpedLineBecomesZero)
{
    SuperV1 dumped = super;
    dumped.reserved = 99;
    expect_accepted(json(dumped), super);
}

TEST_F(SuperV1Parse, VersionIsHexadecimal10000)
{
    const std::string longest = std::string(26, '0') + "10000"; // 31 characters
    for (const std::string &given :
         {std::string("10000"), std::string("0x10000"), std::string("0X10000"),
          std::string("0010000"), std::string("10000 and more"), std::string("0x10000)"), longest,
          longest + "0"})
        expect_logged("version", json_string(given), super, given.substr(0, 31));
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
    for (const auto &[given, reason] : cases) {
        SCOPED_TRACE(given);
        RepairFile changed = file;
        changed.string("version", given);
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{}, std::vector<std::string>{"-F"}})
            expect_refused_at(
                "version", changed.text(),
                "version str " + given.substr(0, 31) + " is invalid:" + reason + ". cmd:9", args);
    }
}

} // namespace
