// What is particular to repairs of the extent table of layout version 2: mapped pieces, expansion
// inodes as owners, and what no repair file fills.

#include "extent_v2_sizes.h"
#include "table_repair.h"
#include "table_v2.h"

#include <algorithm>
#include <iterator>
#include <utility>

using namespace tier_test;

namespace {

using PieceList = std::vector<std::pair<std::uint32_t, MappedMeta>>;

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
        return with_pieces(json_array(items));
    }

    ExtentV2 holding(const Pieces &pieces) const
    {
        ExtentV2 extent = sample;
        extent.maps = pieces;
        return extent;
    }

    // What the log says of the keys of a piece, all or those in front of `end`.
    Log piece_log(std::uint32_t mapno, const MappedMeta &meta, const std::string &end = {}) const
    {
        Log log;
        for (const auto &[name, value] : piece_keys(mapno, meta)) {
            if (name == end)
                break;
            log.push_back(debug_line(table.parser, name + ": " + std::to_string(value)));
        }
        return log;
    }

    // The array holds these pieces, in this order, and comes to `result`.
    void expect_pieces(const PieceList &pieces, const Pieces &result)
    {
        Log lines = key_log(sample, "te_mapped_meta");
        for (const auto &[mapno, meta] : pieces)
            std::ranges::copy(piece_log(mapno, meta), std::back_inserter(lines));
        expect_accepted(with_pieces(pieces), lines,
                        [&](const std::string &out) { return repaired(holding(result), out); });
    }

    // The array is `document`; behind the other keys of the extent come these lines.
    void expect_array_refused(const std::string &document, const Log &lines,
                              const std::string &message)
    {
        Log all = key_log(sample, "te_mapped_meta");
        std::ranges::copy(lines, std::back_inserter(all));
        all.push_back(error(message));
        expect_refused(document, all);
    }

    // One piece 3 whose `name` is this number comes to piece `mapno` of the extent.
    void expect_piece_number(const std::string &name, const std::string &number,
                             std::uint32_t mapno, const MappedMeta &stored)
    {
        SCOPED_TRACE(name + ": " + number);
        const std::string document =
            with_pieces(json_array({RepairFile(piece_file(3, piece)).set(name, number).text()}));
        Log lines = key_log(sample, "te_mapped_meta");
        std::ranges::copy(piece_log(mapno, stored), std::back_inserter(lines));
        expect_accepted(document, lines, [&](const std::string &out) {
            return repaired(holding({{mapno, stored}}), out);
        });
    }

    // Piece 3 alone, with this number, is refused with the message.
    void expect_piece_refused(const std::string &name, const std::string &number, const Log &lines,
                              const std::string &message)
    {
        SCOPED_TRACE(name + ": " + number);
        expect_array_refused(
            with_pieces(json_array({RepairFile(piece_file(3, piece)).set(name, number).text()})),
            lines, message);
    }

    Log number_line(const std::string &name, std::uint32_t value, Log lines) const
    {
        lines.push_back(debug_line(table.parser, name + ": " + std::to_string(value)));
        return lines;
    }
};

TEST_F(ExtentV2Repair, PiecesMissing)
{
    expect_array_refused(RepairFile(file).erase("te_mapped_meta").text(), {},
                         "te_mapped_meta is invalid. te_mapped_meta:(nil)");
}

TEST_F(ExtentV2Repair, PiecesOfAnotherType)
{
    const std::string one = piece_file(0, piece).text();
    for (const std::string &value :
         {std::string("5"), std::string("\"[]\""), std::string("null"), std::string("true"),
          std::string("false"), std::string("{}"), one})
        expect_array_refused(with_pieces(value), {},
                             "te_mapped_meta is invalid. te_mapped_meta:<address>");
}

TEST_F(ExtentV2Repair, ElementThatIsNoObject)
{
    const std::string good = piece_file(1, piece).text();
    for (const std::string value : {"5", "\"text\"", "null", "true", "false", "[]", "[{}]"}) {
        SCOPED_TRACE(value);
        expect_array_refused(with_pieces("[" + value + "," + good + "]"), {},
                             "te_mapped_meta index 0 is invalid, value:<address>");
        expect_array_refused(with_pieces("[" + good + "," + value + "]"), piece_log(1, piece),
                             "te_mapped_meta index 1 is invalid, value:<address>");
    }
}

TEST_F(ExtentV2Repair, KeyOfAPieceMissingOrOfAnotherType)
{
    const RepairFile second = piece_file(3, piece);
    const MappedMeta first{1, 0, 2, 3, 4};
    for (const auto &[name, number] : piece_keys(3, piece)) {
        Log lines = piece_log(0, first);
        std::ranges::copy(piece_log(3, piece, name), std::back_inserter(lines));
        std::vector<std::string> documents{RepairFile(second).erase(name).text()};
        for (const std::string &value : values_of_other_types(true))
            documents.push_back(RepairFile(second).set(name, value).text());
        for (const std::string &document : documents) {
            SCOPED_TRACE(document);
            expect_array_refused(with_pieces(json_array({piece_file(0, first).text(), document})),
                                 lines, "parse " + name + " failed");
        }
    }
    expect_array_refused(with_pieces("[{}]"), {}, "parse mapno failed");
}

