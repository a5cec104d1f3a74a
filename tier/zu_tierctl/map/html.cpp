#include "zu_tierctl/device/text.h"
#include "zu_tierctl/map/map.h"

#include <algorithm>
#include <fmt/core.h>
#include <set>
#include <span>

namespace tierctl {

namespace {

constexpr size_t FEW_CELLS = 600; /* a table of up to so many has larger cells */

/* Cells of a row, as page.css has them. */
constexpr size_t FEW_ROW = 32;
constexpr size_t ROW = 64;

/* 0: device, 1: style, 2: facts, 3: legend, 4: sections, 5: script. */
constexpr const char PAGE[] = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8"/>
<meta name="viewport" content="width=device-width, initial-scale=1"/>
<title>Map of {0}</title>
<style>
{1}</style>
</head>
<body>
<header>
<h1>{0}</h1>
{2}{3}</header>
<main>
{4}</main>
<p id="tip" role="status" hidden="hidden"></p>
<script>
{5}</script>
</body>
</html>
)";

/* 0: what a plan repairs, if there is one. */
constexpr const char LEGEND[] =
    R"(<ul class="legend">
{}<li><span class="grid"><i class="u1"></i><i class="u2"></i><i class="u3"></i><i class="u4"></i>)"
    R"(<i class="u5"></i><i class="u6"></i><i class="u7"></i><i class="u8"></i></span>)"
    R"(in use, little to all</li>
<li><span class="grid"><i class="d"></i></span>dirty: not written back</li>
<li><span class="grid"><i class="u0"></i></span>free</li>
<li><span class="grid"><i class="f"></i></span>finding</li>
<li><span class="grid"><i class="x"></i></span>damaged</li>
<li><span class="grid"><i class="q"></i></span>unreadable</li>
</ul>
)";

constexpr const char PLAN_LEGEND[] =
    R"(<li><span class="grid"><i class="p"></i></span>repaired by the plan</li>
)";

/* The text as content of an element or as the value of an attribute. */
std::string escaped(std::string_view text)
{
    std::string html;
    for (const char byte : valid_utf8(text)) {
        const auto code = static_cast<uint8_t>(byte);
        if (code < 0x20 || code == 0x7F) {
            html += "\xEF\xBF\xBD"; /* U+FFFD: a page cannot hold control characters */
        } else if (std::string_view("<>&\"'").find(byte) != std::string_view::npos) {
            html += fmt::format("&#{};", code);
        } else {
            html += byte;
        }
    }
    return html;
}

std::string element(std::string_view name, std::string_view content)
{
    return fmt::format("<{0}>{1}</{0}>", name, content);
}

/* Name and value stay on one line. */
std::string fact(const char *name, std::string_view value)
{
    return text_if(!value.empty(),
                   element("div", element("dt", name) + element("dd", value)) + '\n');
}

std::string facts_of(const Map &map)
{
    return "<dl class=\"facts\">\n" + fact("Layout", map.layout) + fact("Cache", map.identity) +
           fact("Created", map.created) + fact("Last access", map.accessed) +
           fact("Findings", findings_count_text(map)) + fact("Plan", map.plan) +
           fact("Quick", map.quick ? QUICK_TEXT : "") + "</dl>\n";
}

std::string class_of(const MapCell &cell)
{
    switch (cell.look()) {
    case Look::planned:
        return "p";
    case Look::unreadable:
        return "q";
    case Look::damaged:
        return "x";
    case Look::finding:
        return "f";
    case Look::dirty:
        return "d";
    default:
        return fmt::format("u{}", cell.level());
    }
}

std::string cell_html(const MapCell &cell)
{
    const std::string last = text_if(cell.last != cell.first, fmt::format(" to {}", cell.last));
    return fmt::format("<i class=\"{}\" title=\"{}{}: {}\"></i>\n", class_of(cell), cell.first,
                       last, counts_text(cell.counts, cell.findings, cell.steps, cell.dirty));
}

