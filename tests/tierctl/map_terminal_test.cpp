// zu_tierctl map: the picture in a terminal, and in a pipe.

#include "map_model.h"
#include "pseudo_terminal.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <sstream>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t ROWS = 12; // the most of a grid

using Environment = std::vector<std::pair<std::string, std::string>>;

// Of the test itself the program must not see these.
const Environment PLAIN{{"COLUMNS", ""}, {"NO_COLOR", ""}};

std::size_t width_of(const std::string &line)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(line, [](char c) { return (c & '\xC0') != '\x80'; }));
}

std::size_t widest(const std::string &text)
{
    std::size_t width = 0;
    for (const std::string &line : lines_of(text))
        width = std::max(width, width_of(line));
    return width;
}

std::string without_colours(const std::string &text)
{
    return std::regex_replace(text, std::regex("\x1b\\[[0-9;]*m"), "");
}

// The character of a cell.
std::string mark_of(const Cell &cell)
{
    static const std::map<std::string, std::string> MARKS{
        {"q", "?"},  {"x", "X"},  {"f", "!"},  {"d", "*"},  {"u0", "·"}, {"u1", "▁"}, {"u2", "▂"},
        {"u3", "▃"}, {"u4", "▄"}, {"u5", "▅"}, {"u6", "▆"}, {"u7", "▇"}, {"u8", "█"}};
    return MARKS.at(cell.look);
}

// The rows of a table's grid in a picture of that width.
std::vector<std::string> rows_of(const MapTable &table, std::size_t width)
{
    const std::size_t label = std::to_string(table.entries.back().no).size();
    const std::size_t row = 2 * (label + 1) < width ? width - label - 1 : width;
    const std::vector<Cell> cells = table.cells(ROWS * row);
    std::vector<std::string> rows;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (i % row == 0) {
            const std::string number = std::to_string(cells[i].first);
            rows.push_back(row == width ? ""
                                        : std::string(label - number.size(), ' ') + number + ' ');
        }
        rows.back() += mark_of(cells[i]);
    }
    return rows;
}

// Phrases in lines of at most `width` characters. A phrase begins a line when it fits there but not
// in the line before it; so does a word, and one that fits nowhere is cut.
std::string wrapped(const std::vector<std::string> &phrases, std::size_t width)
{
    std::vector<std::string> lines{""};
    const auto room = [&] {
        const std::size_t used = width_of(lines.back());
        return used == 0 ? width : width - std::min(width, used + 1);
    };
    for (const std::string &phrase : phrases) {
        const std::size_t length = width_of(phrase);
        if (length > room() && length <= width)
            lines.emplace_back();
        std::istringstream words(phrase);
        for (std::string word; words >> word;) {
            if (width_of(word) > room() && !lines.back().empty())
                lines.emplace_back();
            if (!lines.back().empty())
                lines.back() += ' ';
            for (std::size_t at = 0; at < word.size();) {
                const std::size_t next = std::min(
                    word.size(),
                    word.find_first_not_of("\x80\x81\x82\x83\x84\x85\x86\x87\x88", at + 1));
                if (width_of(lines.back()) == width)
                    lines.emplace_back();
                lines.back() += word.substr(at, next - at);
                at = next;
            }
        }
    }
    std::string text;
    for (const std::string &line : lines)
        text += line + '\n';
    return text;
}

// The first characters of a text.
std::string text_of_width(const std::string &text, std::size_t width)
{
    std::size_t end = 0;
    while (end < text.size() && width_of(text.substr(0, end + 1)) <= width)
        ++end;
    return text.substr(0, end);
}

