// dump_super of all layouts, and which super blocks each accepts.

#include "expect.h"
#include "layout.h"
#include "probe_log.h"
#include "super_values.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

template <class Super>
class SuperDump : public testing::Test {
protected:
    const std::string version = Layout<Super>::VERSION;
    const int number = std::stoi(version);
    Device device{MIB};

    static Super ordinary() { return Layout<Super>::super(1, 1, 1); }

    void expect_dump(const Super &sb)
    {
        device.write(SUPER_OFFSET, encode(sb));
        expect_run(run_logged(device, "dump_super"),
                   {.status = 0, .out = json(sb), .log = probe_log(device, "dump_super", number)});
    }

    void expect_not_accepted(const Block &block)
    {
        device.write(SUPER_OFFSET, block);
        const LoggedRun run = run_logged(device, "dump_super");
        EXPECT_EQ(run.status, 14);
        EXPECT_EQ(run.out, "");
        const Log head = probe_log(device, "dump_super", number + 1);
        ASSERT_GE(run.log.size(), head.size());
        EXPECT_EQ(Log(run.log.begin(), run.log.begin() + number + 1), head);
    }
};

TYPED_TEST_SUITE(SuperDump, Supers, SuperNames);

TYPED_TEST(SuperDump, LineOfAnOrdinaryDevice)
{
    this->expect_dump(Layout<TypeParam>::super(3, 100, 1000));
}

TYPED_TEST(SuperDump, LargestAndSmallestFields)
{
    this->expect_dump(largest_super<TypeParam>());
    this->expect_dump(smallest_super<TypeParam>());
}

TYPED_TEST(SuperDump, EveryFieldHasItsOwnPlace) { this->expect_dump(numbered_super<TypeParam>()); }

TYPED_TEST(SuperDump, SsdUuidIsShownAsStored)
{
    TypeParam sb = this->ordinary();
    for (const std::size_t length : {1U, 37U, 47U}) {
        sb.ssd_uuid = std::string(length, 's');
        this->expect_dump(sb);
    }
    sb.ssd_uuid = R"(a"b\c%d)"; // neither escaped nor taken as a format
    this->expect_dump(sb);
}

TYPED_TEST(SuperDump, TimesAreLocal)
{
    TypeParam sb = this->ordinary();
    sb.ctime = 86'399'999'999'999U; // the fraction of a second is dropped
    this->device.write(SUPER_OFFSET, encode(sb));
    const LoggedRun run =
        run_logged(this->device, "dump_super", {}, {.environment = {{"TZ", "EAST-5:30"}}});
    EXPECT_NE(run.out.find("\"ctime\":\"0x4e94914effff(1970-01-02 05:29:59)\""), std::string::npos)
        << run.out;
}

TYPED_TEST(SuperDump, BytesBehindTheRecordDoNotMatter)
{
    const TypeParam sb = this->ordinary();
    Block block = encode(sb);
    for (std::size_t i = TypeParam::LENGTH; i < block.size(); ++i)
        block[i] = 0xCC;
    this->device.write(SUPER_OFFSET, block);
    EXPECT_EQ(run_logged(this->device, "dump_super").out, json(sb));
}

TYPED_TEST(SuperDump, OutputFileTakesTheLine)
{
    const TypeParam sb = this->ordinary();
    this->device.write(SUPER_OFFSET, encode(sb));
    const std::string out = this->device.directory().path("out");
    EXPECT_EQ(run_logged(this->device, "dump_super", {"-o", out}).out, "");
    EXPECT_EQ(read_file(out), json(sb));
}

TYPED_TEST(SuperDump, MagicVersionAndEveryBitOfTheChecksumCount)
{
    TypeParam sb = this->ordinary();
    sb.magic ^= 1U;
    this->expect_not_accepted(encode(sb));
    sb = this->ordinary();
    sb.version ^= 1U;
    this->expect_not_accepted(encode(sb));
    for (std::size_t bit = 0; bit < 32; ++bit) {
        SCOPED_TRACE(bit);
        Block block = encode(this->ordinary());
        block[bit / 8] = static_cast<std::uint8_t>(block[bit / 8] ^ (1U << bit % 8));
        this->expect_not_accepted(block);
    }
}

TYPED_TEST(SuperDump, ChecksumCoversTheRecordFromMagicToItsEnd)
{
    const Block good = encode(this->ordinary());
    for (std::size_t at = 4; at < TypeParam::LENGTH; ++at) {
        SCOPED_TRACE(at);
        Block block = good;
        block[at] ^= 0x10;
        this->expect_not_accepted(block);
    }
}

// The records of the layouts differ in length.
TYPED_TEST(SuperDump, ChecksumOverAnotherLengthIsNotAccepted)
{
    for (const std::size_t length : {TypeParam::LENGTH - 4, TypeParam::LENGTH + 4}) {
        SCOPED_TRACE(length);
        Block block = encode(this->ordinary());
        seal(block, length);
        this->expect_not_accepted(block);
    }
}

TYPED_TEST(SuperDump, ForcedVersionHasNoSuperBlockToShow)
{
    this->device.write(SUPER_OFFSET, encode(this->ordinary()));
    expect_run(
        run_logged(this->device, "dump_super", {"-v", this->version}),
        {.status = 22,
         .out = "",
         .log = probe_log(this->device, "dump_super", this->number, {.spec_ver = this->number})});
}

} // namespace
