// What is particular to the dump of the extent table of layout version 2: mapped pieces, and
// records of every size that a slot can hold.

#include "extent_v2_sizes.h"
#include "table.h"
#include "table_dump.h"

using namespace tier_test;

namespace {

class ExtentV2Dump : public TableDump<ExtentTableV2> {
protected:
    // Records of these sizes, and free extents in every slot.
    void use_sizes(const ExtentSizes &sizes)
    {
        set_sizes(super, sizes);
        write_super();
        for (std::uint32_t slot = 0; slot < 6; ++slot)
            put(slot, extent_v2(slot));
    }

    void write_super() { device.write(SUPER_OFFSET, encode(super)); }

    // Writes bytes of the test's own making, with the right checksum.
    void put_block(std::uint32_t slot, Block block)
    {
        seal(block, super.total_extent_size);
        device.write(static_cast<std::uint64_t>(extent_offset(super, slot)), block);
    }

    std::string shown(std::uint32_t slot) const
    {
        return run_logged(device, "dump_extent", {"-n", std::to_string(slot)}).out;
    }

    void expect_pieces(std::uint32_t slot, const std::string &pieces) const
    {
        const std::string out = shown(slot);
        EXPECT_TRUE(out.ends_with("\"te_mapped_meta\":[" + pieces + "]}")) << out;
    }
};

TEST_F(ExtentV2Dump, TextOfAnExtentWithPieces)
{
    super.data_offset = 0x700000;
    super.block_size = 262144;
    write_super();
    ExtentV2 extent = extent_v2(3);
    extent.maps[1] = {8192, 1, 4096, 2, 1};
    extent.maps[31] = {5, 0, 262144, 65535, 65535};
    put(3, extent);
    const std::int64_t offset = extent_offset(super, 3);
    EXPECT_EQ(shown(3),
              text("{\"te_checksum\":\"0x%x\",\"te_block\":0,\"te_size\":0,\"te_inode_no\":0,"
                   "\"te_sampling_low\":\"00000000\",\"te_sampling_mid\":0,\"te_sampling_high\":0,"
                   "\"te_use\":0,\"te_clean\":0,\"te_ntime\":0,\"te_hot\":0,\"te_no\":3,"
                   "\"meta_offset\": %ld,\"te_mapped_meta\":["
                   "{\"offset\":8192,\"clean\":1,\"orig_len\":4096,\"begin\":2,\"cnt\":1,"
                   "\"mapno\":1,\"data_phy_offset\":%u},"
                   "{\"offset\":5,\"clean\":0,\"orig_len\":262144,\"begin\":65535,\"cnt\":65535,"
                   "\"mapno\":31,\"data_phy_offset\":%u}]}",
                   get_u32(encode(extent, super), 0), offset, 0x700000U + 3U * 262144U + 2U * 4096U,
                   0x700000U + 3U * 262144U + 65535U * 4096U));
}

TEST_F(ExtentV2Dump, PieceWithoutALengthIsNotShown)
{
    ExtentV2 extent = extent_v2_used(2, 1);
    extent.maps.clear();
    put(2, extent);
    expect_pieces(2, "");
    for (std::uint32_t mapno = 0; mapno < super.map_cnt; ++mapno)
        extent.maps[mapno] = {0xFFFF'FFFF'FFFF'FFFFU, mapno % 2, 0, 0xFFFF, 0xFFFF};
    put(2, extent);
    expect_pieces(2, "");
    expect_walk();
    for (const std::uint32_t mapno : {0U, 1U, 17U, 31U}) {
        extent.maps[mapno].orig_len = 1;
        put(2, extent);
        expect_walk();
    }
}

TEST_F(ExtentV2Dump, LargestPiece)
{
    ExtentV2 extent = extent_v2_used(5, 1);
    extent.maps[7] = {0xFFFF'FFFF'FFFF'FFFFU, 1, 0x7FFFFFFF, 0xFFFF, 0xFFFF};
    put(5, extent);
    expect_walk();
    expect_single(5);
}

// The place of a piece wraps where 64 bits end, and nowhere before.
TEST_F(ExtentV2Dump, PlaceOfAPieceHas64Bits)
{
    for (const std::uint64_t data_offset :
         {std::uint64_t{0}, std::uint64_t{0x7FFF'FFFF'FFFF'F000}, ~std::uint64_t{0} - 4095}) {
        super.data_offset = data_offset;
        super.block_size = 0xFFFFFFFF;
        write_super();
        for (std::uint32_t slot = 0; slot < 6; ++slot)
            put(slot, extent_v2_used(slot, 2));
        expect_walk();
    }
}

TEST_F(ExtentV2Dump, PiecesOfEveryRecordSize)
{
    for (const ExtentSizes &sizes : FITTING_SIZES) {
        const auto &[extent_size, map_cnt, hot_size] = sizes;
        SCOPED_TRACE(text("record of %u bytes, %u maps", extent_size, map_cnt));
        use_sizes(sizes);
        ExtentV2 extent = extent_v2_used(1, 2);
        extent.maps.clear();
        extent.hot_area.resize(std::min<std::size_t>(hot_size, 64));
        for (std::uint32_t mapno = 0; mapno < map_cnt; mapno += 3)
            extent.maps[mapno] = {0xABCD'0000'0000'0000U + mapno, mapno % 2, 1 + mapno,
                                  static_cast<std::uint16_t>(mapno), 3};
        if (map_cnt > 0)
            extent.maps[map_cnt - 1] = {1, 1, 2, 3, 4};
        put(1, extent);
        put(4, extent, true); // its number is another's
        expect_walk();
        expect_single(1);
        expect_single(4);
    }
}

// A record shorter than the head of an extent is read as it stands: its first piece begins within
// the head.
TEST_F(ExtentV2Dump, PieceWithinTheHead)
{
    use_sizes({40, 1, 64});
    Block block{};
    put_u64(block, 40, 0x1122334455667788); // the heat, and the piece's offset
    put_u64(block, 48, 3);                  // the number, and the piece's length and clean bit
    put_block(3, block);
    expect_pieces(3, text("{\"offset\":%lu,\"clean\":1,\"orig_len\":1,\"begin\":0,\"cnt\":0,"
                          "\"mapno\":0,\"data_phy_offset\":%lu}",
                          0x1122334455667788UL, super.data_offset + 3 * MIB));
}

// The pieces lie after the record, whatever the other sizes say of them.
TEST_F(ExtentV2Dump, SizesThatPlaceNoPiece)
{
    ExtentV2 extent = extent_v2_used(1, 2);
    extent.hot_area.clear();
    for (const std::uint32_t value : {0U, 1U, 17U, 0xFFFFFFFFU}) {
        super.size_mapped_meta = value;
        super.hot_size = value;
        super.total_map_size = 512;
        write_super();
        put(1, extent);
        expect_walk();
        super.total_map_size = value;
        write_super();
        EXPECT_EQ(shown(1), item(1));
    }
}

TEST_F(ExtentV2Dump, ChecksumCoversTheTotalSize)
{
    for (const std::uint32_t total : {57U, 647U, 649U, 4095U, 4096U}) {
        super.total_extent_size = total;
        write_super();
        Block block = encode(extent_v2(1), super);
        block[total - 1] ^= 0x11;
        put_block(1, block); // its own checksum
        EXPECT_NE(shown(1), "") << total;
        block = encode(extent_v2(1), super);
        block[total - 1] ^= 0x11;
        device.write(static_cast<std::uint64_t>(extent_offset(super, 1)), block);
        EXPECT_EQ(run_logged(device, "dump_extent", {"-n", "1"}).status, 14) << total;
    }
}

// The checksum of nothing is zero, so a slot that was never written passes for extent 0.
TEST_F(ExtentV2Dump, ChecksumOfNothing)
{
    super.total_extent_size = 4;
    write_super();
    slots[0].entry = extent_v2(0);
    device.write(static_cast<std::uint64_t>(extent_offset(super, 0)), Block{});
    expect_single(0);
}

// Walk and single entry end before anything is read.
TEST_F(ExtentV2Dump, SizesThatDoNotFitASlot)
{
    for (const auto &[changed, message] : refused_sizes(super)) {
        super = changed;
        write_super();
        const Log refusal{error_line("zutr_dump_extent_v2", message)};
        expect_run(run_logged(device, "dump_extent"),
                   {.status = 14,
                    .out = "",
                    .log = log_head<SuperV2>(device, "dump_extent", {}, refusal)});
        expect_run(run_logged(device, "dump_extent", {"-n", "0"}),
                   {.status = 14,
                    .out = "",
                    .log = log_head<SuperV2>(device, "dump_extent", {.meta_no = 0}, refusal)});
    }
    // The other tables do not depend on them.
    EXPECT_EQ(run_logged(device, "dump_brick", {"-g", "use=1"}).out, "[]");
    EXPECT_EQ(run_logged(device, "dump_inode", {"-g", "use=1"}).out, "{ \"inode\":[]}");
}

TEST_F(ExtentV2Dump, RecordWithoutASizeAbortsAtTheFirstThatIsRead)
{
    super.total_extent_size = 0;
    write_super();
    expect_abort(run_logged(device, "dump_extent"), "ex && ex_size");
    expect_abort(run_logged(device, "dump_extent", {"-n", "0"}), "ex && ex_size");
    const auto count = static_cast<int>(super.block_cnt);
    expect_run(run_logged(device, "dump_extent", {"-n", std::to_string(count)}),
               {.status = 22,
                .out = "",
                .log = log_head<SuperV2>(
                    device, "dump_extent", {.meta_no = count},
                    {error_line("zutr_dump_common",
                                text("invalid te_no %d, max cnt:%d", count, count))})});
}

} // namespace