TEST_F(ExtentV2Repair, NoPiecesAtAll)
{
    expect_pieces({}, {});
}

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

TEST_F(ExtentV2Repair, OtherKeysOfAPieceAreIgnored)
{
    RepairFile more = piece_file(3, piece);
    more.string("orig_len", "text").number("data_phy_offset", 1);
    expect_entry(with_pieces(json_array({more.text()})), holding({{3, piece}}));
}

TEST_F(ExtentV2Repair, MapNumberMustBeBelowTheCount)
{
    for (const std::string number : {"32", "33", "-1", "-0.5", "0.999", "31.999", "4294967295",
                                     "4294967296", "4294967297", "2147483648", "-4294967295"}) {
        const auto mapno =
            static_cast<std::uint32_t>(convert(Conversion::SIGNED_64, std::stold(number)));
        if (mapno < super.map_cnt)
            expect_piece_number("mapno", number, mapno, piece);
        else
            expect_piece_refused("mapno", number, number_line("mapno", mapno, {}),
                                 text("te_mapped_meta mapno %d is invalid, index:0, map_cnt:32",
                                      static_cast<int>(mapno)));
    }
}

TEST_F(ExtentV2Repair, MapNumberMessageNamesTheElement)
{
    Log lines = piece_log(8, piece);
    std::ranges::copy(number_line("mapno", 32, {}), std::back_inserter(lines));
    expect_array_refused(with_pieces(PieceList{{8, piece}, {32, piece}}), lines,
                         "te_mapped_meta mapno 32 is invalid, index:1, map_cnt:32");
}

TEST_F(ExtentV2Repair, LayoutWithoutPiecesTakesNone)
{
    use_sizes({72, 0, 64});
    expect_pieces({}, {});
    expect_piece_refused("mapno", "0", number_line("mapno", 0, {}),
                         "te_mapped_meta mapno 0 is invalid, index:0, map_cnt:0");
}

TEST_F(ExtentV2Repair, OffsetHas64Bits)
{
    for (const JsonNumber &number : boundary_numbers()) {
        MappedMeta stored = piece;
        stored.offset = convert(Conversion::UNSIGNED_64, number.value);
        expect_piece_number("offset", number.text, 3, stored);
    }
}

TEST_F(ExtentV2Repair, CleanKeepsItsLowestBit)
{
    for (const JsonNumber &number : boundary_numbers()) {
        MappedMeta stored = piece;
        stored.clean = convert(Conversion::UNSIGNED_64, number.value) & 1U;
        expect_piece_number("clean", number.text, 3, stored);
    }
}

TEST_F(ExtentV2Repair, LengthKeeps31Bits)
{
    SuperV2 changed = super;
    changed.block_size = 0x7FFFFFFF; // no length is too large
    set_super(changed);
    for (const JsonNumber &number : boundary_numbers()) {
        MappedMeta stored = piece;
        stored.orig_len = convert(Conversion::UNSIGNED_64, number.value) & 0x7FFFFFFFU;
        expect_piece_number("len", number.text, 3, stored);
    }
}

TEST_F(ExtentV2Repair, LengthMustNotExceedTheBlockSize)
{
    for (const std::uint32_t block_size : {262144U, 1048576U, 4194304U}) {
        SuperV2 changed = super;
        changed.block_size = block_size;
        set_super(changed);
        for (const std::uint32_t length : {0U, block_size - 1, block_size}) {
            MappedMeta stored = piece;
            stored.orig_len = length;
            expect_piece_number("len", std::to_string(length), 3, stored);
        }
        for (const std::uint32_t length : {block_size + 1, 0x7FFFFFFFU}) {
            expect_piece_refused(
                "len", std::to_string(length),
                number_line("len", length, piece_log(3, piece, "len")),
                text("map 3 orig_len(%u) is invalid, block_size:%u", length, block_size));
        }
    }
}

TEST_F(ExtentV2Repair, PagesKeep16Bits)
{
    for (const JsonNumber &number : boundary_numbers()) {
        const auto pages = static_cast<std::uint16_t>(convert(Conversion::SIGNED_32, number.value));
        MappedMeta begins = piece;
        begins.begin = pages;
        expect_piece_number("begin", number.text, 3, begins);
        MappedMeta counts = piece;
        counts.cnt = pages;
        expect_piece_number("cnt", number.text, 3, counts);
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

TEST_F(ExtentV2Repair, FreeExtentHoldsNothingButItsNumber)
{
    ASSERT_EQ(repair(RepairFile(file).number("te_use", 0).text(), {"-y"}).status, 0);
    Block expected{};
    put_u64(expected, 48, 2);
    seal(expected, super.total_extent_size);
    EXPECT_EQ(device.block(static_cast<std::uint64_t>(extent_offset(super, 2))), expected);
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
                expect_entry_or_bounds_error(repair_file(table.keys, extent).text(), extent);
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
