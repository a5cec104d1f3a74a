#include "zu_tierctl/device/lines.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/map/map.h"

#include <algorithm>
#include <fmt/core.h>
#include <span>
#include <utility>

namespace tierctl {

namespace {

constexpr size_t ROWS_MAX = 12; /* of a table's grid, and of owners */
constexpr size_t PATH_MIN = 12; /* fewer characters of a path would say nothing */

/* Widths of the columns about owners and ages, where a line has room for all of them. */
constexpr size_t NAME_WIDTH = 7;
constexpr size_t COUNT_WIDTH = 9; /* of entries of the first table; of any other: */
constexpr size_t MORE_WIDTH = 11;
constexpr size_t BYTES_WIDTH = 12;
constexpr size_t DIRTY_WIDTH = 8;

struct LookMarks {
    Look look;
    TextStyle colour;
    const char *mark; /* null: one of RISING, by how much is in use */
    const char *name;
};

constexpr LookMarks LOOKS[] = {
    {Look::planned, "1;32", "+", "repaired by the plan;"},
    {Look::in_use, USE, nullptr, "in use, part to all;"},
    {Look::dirty, "1;36", "*", "dirty: not written back;"},
    {Look::free, DIM, "·", "free;"},
    {Look::finding, "1;33", "!", "finding;"},
    {Look::damaged, "1;31", "X", "damaged;"},
    {Look::unreadable, "1;35", "?", "unreadable"},
};

/* Each row of a grid begins with the number of its first entry, unless that would take half of the
 * width or more. */
size_t label_width(size_t width, uint64_t last)
{
    const size_t label = fmt::formatted_size("{} ", last);
    return 2 * label < width ? label : 0;
}

void draw_head(const Map &map, Lines &lines)
{
    lines.add_words(BOLD, shown_text(map.device));
    lines.end_line();
    lines.add_phrase(PLAIN, fmt::format("layout {},", map.layout));
    lines.add_phrase(PLAIN, fmt::format("cache {},", map.identity));
    lines.add_phrase(PLAIN,
                     fmt::format("created {}{}", map.created, map.accessed.empty() ? "" : ","));
    if (!map.accessed.empty()) {
        lines.add_phrase(PLAIN, fmt::format("last access {}", map.accessed));
    }
    lines.end_line();
    if (!map.plan.empty()) {
        lines.add_words(PLAIN, "plan: " + map.plan);
        lines.end_line();
    }
    const bool is_dirty =
        std::ranges::any_of(map.tables, [](const MapTable &table) { return table.dirty != 0; });
    for (const LookMarks &look : LOOKS) {
        if ((look.look == Look::planned && map.plan.empty()) ||
            (look.look == Look::dirty && !is_dirty)) {
            continue;
        }
        std::string marks = look.mark != nullptr ? look.mark : "";
        for (size_t level = 1; look.mark == nullptr && level <= 8; level++) {
            marks += RISING[level];
        }
        lines.keep_together(columns(marks) + 1 + columns(look.name));
        lines.add_words(look.colour, marks);
        lines.add_words(PLAIN, look.name);
    }
    lines.end_line();
}

void draw_cell(const MapCell &cell, Lines &lines)
{
    const auto &look = *std::ranges::find(LOOKS, cell.look(), &LookMarks::look);
    lines.add(look.colour, look.mark != nullptr ? look.mark : RISING[cell.level()]);
}

/* In rows that begin with a label of that width; 0: without one. */
void draw_cells(std::span<const MapCell> cells, size_t label, Lines &lines)
{
    const size_t row = lines.width() - label;
    for (size_t i = 0; i < cells.size(); i++) {
        if (i % row == 0 && label != 0) {
            lines.add(DIM, fmt::format("{:>{}} ", cells[i].first, label - 1));
        }
        draw_cell(cells[i], lines);
        if (i % row == row - 1 || i + 1 == cells.size()) {
            lines.end_line();
        }
    }
}

void draw_table(const MapTable &table, Lines &lines)
{
    lines.end_line();
    lines.add_words(BOLD, table.name);
    lines.add_words(PLAIN, counts_text(table.counts, table.findings, table.steps, table.dirty));
    if (table.cell_entries > 1) {
        lines.add_phrase(DIM, fmt::format("({} entries a cell)", table.cell_entries));
    }
    lines.end_line();
    if (table.cells.empty()) {
        return;
    }
    const size_t label = label_width(lines.width(), table.cells.back().last);
    const std::span cells(table.cells);
    draw_cells(cells.first(table.cells_before), label, lines);
    if (table.has_expansion()) {
        lines.add_words(DIM, expansion_text(table));
        lines.end_line();
        draw_cells(cells.subspan(table.cells_before), label, lines);
    }
}

/* The width of all columns about owners. */
size_t use_width(const MapUse &use)
{
    return NAME_WIDTH + COUNT_WIDTH + (use.users.size() - 1) * MORE_WIDTH +
           (use.has_sizes ? BYTES_WIDTH : 0) + (use.has_dirty ? DIRTY_WIDTH : 0);
}

/* A name, a text for each table, one for bytes and one for the dirty share, in columns. */
template <class Text>
void draw_use(const MapUse &use, TextStyle style, const std::string &name, const std::string &bytes,
              const std::string &dirty, const Text &text, Lines &lines)
{
    const size_t all = use_width(use);
    lines.add_column(BOLD, name, NAME_WIDTH, all);
    for (size_t i = 0; i < use.users.size(); i++) {
        lines.add_column(style, text(i), i == 0 ? COUNT_WIDTH : MORE_WIDTH, all);
        if (i == 0 && use.has_sizes) {
            lines.add_column(style, bytes, BYTES_WIDTH, all);
        }
    }
    if (use.has_dirty) {
        lines.add_column(style, dirty, DIRTY_WIDTH, all);
    }
}

void draw_owner(const MapUse &use, const MapOwner &owner, Lines &lines)
{
    draw_use(
        use, PLAIN, owner.name, bytes_text(owner.bytes), dirty_text(owner),
        [&owner](size_t i) { return fmt::format("{}", owner.entries[i]); }, lines);
    const size_t all = use_width(use);
    if (lines.width() > all + BAR_WIDTH) {
        const std::string drawn = bar(owner.entries.back(), use.owners.front().entries.back());
        lines.add(USE, ' ' + drawn + std::string(BAR_WIDTH - columns(drawn), ' '));
        const size_t room = lines.width() - all - BAR_WIDTH - 1;
        if (room > PATH_MIN) {
            lines.add(DIM, ' ' + path_end(owner.path, room - 1));
        }
    }
    lines.end_line();
}

void draw_owners(const MapUse &use, Lines &lines)
{
    if (use.users.empty()) {
        return;
    }
    lines.end_line();
    draw_use(
        use, BOLD, std::string(use.owner), "file sizes", "dirty",
        [&use](size_t i) { return std::string(use.users[i]); }, lines);
    lines.end_line();
    for (size_t i = 0; i < std::min(use.owners.size(), ROWS_MAX); i++) {
        draw_owner(use, use.owners[i], lines);
    }
    if (use.owners.size() > ROWS_MAX) {
        lines.add_words(PLAIN, fmt::format("and {} more", use.owners.size() - ROWS_MAX));
        lines.end_line();
    }
}

void draw_ages(const Map &map, Lines &lines)
{
    if (map.aged.empty()) {
        return;
    }
    lines.end_line();
    lines.add_words(BOLD, ages_heading(map));
    lines.end_line();
    const size_t all = NAME_WIDTH + COUNT_WIDTH + 1 + BAR_WIDTH;
    const uint64_t most = std::ranges::max(map.ages, {}, &MapAge::entries).entries;
    for (const MapAge &age : map.ages) {
        lines.add_column(BOLD, std::string(age.name), NAME_WIDTH, all);
        lines.add_column(PLAIN, fmt::format("{}", age.entries), COUNT_WIDTH, all);
        lines.add_words(USE, bar(age.entries, most));
        lines.end_line();
    }
    if (map.odd != 0) {
        lines.add_words(PLAIN, odd_text(map));
        lines.end_line();
    }
}

} // namespace

size_t terminal_cells(size_t width, uint64_t last)
{
    return ROWS_MAX * (width - label_width(width, last));
}

std::string draw_terminal(const Map &map, size_t width, bool colours)
{
    Lines lines(width, colours);
    draw_head(map, lines);
    for (const MapTable &table : map.tables) {
        draw_table(table, lines);
    }
    draw_owners(map.use, lines);
    draw_ages(map, lines);
    if (map.findings_count != 0) {
        lines.end_line();
        lines.add_words(BOLD, findings_count_text(map));
        lines.add_words(PLAIN, "findings; to see them:");
        const std::string option =
            map.super_file.empty() ? "" : "--super " + shell_word(map.super_file) + ' ';
        lines.add_phrase(PLAIN, "zu_tierctl check " + option + shell_word(map.device));
        lines.end_line();
    }
    if (map.quick) {
        lines.end_line();
        lines.add_words(PLAIN, QUICK_TEXT);
        lines.end_line();
    }
    return lines.take();
}

} // namespace tierctl
