// The inode tables of all layouts as they are shown.

#include "table.h"
#include "table_dump.h"

#include <cctype>

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(Inode, TableDump, InodeTables, LayoutNames);

} // namespace tier_test

namespace {

template <class T>
class InodeDump : public TableDump<T> {
};

TYPED_TEST_SUITE(InodeDump, InodeTables, LayoutNames);

TYPED_TEST(InodeDump, LargestValues)
{
    auto inode = this->table.used(3, 0xFFFFFFFF);
    for (const auto field :
         {&InodeV1::atime, &InodeV1::ctime, &InodeV1::mtime, &InodeV1::dtime, &InodeV1::size})
        inode.*field = ~std::uint64_t{0};
    inode.priority = 0xFFFFFFFF;
    inode.unlink = 0xFFFF;
    inode.use = 0xFFFF;
    inode.uuid.fill(0xFF);
    this->put(3, inode);
    this->expect_walk();
}

TYPED_TEST(InodeDump, TimesAreLocalAndDropTheFractionOfASecond)
{
    auto inode = this->table.used(0, 0);
    inode.atime = 0;
    inode.ctime = 999'999'999;
    inode.mtime = 1'000'000'000;
    inode.dtime = 1'500'000'000'999'999'999;
    this->put(0, inode);
    this->expect_walk();

    RunOptions nine_hours_east;
    nine_hours_east.environment = {{"TZ", "EAST-9"}};
    const std::string times = R"("atime":"1970-01-01 09:00:00","ctime":"1970-01-01 09:00:00",)"
                              R"("mtime":"1970-01-01 09:00:01","dtime":"2017-07-14 11:40:00",)";
    const LoggedRun run = run_logged(this->device, "dump_inode", {"-n", "0"}, nine_hours_east);
    EXPECT_NE(run.out.find(times), std::string::npos) << run;
}

TYPED_TEST(InodeDump, OwnerZeroShowsNoFreeInode)
{
    this->put(2, this->table.used(2, 0));
    this->put(4, this->table.used(4, 1));
    EXPECT_EQ(run_logged(this->device, "dump_inode", {"-g", "owner=0"}).out,
              this->walked({this->item(2)}));
    EXPECT_EQ(run_logged(this->device, "dump_inode", {"-g", "owner=0,use=0"}).out,
              this->walked({}));
}

TYPED_TEST(InodeDump, IdIsTheLowerCaseUuid)
{
    const auto inode = this->table.used(2, 0);
    this->put(2, inode);
    const std::string lower = uuid_text(inode.uuid);
    std::string upper = lower;
    for (char &c : upper)
        c = static_cast<char>(std::toupper(c));
    ASSERT_NE(lower, upper);
    for (const std::string &id : {lower, upper, lower + " ", std::string("nil")}) {
        SCOPED_TRACE(id);
        this->expect_walk({.id = id});
    }
}

TYPED_TEST(InodeDump, IdOfFreeInodesIsTheNilUuid)
{
    this->put(2, this->table.used(2, 0));
    this->expect_walk({.id = uuid_text(Uuid{})});
}

} // namespace