/* Each row begins with the number of its first entry. */
std::string cells_html(std::span<const MapCell> cells, size_t row)
{
    std::string html;
    for (size_t i = 0; i < cells.size(); i++) {
        if (i % row == 0) {
            html += fmt::format("<b class=\"axis\">{}</b>\n", cells[i].first);
        }
        html += cell_html(cells[i]);
    }
    return html;
}

std::string grid_html(const MapTable &table, std::string_view counts)
{
    const bool few = table.cells.size() <= FEW_CELLS;
    const size_t row = few ? FEW_ROW : ROW;
    const std::span cells(table.cells);
    std::string html =
        fmt::format("<div class=\"{0}\" data-name=\"{1}\" tabindex=\"0\" role=\"group\""
                    " aria-label=\"{1}: {2}. Arrow keys go from cell to cell.\">\n",
                    few ? "grid few" : "grid", table.name, counts) +
        cells_html(cells.first(table.cells_before), row);
    if (table.has_expansion()) {
        html += fmt::format("<b class=\"part\">{}</b>\n", expansion_text(table)) +
                cells_html(cells.subspan(table.cells_before), row);
    }
    return html + "</div>\n";
}

std::string table_html(const MapTable &table)
{
    const std::string counts = counts_text(table.counts, table.findings, table.steps, table.dirty);
    std::string html =
        "<section>\n<div class=\"head\">" + element("h2", table.name) + element("p", counts);
    if (table.cell_entries > 1) {
        html += fmt::format("<p class=\"cell\">{} entries a cell</p>", table.cell_entries);
    }
    html += "</div>\n";
    if (!table.cells.empty()) {
        html += grid_html(table, counts);
    }
    return html + "</section>\n";
}

std::string number_cell(std::string_view number)
{
    return fmt::format(R"(<td class="n">{}</td>)", number);
}

std::string number_cell(uint64_t number) { return number_cell(fmt::format("{}", number)); }

std::string bar_cell(uint64_t part, uint64_t whole)
{
    if (part == 0) {
        return R"(<td class="bar"></td>)";
    }
    return fmt::format(R"(<td class="bar"><b style="width:{:.1f}%"></b></td>)",
                       static_cast<double>(part) / static_cast<double>(whole) * 100);
}

/* A table under a heading; `columns` is its first row, `note` stands below it. */
std::string list_html(std::string_view heading, std::string_view columns, const std::string &rows,
                      std::string_view note = {})
{
    return fmt::format(
        "<section>\n<h2>{}</h2>\n<div class=\"wide\"><table>\n"
        "<thead><tr>{}</tr></thead>\n<tbody>\n{}</tbody>\n</table></div>\n{}</section>\n",
        heading, columns, rows, text_if(!note.empty(), element("p", note) + '\n'));
}

std::string number_head(std::string_view name)
{
    return fmt::format(R"(<th class="n">{}</th>)", name);
}

std::string owner_html(const MapUse &use, const MapOwner &owner)
{
    std::string html = number_cell(owner.name);
    for (size_t i = 0; i < use.users.size(); i++) {
        html += number_cell(owner.entries[i]);
        if (i == 0 && use.has_sizes) {
            html += fmt::format(R"(<td class="n" title="{} bytes">{}</td>)", owner.bytes,
                                bytes_text(owner.bytes));
        }
    }
    if (use.has_dirty) {
        html += number_cell(dirty_text(owner));
    }
    return html + bar_cell(owner.entries.back(), use.owners.front().entries.back()) +
           fmt::format(R"(<td class="path">{}</td>)", escaped(owner.path));
}

std::string use_html(const MapUse &use)
{
    if (use.users.empty() || use.owners.empty()) {
        return "";
    }
    std::string heads = number_head(use.owner);
    for (size_t i = 0; i < use.users.size(); i++) {
        heads += number_head(use.users[i]);
        if (i == 0 && use.has_sizes) {
            heads += number_head("bytes of files");
        }
    }
    if (use.has_dirty) {
        heads += number_head("dirty");
    }
    heads += element("th", "") + element("th", escaped(use.text_key));
    std::string rows;
    for (const MapOwner &owner : use.owners) {
        rows += element("tr", owner_html(use, owner)) + '\n';
    }
    return list_html(fmt::format("Use by {}", use.owner), heads, rows);
}

