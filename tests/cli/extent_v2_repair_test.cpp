// What is particular to repairs of the extent table of layout version 2: mapped pieces, expansion
// inodes as owners, and what no repair file fills.

#include "dump_text.h"
#include "extent_v2_sizes.h"
#include "json_number.h"
#include "table.h"
#include "table_repair.h"

#include <map>
#include <utility>

using namespace tier_test;

namespace {

using Pieces = std::map<std::uint32_t, MappedMeta>; // by their map numbers
using PieceList = std::vector<std::pair<std::uint32_t, MappedMeta>>;

RepairFile piece_file(std::uint32_t mapno, const MappedMeta &piece)
{
    RepairFile file;
    file.number("mapno", mapno).number("offset", piece.offset).number("clean", piece.clean);
    return file.number("len", piece.orig_len).number("begin", piece.begin).number("cnt", piece.cnt);
}

class ExtentV2Repair : public TableRepair<ExtentTableV2> {
protected:
    const MappedMeta piece{0x8000'0000'0000'1234U, 1, 4096, 5, 6};

    void use_sizes(const ExtentSizes &sizes)
    {
        SuperV2 changed = super;
        set_sizes(changed, sizes);
        set_super(changed);
    }

    std::string with_pieces(const std::string &array) const
    {
        return RepairFile(file).set("te_mapped_meta", array).text();
    }

    std::string with_pieces(const PieceList &pieces) const
    {
        std::vector<std::string> items;
        for (const auto &[mapno, meta] : pieces)
            items.push_back(piece_file(mapno, meta).text());
        return with_pieces(joined(items));
    }

    ExtentV2 holding(const Pieces &pieces) const
    {
        ExtentV2 extent = sample;
        extent.maps = pieces;
        return extent;
    }

    // The array holds these pieces, in this order, and comes to `result`.
    void expect_pieces(const PieceList &pieces, const Pieces &result)
    {
        expect_entry(with_pieces(pieces), holding(result));
    }

    // Piece 3, or that of another number, with this value comes to `stored`.
    void expect_length(const std::string &number, std::uint32_t stored)
    {
        SCOPED_TRACE(number);
        MappedMeta kept = piece;
        kept.orig_len = stored;
        expect_entry(with_pieces(joined({piece_file(3, piece).set("len", number).text()})),
                     holding({{3, kept}}));
    }

    // The array is refused with this message, of which the model knows.
    void expect_array_refused(const PieceList &pieces, const std::string &message)
    {
        const Log lines = parsed(table, encode(super), with_pieces(pieces)).log;
        EXPECT_EQ(lines.back(), error(message));
        expect_refused(with_pieces(pieces), lines);
    }
};

TEST_F(ExtentV2Repair, NoPiecesAtAll) { expect_pieces({}, {}); }

TEST_F(ExtentV2Repair, PieceInEveryPlace)
{
    for (std::uint32_t mapno = 0; mapno < super.map_cnt; ++mapno)
        expect_pieces({{mapno, piece}}, {{mapno, piece}});
}

TEST_F(ExtentV2Repair, PiecesInAnyOrder)
{
    PieceList pieces;
    Pieces result;
    for (std::uint32_t i = 0; i < super.map_cnt; ++i) {
        const std::uint32_t mapno = (i * 13 + 7) % super.map_cnt; // each once
        const MappedMeta meta{~std::uint64_t{0} - i, i % 2, 1 + i, static_cast<std::uint16_t>(i),
                              static_cast<std::uint16_t>(0xFFFF - i)};
        pieces.emplace_back(mapno, meta);
        result[mapno] = meta;
    }
    ASSERT_EQ(result.size(), super.map_cnt);
    expect_pieces(pieces, result);
}

TEST_F(ExtentV2Repair, LaterPieceOfTheSameNumberReplacesTheEarlier)
{
    const MappedMeta other{7, 0, 1, 0, 0};
    expect_pieces({{4, piece}, {4, other}}, {{4, other}});
    expect_pieces({{4, other}, {2, other}, {4, piece}}, {{2, other}, {4, piece}});
    expect_pieces({{4, piece}, {4, {}}}, {{4, {}}}); // empty again
}

TEST_F(ExtentV2Repair, PieceWithoutALengthIsStoredButNotShown)
{
    const MappedMeta empty{0xFFFF'FFFF'FFFF'FFFFU, 1, 0, 0xFFFF, 0xFFFF};
    expect_pieces({{5, empty}}, {{5, empty}});
}

TEST_F(ExtentV2Repair, MapNumberMessageNamesTheElement)
{
    expect_array_refused({{8, piece}, {32, piece}},
                         "te_mapped_meta mapno 32 is invalid, index:1, map_cnt:32");
    expect_array_refused({{0xFFFFFFFF, piece}},
                         "te_mapped_meta mapno -1 is invalid, index:0, map_cnt:32");
}

TEST_F(ExtentV2Repair, LayoutWithoutPiecesTakesNone)
{
    use_sizes({72, 0, 64});
    expect_pieces({}, {});
    expect_array_refused({{0, piece}}, "te_mapped_meta mapno 0 is invalid, index:0, map_cnt:0");
}

TEST_F(ExtentV2Repair, LengthKeeps31Bits)
{
    SuperV2 changed = super;
    changed.block_size = 0x7FFFFFFF; // no length is too large
    set_super(changed);
    for (const JsonNumber &number : boundary_numbers())
        expect_length(number.text, convert(Conversion::UNSIGNED_64, number.value) & 0x7FFFFFFFU);
}

TEST_F(ExtentV2Repair, LengthMustNotExceedTheBlockSize)
{
    for (const std::uint32_t block_size : {262144U, 1048576U, 4194304U}) {
        SuperV2 changed = super;
        changed.block_size = block_size;
        set_super(changed);
        for (const std::uint32_t length : {0U, block_size - 1, block_size})
            expect_length(std::to_string(length), length);
        for (const std::uint32_t length : {block_size + 1, 0x7FFFFFFFU}) {
            MappedMeta longer = piece;
            longer.orig_len = length;
            expect_array_refused({{3, longer}}, text("map 3 orig_len(%u) is invalid, block_size:%u",
                                                     length, block_size));
        }
    }
}

TEST_F(ExtentV2Repair, RecordsOfEverySize)
{
    for (const ExtentSizes &sizes : FITTING_SIZES) {
        SCOPED_TRACE(text("record of %u bytes, %u maps", sizes.extent_size, sizes.map_cnt));
        use_sizes(sizes);
        Pieces pieces;
        for (std::uint32_t mapno = 0; mapno < sizes.map_cnt; ++mapno)
            pieces[mapno] = {0xABCD'0000'0000'0000U + mapno, mapno % 2, 1 + mapno, 2, 3};
        expect_pieces(PieceList(pieces.begin(), pieces.end()), pieces);
        expect_entry(R"({"te_use":0,"te_no":2})", freed(sample));
    }
}

// Whatever the file and the slot say of them.
TEST_F(ExtentV2Repair, FieldsThatNoRepairFills)
{
    struct Unfilled {
        const char *name;
        std::size_t offset;
        std::size_t length;
    };
    const std::size_t hot_area = super.extent_size + super.total_map_size;
    const std::vector<Unfilled> fields{{"te_block", 4, 4},
                                       {"te_size", 8, 8},
                                       {"te_clean", 34, 2},
                                       {"te_ntime", 36, 4},
                                       {"te_hot", 40, 8},
                                       {"te_bitmap", 56, super.extent_size - 56},
                                       {"te_hot_area", hot_area, super.hot_size}};
    RepairFile more = file;
    for (const Unfilled &field : fields)
        more.number(field.name, 0xFFFF);
    put_block(device, extent_offset(super, 2), encode(extent_v2_used(2, 1), super));
    ASSERT_EQ(repair(more.text(), {"-y"}).status, 0);
    const Block block = device.block(static_cast<std::uint64_t>(extent_offset(super, 2)));
    for (const auto &[name, offset, length] : fields)
        for (std::size_t i = offset; i < offset + length; ++i)
            EXPECT_EQ(block[i], 0) << name << ", byte " << i;
    EXPECT_EQ(block, encode(sample, super));
}

// Regular inodes own extents always, expansion inodes only of an area in use.
TEST_F(ExtentV2Repair, OwnerMustBeAnInodeThatCanBeUsed)
{
    SuperV2 changed = super;
    set_expansion(changed, 20 * EXPANSION_UNIT, false);
    for (const std::uint16_t magic : std::initializer_list<std::uint16_t>{0, 0x4558, 0x4559}) {
        for (const std::uint8_t in_use : std::initializer_list<std::uint8_t>{0, 0x52, 0x53}) {
            SCOPED_TRACE(text("magic 0x%x, in use 0x%x", magic, in_use));
            changed.exp_magic = magic;
            changed.exp_inuse = in_use;
            set_super(changed);
            for (const std::uint32_t no : {5U, 6U, 499'999U, 500'000U, 512'005U, 512'006U}) {
                ExtentV2 extent = sample;
                extent.inode_no = no;
                const bool admitted = no < 6 || (no < 500'000 && magic == 0x4558 && in_use == 0x53);
                EXPECT_EQ(table.bounds_errors(super, extent).empty(), admitted);
                expect_entry_or_bounds_error(file_text(extent), extent);
            }
        }
    }
}

TEST_F(ExtentV2Repair, FreeExtentNeedsInodeZero)
{
    SuperV2 changed = super;
    changed.inode_cnt = 0;
    set_super(changed);
    const ExtentV2 extent = freed(sample);
    ASSERT_EQ(table.bounds_errors(super, extent).size(), 2U);
    expect_entry_or_bounds_error(R"({"te_use":0,"te_no":2})", extent);
}

TEST_F(ExtentV2Repair, SizesThatDoNotFitASlot)
{
    for (const auto &[changed, message] : refused_sizes(super)) {
        set_super(changed);
        expect_refused(file.text(), {error(message)}, 14);
        expect_refused(R"({"te_use":0,"te_no":2})", {error(message)}, 14);
    }
}

TEST_F(ExtentV2Repair, RecordWithoutASizeAbortsAtItsChecksum)
{
    SuperV2 changed = super;
    changed.total_extent_size = 0;
    set_super(changed);
    expect_refused_at("te_no", R"({"te_use":1})", "parse te_no failed");
    expect_abort(repair(R"({"te_use":0,"te_no":2})", {"-y"}), "ex && ex_size");
    expect_abort(repair(file.text(), {"-y"}), "ex && ex_size");
}

// The checksum of nothing.
TEST_F(ExtentV2Repair, SmallestTotalSize)
{
    SuperV2 changed = super;
    changed.total_extent_size = 4;
    set_super(changed);
    expect_entry(R"({"te_use":0,"te_no":2})", freed(sample));
}

} // namespace
