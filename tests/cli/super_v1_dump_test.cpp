// dump_super of V1 devices, and which super blocks the layout accepts.

#include "expect.h"
#include "v1_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class SuperV1Dump : public testing::Test {
protected:
    Device device{MIB};

    void expect_dump(const SuperV1 &sb)
    {
        device.write(SUPER_OFFSET, encode(sb));
        expect_run(run_logged(device, "dump_super"),
                   {.status = 0, .out = json(sb), .log = {settings_line(device, "dump_super")}});
    }

    void expect_not_accepted(const Block &block)
    {
        device.write(SUPER_OFFSET, block);
        const LoggedRun run = run_logged(device, "dump_super");
        EXPECT_EQ(run.status, 14);
        EXPECT_EQ(run.out, "");
        ASSERT_GE(run.log.size(), 2U);
        EXPECT_EQ(run.log[1],
                  debug_line("__check_super_v1",
                             text("v1 check super block failed. magic:0x%x, ver:0x%x, "
                                  "cksum:0x%x:0x%x",
                                  get_u32(block, 4), get_u32(block, 112), get_u32(block, 0),
                                  record_crc(block, SuperV1::LENGTH))));
    }
};

TEST_F(SuperV1Dump, LineOfAnOrdinaryDevice)
{
    expect_dump(super_v1(3, 100, 1000));
}

TEST_F(SuperV1Dump, LargestAndSmallestFields)
{
    SuperV1 sb;
    sb.brick_table_size = sb.inode_table_size = 0xFFFF'FFFF'FFFF'FFFFU;
    sb.extent_table_size = sb.data_offset = sb.ctime = 0xFFFF'FFFF'FFFF'FFFEU;
    sb.uuid.fill(0xFF);
    sb.size = sb.brick_cnt = sb.inode_cnt = 0xFFFF'FFFFU;
    sb.block_size = sb.block_cnt = sb.extent_size = sb.reserved = 0xFFFF'FFFFU;
    expect_dump(sb);

    SuperV1 zero;
    zero.ctime = 0;
    zero.uuid.fill(0);
    zero.ssd_uuid = "";
    zero.size = zero.block_size = zero.extent_size = 0;
    expect_dump(zero);
}

TEST_F(SuperV1Dump, EveryFieldHasItsOwnPlace)
{
    SuperV1 sb = super_v1(1, 1, 1);
    sb.brick_table_size = 11;
    sb.inode_table_size = 12;
    sb.extent_table_size = 13;
    sb.data_offset = 14;
    sb.size = 15;
    sb.brick_cnt = 16;
    sb.inode_cnt = 17;
    sb.block_size = 18;
    sb.block_cnt = 19;
    sb.extent_size = 20;
    sb.reserved = 21;
    expect_dump(sb);
}

TEST_F(SuperV1Dump, SsdUuidIsShownAsStored)
{
    SuperV1 sb = super_v1(1, 1, 1);
    for (const std::size_t length : {1U, 37U, 47U}) {
        sb.ssd_uuid = std::string(length, 's');
        expect_dump(sb);
    }
    sb.ssd_uuid = R"(a"b\c%d)"; // neither escaped nor taken as a format
    expect_dump(sb);
}

TEST_F(SuperV1Dump, TimesAreLocal)
{
    SuperV1 sb = super_v1(1, 1, 1);
    sb.ctime = 86'399'999'999'999U; // the fraction of a second is dropped
    device.write(SUPER_OFFSET, encode(sb));
    const LoggedRun run =
        run_logged(device, "dump_super", {}, {.environment = {{"TZ", "EAST-5:30"}}});
    EXPECT_NE(run.out.find("\"ctime\":\"0x4e94914effff(1970-01-02 05:29:59)\""), std::string::npos)
        << run.out;
}

TEST_F(SuperV1Dump, BytesBehindTheRecordDoNotMatter)
{
    const SuperV1 sb = super_v1(1, 1, 1);
    Block block = encode(sb);
    for (std::size_t i = SuperV1::LENGTH; i < block.size(); ++i)
        block[i] = 0xCC;
    device.write(SUPER_OFFSET, block);
    EXPECT_EQ(run_logged(device, "dump_super").out, json(sb));
}

TEST_F(SuperV1Dump, OutputFileTakesTheLine)
{
    const SuperV1 sb = super_v1(1, 1, 1);
    device.write(SUPER_OFFSET, encode(sb));
    const std::string out = device.directory().path("out");
    EXPECT_EQ(run_logged(device, "dump_super", {"-o", out}).out, "");
    EXPECT_EQ(read_file(out), json(sb));
}

TEST_F(SuperV1Dump, MagicVersionAndEveryBitOfTheChecksumCount)
{
    SuperV1 sb = super_v1(1, 1, 1);
    sb.magic ^= 1U;
    expect_not_accepted(encode(sb));
    sb = super_v1(1, 1, 1);
    sb.version = 0x10001;
    expect_not_accepted(encode(sb));
    for (std::size_t bit = 0; bit < 32; ++bit) {
        SCOPED_TRACE(bit);
        Block block = encode(super_v1(1, 1, 1));
        block[bit / 8] = static_cast<std::uint8_t>(block[bit / 8] ^ (1U << bit % 8));
        expect_not_accepted(block);
    }
}

TEST_F(SuperV1Dump, ChecksumCoversTheRecordFromMagicToReserved)
{
    const Block good = encode(super_v1(1, 1, 1));
    for (std::size_t at = 4; at < SuperV1::LENGTH; ++at) {
        SCOPED_TRACE(at);
        Block block = good;
        block[at] ^= 0x10;
        expect_not_accepted(block);
    }
}

TEST_F(SuperV1Dump, ForcedVersionHasNoSuperBlockToShow)
{
    device.write(SUPER_OFFSET, encode(super_v1(1, 1, 1)));
    expect_run(
        run_logged(device, "dump_super", {"-v", "1"}),
        {.status = 22, .out = "", .log = {settings_line(device, "dump_super", {.spec_ver = 1})}});
}

} // namespace