std::string ages_html(const Map &map)
{
    if (map.aged.empty()) {
        return "";
    }
    const uint64_t most = std::ranges::max(map.ages, {}, &MapAge::entries).entries;
    std::string rows;
    for (const MapAge &age : map.ages) {
        rows += fmt::format("<tr><td>{}</td>{}{}</tr>\n", age.name, number_cell(age.entries),
                            bar_cell(age.entries, most));
    }
    return list_html(ages_heading(map),
                     element("th", "within") + number_head(map.aged) + element("th", ""), rows,
                     odd_text(map));
}

std::string kinds_html(const Map &map)
{
    std::string rows;
    for (const auto &[kind, counts] : map.kinds) {
        rows += element("tr", element("td", kind) + number_cell(counts.count) +
                                  number_cell(counts.kept)) +
                '\n';
    }
    return list_html("Findings by kind",
                     element("th", "kind") + number_head("findings") + number_head("listed"), rows);
}

/* A choice among all values of something that findings have; the first is empty, for any. */
std::string choice_html(std::string_view name, const std::set<std::string_view> &values)
{
    std::string options = R"(<option value="">any</option>)";
    for (const std::string_view value : values) {
        options += element("option", value);
    }
    return fmt::format("<label>{0} <select name=\"{0}\">{1}</select></label>\n", name, options);
}

/* The script shows it: without it nothing can be chosen. */
std::string filter_html(const Map &map)
{
    std::set<std::string_view> severities;
    std::set<std::string_view> tables;
    std::set<std::string_view> kinds;
    for (const MapFinding &finding : map.findings) {
        severities.insert(severity_name(finding.severity));
        tables.insert(finding.table);
        kinds.insert(finding.kind);
    }
    return "<form class=\"filter\" hidden=\"hidden\">\n" + choice_html("severity", severities) +
           choice_html("table", tables) + choice_html("kind", kinds) +
           "<label>search <input type=\"search\" name=\"words\"/></label>\n"
           "<output name=\"shown\"></output>\n</form>\n";
}

std::string findings_html(const Map &map)
{
    if (map.findings.empty()) {
        return "<section>\n<h2>Findings</h2>\n<p class=\"good\">There are none.</p>\n</section>\n";
    }
    std::string rows;
    for (const MapFinding &finding : map.findings) {
        rows += fmt::format(
            "<tr data-severity=\"{0}\" data-table=\"{1}\" data-kind=\"{2}\"><td>{0}</td>"
            "<td>{3}</td><td>{4}</td><td><code>{5}</code></td></tr>\n",
            severity_name(finding.severity), finding.table, finding.kind, escaped(finding.about),
            escaped(finding.text), escaped(finding.command));
    }
    const uint64_t more = map.findings_count - map.findings.size();
    if (more != 0) {
        rows += fmt::format("<tr><td colspan=\"4\">and {} more</td></tr>\n", more);
    }
    return kinds_html(map) + "<div id=\"findings\">\n" + filter_html(map) +
           list_html("Findings", "<th></th><th>about</th><th>finding</th><th>to see it</th>",
                     rows) +
           "</div>\n";
}

} // namespace

std::string draw_page(const Map &map)
{
    std::string sections;
    for (const MapTable &table : map.tables) {
        sections += table_html(table);
    }
    sections += use_html(map.use) + ages_html(map) + findings_html(map);
    const std::string legend = fmt::format(LEGEND, map.plan.empty() ? "" : PLAN_LEGEND);
    return fmt::format(PAGE, escaped(shown_text(map.device)), MAP_STYLE, facts_of(map), legend,
                       sections, MAP_SCRIPT);
}

} // namespace tierctl
