#include "zu_tierctl/device/lines.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/fields.h"
#include "zu_tierctl/usage/usage.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <utility>

namespace tierctl {

namespace {

/* Widths of the columns, where a line has room for all of them. */
constexpr size_t NAME_WIDTH = 16;
constexpr size_t CACHED_WIDTH = 12;
constexpr size_t DIRTY_WIDTH = 18;
constexpr size_t PIECES_WIDTH = 10;
constexpr size_t CHANGED_WIDTH = 21;
constexpr size_t ALL_WIDTH = NAME_WIDTH + CACHED_WIDTH + DIRTY_WIDTH + PIECES_WIDTH + CHANGED_WIDTH;

constexpr size_t LABEL_MIN = 12; /* fewer characters of a path would say nothing */
constexpr size_t RUNS_SHOWN = 12;

constexpr TextStyle NOT_BACK = "33";

constexpr uint64_t MOST = ~uint64_t{0};

const char *state_name(State state)
{
    switch (state) {
    case State::in_use:
        return "in use";
    case State::free:
        return "free";
    case State::damaged:
        return "damaged";
    case State::missing:
        return "missing";
    default:
        return "unreadable";
    }
}

/* "12 bytes", "1.2 GiB" */
std::string amount_text(uint64_t bytes)
{
    if (bytes == MOST) {
        return "16.0 EiB or more";
    }
    return bytes < 1024 ? fmt::format("{} byte{}", bytes, bytes == 1 ? "" : "s")
                        : bytes_text(bytes);
}

std::string count_text(uint64_t count, std::string_view what)
{
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

/* "extent 3..14 (12 of them) damaged" */
std::string run_text(const UnknownRun &run)
{
    return fmt::format("{} {}{} {}", run.table, range_text(run.first, run.last),
                       text_if(run.count > 1, fmt::format(" ({} of them)", run.count)), run.why);
}

/* A row of the table: what it is about, then its sums. */
struct Row {
    std::string name;
    const DataSum &data;
    std::string changed;
    std::string label; /* a path or an identity */
    TextStyle style = PLAIN;
};

class UsageText {
public:
    UsageText(const Usage &usage, const UsageView &view, size_t width, bool colours)
        : usage_(usage), view_(view), lines_(width, colours)
    {
    }

    std::string draw()
    {
        draw_head();
        if (view_.file) {
            const FileUse file = get_file(usage_, *view_.file);
            most_ = file.data.dirty;
            draw_titles(usage_.file_table);
            draw_file(file, "");
            if (file.state == State::in_use) {
                lines_.add_words(PLAIN, fmt::format("identity {}, {} {}, {} bytes",
                                                    zutr_uuid_utoa(file.identity),
                                                    usage_.owner_table, file.owner, file.size));
                lines_.end_line();
            }
        } else if (view_.by == By::owner) {
            draw_owners();
        } else if (view_.by == By::file) {
            draw_files();
        } else {
            draw_ages();
        }
        draw_unknown();
        UsageTotal total;
        total.add(usage_, view_);
        lines_.add_words(BOLD, total_text(total));
        lines_.end_line();
        return lines_.take();
    }

private:
    void draw_head()
    {
        lines_.add_words(BOLD, shown_text(usage_.device));
        lines_.end_line();
        lines_.add_phrase(PLAIN, fmt::format("layout {},", usage_.layout));
        lines_.add_phrase(PLAIN, fmt::format("cache {}", usage_.identity));
        lines_.end_line();
        if (usage_.is_bound) {
            lines_.add_words(PLAIN, fmt::format("bytes are upper bounds: blocks of {}, in use as "
                                                "far as only the service knows",
                                                amount_text(usage_.block_size)));
            lines_.end_line();
        }
    }

    void draw_titles(std::string_view name, const char *last = "last change")
    {
        lines_.end_line();
        draw_columns(BOLD, std::string(name), "cached", "not written back", "pieces", last);
        lines_.end_line();
    }

    void draw_columns(TextStyle style, const std::string &name, const std::string &cached,
                      const std::string &dirty, const std::string &pieces,
                      const std::string &changed)
    {
        const size_t width = columns(name);
        lines_.add(BOLD, name + std::string(width < NAME_WIDTH && lines_.width() >= ALL_WIDTH
                                                ? NAME_WIDTH - width
                                                : 0,
                                            ' '));
        lines_.add_column(style, cached, CACHED_WIDTH, ALL_WIDTH);
        lines_.add_column(style, dirty, DIRTY_WIDTH, ALL_WIDTH);
        lines_.add_column(style, pieces, PIECES_WIDTH, ALL_WIDTH);
        lines_.add_column(style, changed, CHANGED_WIDTH, ALL_WIDTH);
    }

    void draw_row(const Row &row)
    {
        draw_columns(row.style, row.name, bytes_text(row.data.cached), bytes_text(row.data.dirty),
                     fmt::format("{}", row.data.pieces), row.changed);
        if (lines_.width() > ALL_WIDTH + BAR_WIDTH) {
            const std::string drawn = bar(row.data.dirty, most_);
            lines_.add(NOT_BACK, ' ' + drawn + std::string(BAR_WIDTH - columns(drawn), ' '));
            const size_t room = lines_.width() - ALL_WIDTH - BAR_WIDTH - 1;
            if (room > LABEL_MIN) {
                lines_.add(DIM, ' ' + path_end(row.label, room - 1));
            }
        }
        lines_.end_line();
    }

    void draw_file(const FileUse &file, std::string_view indent)
    {
        const bool is_sound = file.state == State::in_use;
        draw_row({.name = fmt::format("{}{} {}", indent, usage_.file_table, file.no),
                  .data = file.data,
                  .changed = is_sound ? time_text(file.changed) : state_name(file.state),
                  .label = text_if(is_sound, zutr_uuid_utoa(file.identity))});
    }

    void draw_more(uint64_t count, std::string_view indent)
    {
        if (count > view_.top) {
            lines_.add(PLAIN, fmt::format("{}and {} more", indent, count - view_.top));
            lines_.end_line();
        }
    }

    void draw_owners()
    {
        most_ = 0;
        for (const OwnerUse &owner : usage_.owners) {
            most_ = std::max(most_, owner.sum.data.dirty);
        }
        draw_titles(usage_.owner_table);
        for (const OwnerUse &owner : usage_.owners) {
            const std::string name = owner.is_known
                                         ? fmt::format("{} {}", usage_.owner_table, owner.no)
                                         : fmt::format("{} unknown", usage_.owner_table);
            draw_row({.name = name,
                      .data = owner.sum.data,
                      .changed = owner.sum.changed != 0 ? time_text(owner.sum.changed) : "-",
                      .label = owner.path,
                      .style = BOLD});
            for (size_t i = 0; i < std::min<uint64_t>(owner.files.size(), view_.top); i++) {
                draw_file(usage_.files[owner.files[i]], "  ");
            }
            draw_more(owner.files.size(), "  ");
        }
    }

    void draw_files()
    {
        const std::vector<uint64_t> ranked = rank_files(usage_);
        most_ = ranked.empty() ? 0 : usage_.files[ranked.front()].data.dirty;
        draw_titles(usage_.file_table);
        for (size_t i = 0; i < std::min<uint64_t>(ranked.size(), view_.top); i++) {
            draw_file(usage_.files[ranked[i]], "");
        }
        draw_more(ranked.size(), "");
    }

    void draw_ages()
    {
        const std::vector<FilesSum> sums = sum_ages(usage_);
        most_ = 0;
        for (const FilesSum &sum : sums) {
            most_ = std::max(most_, sum.data.dirty);
        }
        draw_titles("changed within", "files");
        for (size_t i = 0; i < sums.size(); i++) {
            const bool is_group = i < std::size(AGE_GROUPS);
            if (is_group || sums[i].files != 0) {
                draw_row({.name = std::string(is_group ? AGE_GROUPS[i].name : "unknown"),
                          .data = sums[i].data,
                          .changed = fmt::format("{}", sums[i].files),
                          .label = ""});
            }
        }
    }

    void draw_unknown()
    {
        lines_.end_line();
        for (size_t i = 0; i < std::min(usage_.unknown.size(), RUNS_SHOWN); i++) {
            lines_.add_words(PLAIN, "unknown: " + run_text(usage_.unknown[i]));
            lines_.end_line();
        }
        if (usage_.unknown.size() > RUNS_SHOWN) {
            const uint64_t more = usage_.unknown.size() - RUNS_SHOWN + usage_.unknown_more;
            lines_.add_words(PLAIN, fmt::format("and {} more", count_text(more, "such run")));
            lines_.end_line();
        }
    }

    const Usage &usage_;
    const UsageView &view_;
    Lines lines_;
    uint64_t most_ = 0; /* for the bars: a whole one */
};

using Json = nlohmann::ordered_json;

Json data_json(const DataSum &data)
{
    return {{"cached", data.cached},
            {"dirty", data.dirty},
            {"pieces", data.pieces},
            {"dirty_pieces", data.dirty_pieces}};
}

Json files_json(const FilesSum &sum)
{
    Json json = {{"files", sum.files}, {"dirty_files", sum.dirty_files}};
    json.update(data_json(sum.data));
    return json;
}

Json file_json(const FileUse &file)
{
    Json json = {{"no", file.no}, {"state", state_name(file.state)}};
    if (file.state == State::in_use) {
        json["uuid"] = zutr_uuid_utoa(file.identity);
        json["brick"] = file.owner;
        json["size"] = file.size;
        json["changed"] = file.changed;
    }
    json.update(data_json(file.data));
    return json;
}

Json first_files_json(const Usage &usage, const std::vector<uint64_t> &numbers, uint64_t top)
{
    Json json = Json::array();
    for (size_t i = 0; i < std::min<uint64_t>(numbers.size(), top); i++) {
        json.push_back(file_json(usage.files[numbers[i]]));
    }
    return json;
}

Json owner_json(const Usage &usage, const OwnerUse &owner, uint64_t top)
{
    Json json = {{"no", owner.is_known ? Json(owner.no) : Json()},
                 {"known", owner.state == State::in_use},
                 {"path", valid_utf8(owner.path)}};
    json.update(files_json(owner.sum));
    json["changed"] = owner.sum.changed != 0 ? Json(owner.sum.changed) : Json();
    json["largest"] = first_files_json(usage, owner.files, top);
    return json;
}

Json ages_json(const Usage &usage)
{
    const std::vector<FilesSum> sums = sum_ages(usage);
    Json json = Json::array();
    for (size_t i = 0; i < sums.size(); i++) {
        json.push_back({{"within", i < std::size(AGE_GROUPS) ? AGE_GROUPS[i].name : "unknown"}});
        json.back().update(files_json(sums[i]));
    }
    return json;
}

Json unknown_json(const Usage &usage)
{
    Json json = Json::array();
    for (const UnknownRun &run : usage.unknown) {
        json.push_back({{"table", run.table},
                        {"why", run.why},
                        {"no", run.first},
                        {"last", run.last},
                        {"count", run.count}});
    }
    return json;
}

Json total_of(const UsageTotal &total)
{
    Json json = files_json(total.files);
    json["upper_bound"] = total.is_bound;
    json["unknown_files"] = data_json(total.orphans);
    json["unknown_extents"] = total.unknown_data;
    json["unknown_bytes_max"] = total.unknown_bytes;
    json["text"] = total_text(total);
    return json;
}

} // namespace

std::string total_text(const UsageTotal &total)
{
    std::string text = fmt::format("{}{} of {}", total.is_bound ? "at most " : "",
                                   amount_text(total.files.data.dirty),
                                   count_text(total.files.dirty_files, "file"));
    if (total.orphans.dirty_pieces != 0) {
        text +=
            fmt::format(", and {} of files that are not known,", amount_text(total.orphans.dirty));
    }
    text += " not written back";
    if (total.unknown_data != 0) {
        text += fmt::format("; {} unknown, with up to {}", count_text(total.unknown_data, "extent"),
                            amount_text(total.unknown_bytes));
    }
    return text;
}

std::string draw_usage(const Usage &usage, const UsageView &view, size_t width, bool colours)
{
    return UsageText(usage, view, width, colours).draw();
}

std::string usage_json(const Usage &usage, const UsageView &view)
{
    UsageTotal total;
    total.add(usage, view);
    Json json = {{"device", valid_utf8(usage.device)},
                 {"layout", usage.layout},
                 {"cache", usage.identity},
                 {"block_size", usage.block_size},
                 {"total", total_of(total)}};
    if (view.file) {
        json["file"] = file_json(get_file(usage, *view.file));
    } else if (view.by == By::owner) {
        json["bricks"] = Json::array();
        for (const OwnerUse &owner : usage.owners) {
            json["bricks"].push_back(owner_json(usage, owner, view.top));
        }
    } else if (view.by == By::file) {
        json["inodes"] = first_files_json(usage, rank_files(usage), view.top);
    } else {
        json["ages"] = ages_json(usage);
    }
    json["unknown"] = unknown_json(usage);
    json["unknown_more"] = usage.unknown_more;
    return json.dump() + '\n';
}

std::string total_json(const UsageTotal &total)
{
    return Json{{"total", total_of(total)}, {"not_read", total.not_read}}.dump() + '\n';
}

} // namespace tierctl
