// The version of a V2 super block's repair file, and the keys that it does not read.

#include "super_parse.h"

using namespace tier_test;

namespace {

using SuperV2Parse = SuperParseFixture<SuperV2>;

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

TEST_F(SuperV2Parse, NothingIsReadAfterAnotherVersion)
{
    file.string("version", "0x10000").set("exp_inode_cnt", "\"none\"").erase("min_alloc_size");
    keys[7].logged = "0x10000";
    Log log = log_of_keys(super, 0, key_log(keys, 14));
    log.push_back(error_line(parser, "version 65536 is invalid, cmd:9"));
    log.push_back(rejected());
    expect_refused(file.text(), log);
    expect_refused(file.text(), log, {"-F"});
}

} // namespace
