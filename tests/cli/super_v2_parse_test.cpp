// The version of a V2 super block's repair file, and the keys that it does not read.

#include "super_parse.h"

using namespace tier_test;

namespace {

class SuperV2Parse : public SuperParseFixture<SuperV2> {
protected:
    // The head's keys with this text as the version, which is refused after them.
    void expect_version_refused(RepairFile changed, const std::string &given, std::uint32_t value)
    {
        std::vector<SuperKey> head{keys.begin(), keys.begin() + 14};
        head[7].logged = given.substr(0, 31);
        Log log = log_of_keys(super, 0, key_log(head, 14));
        log.push_back(error_line(parser, text("version %u is invalid, cmd:9", value)));
        log.push_back(rejected());
        changed.string("version", given);
        expect_refused(changed.text(), log);
        expect_refused(changed.text(), log, {"-F"});
    }
};

TEST_F(SuperV2Parse, KeysOfADumpedLineThatAreNotRead)
{
    for (const std::string value : {"1", "\"0x1\"", "[]", "null"}) {
        RepairFile more = file;
        for (const char *name : {"checksum", "magic", "sb_inode_exp_area", "total_extent_size"})
            more.set(name, value);
        EXPECT_EQ(expect_accepted(more.text(), super), log_of_keys(super, keys.size(), {}));
    }
}

TEST_F(SuperV2Parse, SumOfTheExtentSizesIsFormedAnewIn32Bits)
{
    file.number("total_extent_size", 77);
    for (const std::uint32_t hot_size : {0U, 64U, 4096U, 0xFFFFFFFFU}) {
        SuperV2 stored = super;
        stored.hot_size = hot_size;
        stored.total_extent_size = 72 + 512 + hot_size;
        file.number("hot_size", hot_size);
        expect_accepted(file.text(), stored, {"-F"});
    }
}

TEST_F(SuperV2Parse, VersionIsHexadecimal20000InItsLow32Bits)
{
    const std::string longest = std::string(26, '0') + "20000"; // 31 characters
    for (const std::string &given :
         {std::string("20000"), std::string("0x20000"), std::string("0X20000"),
          std::string("0020000"), std::string("20000 and more"), std::string("0x20000)"),
          std::string("100020000"), longest, longest + "0"})
        expect_logged("version", json_string(given), super, given.substr(0, 31));
}

TEST_F(SuperV2Parse, AnyOtherVersionIsRefusedAfterTheKeysOfTheHead)
{
    const std::vector<std::pair<std::string, std::uint32_t>> versions{
        {"0x10000", 65536},
        {"0x30000", 0x30000},
        {"0x20001", 0x20001},
        {"131072", 0x131072},
        {"", 0},
        {"version", 0},
        {"ffffffffffffffff", 0xFFFFFFFF},
    };
    for (const auto &[given, value] : versions) {
        SCOPED_TRACE(given);
        expect_version_refused(file, given, value);
    }
    // What comes behind is not looked at.
    file.set("exp_inode_cnt", "\"none\"").erase("min_alloc_size");
    expect_version_refused(file, "0x10000", 65536);
}

TEST_F(SuperV2Parse, VersionOutOfRangeIsRefused)
{
    for (const std::string &given : {std::string("100000000000020000"), std::string(40, '2')}) {
        file.string("version", given);
        expect_refused_at("version", file.text(),
                          "version str " + given.substr(0, 31) +
                              " is invalid:Numerical result out of range. cmd:9",
                          {"-F"});
    }
}

} // namespace
