// The inode table of layout version 1 as it is shown.

#include "table_dump.h"

#include <cctype>

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(InodeV1, TableDump, InodeV1);

} // namespace tier_test

namespace {

using InodeV1Dump = TableDump<InodeV1>;

TEST_F(InodeV1Dump, LargestValues)
{
    InodeV1 inode = inode_used(3, 0xFFFFFFFF);
    for (const auto field : {&InodeV1::atime, &InodeV1::ctime, &InodeV1::mtime, &InodeV1::dtime,
                             &InodeV1::size, &InodeV1::reserved1, &InodeV1::reserved2})
        inode.*field = ~std::uint64_t{0};
    inode.priority = 0xFFFFFFFF;
    inode.unlink = 0xFFFF;
    inode.use = 0xFFFF;
    inode.uuid.fill(0xFF);
    put(3, inode);
    expect_walk();
}

TEST_F(InodeV1Dump, TimesAreLocalAndDropTheFractionOfASecond)
{
    InodeV1 inode = inode_used(0, 0);
    inode.atime = 0;
    inode.ctime = 999'999'999;
    inode.mtime = 1'000'000'000;
    inode.dtime = 1'500'000'000'999'999'999;
    put(0, inode);
    expect_walk();

    RunOptions nine_hours_east;
    nine_hours_east.environment = {{"TZ", "EAST-9"}};
    const std::string times = R"("atime":"1970-01-01 09:00:00","ctime":"1970-01-01 09:00:00",)"
                              R"("mtime":"1970-01-01 09:00:01","dtime":"2017-07-14 11:40:00",)";
    const LoggedRun run = run_logged(device, "dump_inode", {"-n", "0"}, nine_hours_east);
    EXPECT_NE(run.out.find(times), std::string::npos) << run;
}

TEST_F(InodeV1Dump, OwnerZeroShowsNoFreeInode)
{
    put(2, inode_used(2, 0));
    put(4, inode_used(4, 1));
    EXPECT_EQ(run_logged(device, "dump_inode", {"-g", "owner=0"}).out, json_array({item(2)}));
    EXPECT_EQ(run_logged(device, "dump_inode", {"-g", "owner=0,use=0"}).out, "[]");
}

TEST_F(InodeV1Dump, IdIsTheLowerCaseUuid)
{
    InodeV1 inode = inode_used(2, 0);
    put(2, inode);
    const std::string lower = uuid_text(inode.uuid);
    std::string upper = lower;
    for (char &c : upper)
        c = static_cast<char>(std::toupper(c));
    ASSERT_NE(lower, upper);
    for (const std::string &id : {lower, upper, lower + " ", std::string("nil")}) {
        SCOPED_TRACE(id);
        expect_walk({.id = id});
    }
}

TEST_F(InodeV1Dump, IdOfFreeInodesIsTheNilUuid)
{
    put(2, inode_used(2, 0));
    expect_walk({.id = uuid_text(Uuid{})});
}

} // namespace
