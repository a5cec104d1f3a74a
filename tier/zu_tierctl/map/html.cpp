#include "zu_tierctl/device/json.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/map/map.h"
#include "zu_tierctl/map/page.h"

#include <algorithm>

namespace tierctl {

namespace {

constexpr size_t FEW_CELLS = 600; /* these are drawn larger */

/* The text as content of an element or of an attribute. */
std::string escaped(std::string_view text)
{
    std::string html;
    for (const char byte : valid_utf8(text)) {
        const auto code = static_cast<uint8_t>(byte);
        if (code < 0x20 || code == 0x7F) {
            html += "\xEF\xBF\xBD"; /* a page has no such characters: U+FFFD */
        } else if (std::string_view("<>&\"'").find(byte) != std::string_view::npos) {
            html += format_text("&#%u;", static_cast<unsigned>(code));
        } else {
            html += byte;
        }
    }
    return html;
}

std::string shown(const std::string &text)
{
    return escaped(shown_text(text));
}

std::string element(const char *name, const std::string &content)
{
    return format_text("<%s>", name) + content + format_text("</%s>", name);
}

/* Name and value stay together. */
std::string fact(const char *name, const std::string &value)
{
    return value.empty() ? "" : element("div", element("dt", name) + element("dd", value)) + '\n';
}

std::string facts_of(const Map &map)
{
    std::string html = "<dl class=\"facts\">\n";
    html += fact("Layout", std::string(map.layout));
    html += fact("Cache", map.identity);
    html += fact("Created", map.created);
    html += fact("Last access", map.accessed);
    html += fact("Findings", std::to_string(map.findings_count));
    return html + "</dl>\n";
}

std::string sample(const std::string &classes, const char *text)
{
    return "<li><span class=\"grid\">" + classes + "</span>" + text + "</li>\n";
}

std::string legend()
{
    std::string levels;
    for (unsigned level = 1; level <= 8; level++) {
        levels += format_text("<i class=\"u%u\"></i>", level);
    }
    return "<ul class=\"legend\">\n" + sample(levels, "in use, little to all") +
           sample("<i class=\"u0\"></i>", "free") + sample("<i class=\"f\"></i>", "finding") +
           sample("<i class=\"x\"></i>", "damaged") + sample("<i class=\"q\"></i>", "unreadable") +
           "</ul>\n";
}

std::string class_of(const MapCell &cell)
{
    switch (cell.look()) {
    case Look::unreadable:
        return "q";
    case Look::damaged:
        return "x";
    case Look::finding:
        return "f";
    default:
        return format_text("u%u", cell.level());
    }
}

std::string cell_html(const MapCell &cell)
{
    const std::string range = cell.first == cell.last
                                  ? std::to_string(cell.first)
                                  : format_text("%lu to %lu", cell.first, cell.last);
    return "<i class=\"" + class_of(cell) + "\" title=\"" + range + ": " +
           counts_text(cell.counts, cell.findings) + "\"></i>\n";
}

std::string table_html(const MapTable &table)
{
    const std::string name(table.name);
    const std::string counts = counts_text(table.counts, table.findings);
    std::string html =
        "<section>\n<div class=\"head\">" + element("h2", name) + element("p", counts);
    if (table.cell_entries > 1) {
        html += format_text("<p class=\"cell\">%lu entries a cell</p>", table.cell_entries);
    }
    html += "</div>\n";
    if (!table.cells.empty()) {
        const char *size = table.cells.size() <= FEW_CELLS ? "grid few" : "grid";
        html += format_text(R"(<div class="%s" data-name="%s" tabindex="0" role="group")", size,
                            name.c_str());
        html += " aria-label=\"" + name + ": " + counts + ". Arrow keys go from cell to cell.\">\n";
        for (const MapCell &cell : table.cells) {
            html += cell_html(cell);
        }
        html += "</div>\n";
    }
    return html + "</section>\n";
}

std::string number_cell(const std::string &number)
{
    return "<td class=\"n\">" + number + "</td>";
}

std::string bar_cell(uint64_t part, uint64_t whole)
{
    if (part == 0) {
        return R"(<td class="bar"></td>)";
    }
    return format_text(R"(<td class="bar"><b style="width:%.1f%%"></b></td>)",
                       static_cast<double>(part) / static_cast<double>(whole) * 100);
}

/* A table under a heading; `columns` is its first row. */
std::string list_html(const char *heading, const std::string &columns, const std::string &rows)
{
    return "<section>\n" + element("h2", heading) + "\n<div class=\"wide\"><table>\n<thead><tr>" +
           columns + "</tr></thead>\n<tbody>\n" + rows + "</tbody>\n</table></div>\n</section>\n";
}

std::string bricks_html(const Map &map)
{
    std::string rows;
    for (const MapBrick &brick : map.bricks) {
        rows += "<tr>" + number_cell(brick.name) + number_cell(std::to_string(brick.inodes));
        rows += format_text(R"(<td class="n" title="%lu bytes">)", brick.bytes) +
                bytes_text(brick.bytes) + "</td>";
        rows += number_cell(std::to_string(brick.extents)) +
                bar_cell(brick.extents, map.bricks.front().extents);
        rows += R"(<td class="path">)" + escaped(brick.path) + "</td></tr>\n";
    }
    return rows.empty() ? ""
                        : list_html("Use by brick",
                                    "<th class=\"n\">brick</th><th class=\"n\">inodes</th>"
                                    "<th class=\"n\">bytes of files</th>"
                                    "<th class=\"n\">extents</th><th></th><th>path</th>",
                                    rows);
}

std::string ages_html(const Map &map)
{
    const uint64_t most = std::ranges::max(map.ages, {}, &MapAge::inodes).inodes;
    std::string rows;
    for (const MapAge &age : map.ages) {
        rows += "<tr>" + element("td", std::string(age.name)) +
                number_cell(std::to_string(age.inodes)) + bar_cell(age.inodes, most) + "</tr>\n";
    }
    return list_html("Inodes by the time from their last access to the newest one",
                     "<th>within</th><th class=\"n\">inodes</th><th></th>", rows);
}

std::string findings_html(const Map &map)
{
    if (map.findings.empty()) {
        return "<section>\n<h2>Findings</h2>\n<p class=\"good\">There are none.</p>\n</section>\n";
    }
    std::string rows;
    for (const MapFinding &finding : map.findings) {
        const bool error = finding.severity == Severity::error;
        rows += "<tr>" + element("td", error ? "error" : "warning") +
                element("td", escaped(finding.about)) + element("td", escaped(finding.text)) +
                element("td", element("code", escaped(finding.command))) + "</tr>\n";
    }
    const uint64_t more = map.findings_count - map.findings.size();
    if (more != 0) {
        rows += format_text("<tr><td colspan=\"4\">and %lu more</td></tr>\n", more);
    }
    return list_html("Findings", "<th></th><th>about</th><th>finding</th><th>to see it</th>", rows);
}

} // namespace

std::string draw_page(const Map &map)
{
    const std::string device = shown(map.device);
    std::string html = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n"
                       "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
                       "<title>Map of " +
                       device + "</title>\n<style>" + MAP_STYLE +
                       "</style>\n</head>\n<body>\n<header>\n" + element("h1", device) + '\n' +
                       facts_of(map) + legend() + "</header>\n<main>\n";
    for (const MapTable &table : map.tables) {
        html += table_html(table);
    }
    return html + bricks_html(map) + ages_html(map) + findings_html(map) +
           "</main>\n<p id=\"tip\" role=\"status\" hidden=\"hidden\"></p>\n<script>" + MAP_SCRIPT +
           "</script>\n</body>\n</html>\n";
}

} // namespace tierctl