// The words of a text, each a phrase of its own.
std::vector<std::string> words_of(const std::string &text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

class MapTerminal : public testing::TestWithParam<std::string> {
protected:
    const Cache cache = make_cache(GetParam());

    // Not all that the extents of the cache hold was written back.
    bool has_dirty() const
    {
        const std::vector<MapTable> tables = map_of(cache);
        const MapTable &extents = *std::ranges::find(tables, "extent", &MapTable::name);
        return std::ranges::any_of(extents.entries, &MapEntry::dirty);
    }

    std::string map(const std::string &device, const Environment &environment) const
    {
        const RunResult run = run_ctl({"map", device}, {.environment = environment});
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.err, "");
        return run.out;
    }

    std::string map_of_width(const std::string &device, std::size_t width) const
    {
        return map(device, {{"COLUMNS", std::to_string(width)}, {"NO_COLOR", ""}});
    }

    std::string map_on_terminal(unsigned short columns, const Environment &environment) const
    {
        const RunResult run = run_on_terminal(ZU_TIERCTL, {"map", cache.device.path()}, columns,
                                              {.environment = environment});
        EXPECT_EQ(run.status, 0) << run;
        return run.out;
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, MapTerminal, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(MapTerminal, GridsShowEveryEntry)
{
    std::vector<MapTable> tables = map_of(cache);
    flip(cache.device, cache.offset("inode", 3) + 20);
    table_of(tables, "inode").set_slot(3, "damaged");
    const CacheTable &extents = cache.table("extent");
    fs::resize_file(cache.device.path(), static_cast<std::uint64_t>(extents.offset(3)));
    for (std::uint64_t slot = 3; slot < extents.count; ++slot)
        table_of(tables, "extent").set_slot(slot, "unreadable");
    add_findings(tables, cache.device.path());
    for (const std::size_t width : {40, 80, 200, 1, 5}) {
        const std::string picture = map_of_width(cache.device.path(), width);
        EXPECT_LE(widest(picture), width);
        for (const MapTable &table : tables) {
            std::string grid;
            for (const std::string &row : rows_of(table, width))
                grid += row + '\n';
            EXPECT_NE(picture.find('\n' + grid + '\n'), std::string::npos) << grid << picture;
        }
    }
}

TEST_P(MapTerminal, ALineOfCountsForEachTable)
{
    std::vector<MapTable> tables = map_of(cache);
    add_findings(tables, cache.device.path());
    const std::vector<std::string> lines = lines_of(map_of_width(cache.device.path(), 200));
    for (const MapTable &table : tables) {
        const auto line = std::ranges::find_if(
            lines, [&table](const std::string &l) { return l.starts_with(table.name + ' '); });
        ASSERT_NE(line, lines.end()) << table.name;
        const std::string counts = line->substr(table.name.size() + 1);
        EXPECT_EQ(counts_of(counts.substr(0, counts.find(" ("))), table.counts());
        EXPECT_EQ(counts.find("entries a cell") != std::string::npos,
                  table.entries.size() > ROWS * (200 - 5))
            << counts;
    }
}

// From the width of a label and a few words up to that of all columns.
TEST_P(MapTerminal, WordsAndPhrasesInEveryWidth)
{
    flip(cache.device, cache.offset("inode", 3) + 20);
    const std::vector<MapTable> tables = map_of(cache);
    const std::string &device = cache.device.path();
    const std::vector<std::string> whole = lines_of(map_of_width(device, 1000));
    const std::string identity = uuid_text(numbered_uuid(GetParam() == "v3" ? 0x53 : 0x51));
    std::vector<std::vector<std::string>> texts{
        {device},
        {"layout " + GetParam() + ",", "cache " + identity + ",",
         "created " + time_text(1'600'000'000'123'456'789U) + ",",
         "last access " + time_text(inode_used(2, 1).atime)},
        {"▁▂▃▄▅▆▇█ in use, part to all;", "· free;", "! finding;", "X damaged;", "? unreadable"},
        words_of("inode ages: time from the last access to the newest one")};
    std::vector<std::vector<std::string>> heads; // of tables
    for (const MapTable &table : tables) {
        const auto line = std::ranges::find_if(
            whole, [&table](const std::string &l) { return l.starts_with(table.name + ' '); });
        ASSERT_NE(line, whole.end());
        heads.push_back(words_of(*line));
    }
    if (has_dirty())
        texts[2].insert(texts[2].begin() + 1, "* dirty: not written back;");
    std::vector<std::string> end = words_of(whole.at(whole.size() - 1));
    ASSERT_GE(end.size(), 7U);
    end.erase(end.end() - 3, end.end());
    end.push_back("zu_tierctl check " + device);
    texts.push_back(end);
    for (std::size_t width = 20; width <= 64; ++width) {
        SCOPED_TRACE(width);
        const std::string picture = '\n' + map_of_width(device, width);
        EXPECT_LE(widest(picture), width);
        EXPECT_EQ(picture.find("\n\n\n"), std::string::npos);
        EXPECT_TRUE(picture.starts_with('\n' + wrapped(texts[0], width) + wrapped(texts[1], width) +
                                        wrapped(texts[2], width) + '\n'))
            << picture;
        for (const std::vector<std::string> &phrases : texts) {
            EXPECT_NE(picture.find('\n' + wrapped(phrases, width)), std::string::npos)
                << wrapped(phrases, width) << picture;
        }
        for (std::size_t i = 0; i < tables.size(); ++i) {
            std::vector<std::string> phrases = heads[i];
            const std::size_t label = std::to_string(tables[i].entries.back().no).size();
            const std::size_t row = 2 * (label + 1) < width ? width - label - 1 : width;
            const std::size_t a_cell = (tables[i].entries.size() - 1) / (ROWS * row) + 1;
            if (a_cell > 1)
                phrases.push_back(text("(%zu entries a cell)", a_cell));
            EXPECT_NE(picture.find('\n' + wrapped(phrases, width)), std::string::npos)
                << wrapped(phrases, width) << picture;
        }
    }
}

TEST_P(MapTerminal, UseByBrickInColumnsThatFit)
{
    const std::string &device = cache.device.path();
    const bool has_shards = GetParam() == "v3";
    std::vector<std::string> words{"brick", "inode", "file sizes", "extent"};
    std::vector<std::size_t> widths{7, 9, 12, 11};
    if (has_shards) {
        words.insert(words.begin() + 3, "shard");
        widths.push_back(11);
    }
    if (has_dirty()) {
        words.push_back("dirty");
        widths.push_back(8);
    }
    std::string columns;
    for (std::size_t i = 0; i < words.size(); ++i)
        columns += std::string(widths[i] - words[i].size(), ' ') + words[i];
    const std::size_t all = columns.size();
    // The line about the first brick.
    const auto row_of = [](const std::string &picture, const std::string &head) {
        const std::size_t at = picture.find("\n\n" + head);
        EXPECT_NE(at, std::string::npos) << head << picture;
        return picture.substr(at + 2 + head.size(),
                              picture.find('\n', at + 2 + head.size()) - at - 2 - head.size());
    };
    const std::string wide = row_of(map_of_width(device, 1000), columns + '\n');
    const std::string numbers = wide.substr(0, all);
    for (std::size_t width = 20; width <= 90; ++width) {
        SCOPED_TRACE(width);
        const std::string head = width < all ? wrapped(words_of(columns), width) : columns + '\n';
        const std::string row = row_of(map_of_width(device, width), head);
        if (width < all) {
            EXPECT_EQ(row + '\n', wrapped(words_of(numbers), width).substr(0, row.size() + 1));
        } else if (width <= all + 16) {
            EXPECT_EQ(row, numbers);
        } else if (width <= all + 16 + 1 + 12) {
            EXPECT_EQ(row, numbers + ' ' + text_of_width(wide.substr(all + 1), 16));
        } else if (width >= width_of(wide)) {
            EXPECT_EQ(row, wide);
        } else {
            EXPECT_EQ(width_of(row), width);
            EXPECT_TRUE(row.starts_with(numbers + ' ')) << row;
            EXPECT_TRUE(wide.ends_with(row.substr(row.rfind("…") + 3))) << row;
        }
    }
}

TEST_P(MapTerminal, NoColoursInAPipe)
{
    const std::string picture = map(cache.device.path(), PLAIN);
    EXPECT_EQ(picture.find('\x1b'), std::string::npos);
    EXPECT_EQ(picture, map_of_width(cache.device.path(), 80));
}

TEST_P(MapTerminal, ColoursOnATerminal)
{
    const std::string coloured = map_on_terminal(57, PLAIN);
    EXPECT_NE(coloured.find("\x1b[0;36m"), std::string::npos);
    const std::string picture = map_of_width(cache.device.path(), 57);
    EXPECT_EQ(without_colours(coloured), picture);
    EXPECT_EQ(map_on_terminal(57, {{"COLUMNS", ""}, {"NO_COLOR", "1"}}), picture);
    for (const std::string kind : {"dumb", ""})
        EXPECT_EQ(map_on_terminal(57, {{"COLUMNS", ""}, {"NO_COLOR", ""}, {"TERM", kind}}),
                  picture);
    for (const std::string &line : lines_of(coloured)) {
        const std::size_t last = line.rfind('\x1b');
        EXPECT_TRUE(last == std::string::npos || line.substr(last).starts_with("\x1b[0m")) << line;
    }
}

TEST_P(MapTerminal, ColumnsBeforeTheSizeOfTheTerminal)
{
    EXPECT_EQ(without_colours(map_on_terminal(57, {{"COLUMNS", "90"}, {"NO_COLOR", ""}})),
              map_of_width(cache.device.path(), 90));
    for (const std::string wrong : {"0", "-4", "wide", "80x"}) {
        EXPECT_EQ(without_colours(map_on_terminal(57, {{"COLUMNS", wrong}, {"NO_COLOR", ""}})),
                  map_of_width(cache.device.path(), 57));
    }
    EXPECT_EQ(without_colours(map_on_terminal(0, PLAIN)), map_of_width(cache.device.path(), 80));
    EXPECT_EQ(map_of_width(cache.device.path(), 999'999'999'999),
              map_of_width(cache.device.path(), 1000));
}

class MapPicture : public MapTerminal {};

INSTANTIATE_TEST_SUITE_P(Layout, MapPicture, testing::Values("v1"),
                         [](const auto &layout) { return layout.param; });

TEST_P(MapPicture, NoEscapesFromTheDevice)
{
    BrickV1 brick = brick_used(0);
    brick.brickid = "\x1b[2J\x07\xff";
    const Device device = make_v1_device(super_v1(1, 1, 1), {brick});
    const std::string picture = map_of_width(device.path(), 120);
    EXPECT_EQ(picture.find('\x1b'), std::string::npos);
    EXPECT_NE(picture.find(R"("\x1b[2J\x07\xff")"), std::string::npos) << picture;
}

TEST_P(MapPicture, DeviceAsAWordOfTheCommand)
{
    const std::string path = cache.device.directory().path("a b");
    fs::copy_file(cache.device.path(), path);
    const std::string picture = map_of_width(path, 200);
    EXPECT_TRUE(picture.starts_with(path + '\n'));
    EXPECT_NE(picture.find("zu_tierctl check '" + path + "'\n"), std::string::npos) << picture;
}

TEST_P(MapPicture, MarksStayBesideTheirNames)
{
    for (std::size_t width = 40; width < 90; ++width) {
        const std::string picture = map_of_width(cache.device.path(), width);
        for (const std::string sample :
             {"█ in use, part to all;", "· free;", "! finding;", "X damaged;", "? unreadable\n"})
            EXPECT_NE(picture.find(sample), std::string::npos) << picture;
    }
}

TEST_P(MapPicture, TheBricksWithMostExtents)
{
    std::vector<BrickV1> bricks;
    std::vector<InodeV1> inodes;
    std::vector<ExtentV1> extents;
    for (std::uint32_t no = 0; no < 14; ++no) {
        bricks.push_back(brick_used(no));
        inodes.push_back(inode_used(no, no));
        inodes.back().size = 1024;
        for (std::uint32_t i = 0; i < no; ++i)
            extents.push_back(extent_used(extents.size(), no));
    }
    const Device device = make_v1_device(super_v1(14, 14, 100), bricks, inodes, extents);
    const std::string picture = map_of_width(device.path(), 160);
    const std::string path = bricks[13].brickid;
    EXPECT_NE(picture.find("\n     13        1     1.0 KiB         13 ████████████████ " + path),
              std::string::npos)
        << picture;
    EXPECT_NE(picture.find("\n      2        1     1.0 KiB          2 ██▍"), std::string::npos);
    EXPECT_EQ(picture.find(bricks[1].brickid), std::string::npos);
    EXPECT_NE(picture.find("\nand 2 more\n"), std::string::npos);

    // Of a path the end is shown.
    const std::string narrow = map_of_width(device.path(), 90);
    EXPECT_NE(narrow.find("████████████████ …" + path.substr(path.size() - 32) + '\n'),
              std::string::npos)
        << narrow;
}

TEST_P(MapPicture, Ages)
{
    std::vector<InodeV1> inodes;
    for (std::uint32_t no = 0; no < 9; ++no) {
        inodes.push_back(inode_used(no, 0));
        inodes.back().atime = no == 0 ? 0 : 1'700'000'000'000'000'000;
    }
    const Device device = make_v1_device(super_v1(1, 9, 1), {brick_used(0)}, inodes);
    const std::string picture = map_of_width(device.path(), 80);
    EXPECT_NE(picture.find("\n   hour        8 ████████████████\n    day        0\n"),
              std::string::npos)
        << picture;
    EXPECT_NE(picture.find("\n  older        1 ██\n"), std::string::npos);
    EXPECT_EQ(picture.find("left out"), std::string::npos);

    inodes[1].atime = 0xFFFFFFFFFFFFFFFF;
    const Device odd = make_v1_device(super_v1(1, 9, 1), {brick_used(0)}, inodes);
    const std::string other = map_of_width(odd.path(), 120);
    EXPECT_NE(other.find("\n   hour        7 ████████████████\n    day        0\n"),
              std::string::npos)
        << other;
    EXPECT_NE(other.find("\n  older        1 ██▎\n1 left out: more than a year later than all "
                         "others, up to " +
                         time_text(0xFFFFFFFFFFFFFFFF) + '\n'),
              std::string::npos)
        << other;
}

TEST_P(MapPicture, TheExpansionBeginsALine)
{
    SuperV2 sb = super_v2(1, 100, 2);
    set_expansion(sb, EXPANSION_UNIT, true);
    const Device device = make_v2_device(sb, {brick_used(0)}, {}, {}, Expansion::SPARSE);
    const std::string last = std::to_string(100 + EXPANSION_UNIT - 1);
    const std::size_t row = 80 - last.size() - 1;
    const std::uint64_t cell = (100 + EXPANSION_UNIT - 1) / (ROWS * row - 1) + 1;
    const std::size_t before = (100 + cell - 1) / cell;
    std::string grid = std::string(last.size() - 1, ' ') + "0 ";
    for (std::size_t i = 0; i < before; ++i)
        grid += "·";
    grid += "\nexpansion: 100 to " + last + "\n" + std::string(last.size() - 3, ' ') + "100 X";
    const std::string picture = map_of_width(device.path(), 80);
    EXPECT_NE(picture.find('\n' + grid), std::string::npos) << grid << '\n' << picture;
    EXPECT_EQ(map_of_width(cache.device.path(), 80).find("expansion"), std::string::npos);
}

TEST_P(MapPicture, ACleanDevice)
{
    const Device device = make_sample();
    const std::string picture = map_of_width(device.path(), 80);
    EXPECT_EQ(picture.find("findings; to see them"), std::string::npos);
    EXPECT_NE(map_of_width(cache.device.path(), 200)
                  .find("findings; to see them: zu_tierctl check " + cache.device.path() + '\n'),
              std::string::npos);
}

} // namespace
