#include "zu_tierctl/plan/plan_file.h"

#include "zu_tierctl/device/base64.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/entry.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fmt/format.h>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

namespace tierctl {

namespace {

using Json = nlohmann::ordered_json;

constexpr uint64_t FORMAT = 1; /* of the file */

/* More than any line has: the keys of a block of packed entries are the longest. */
constexpr size_t LINE_MAX_SIZE = SIZE_1M;

constexpr uint64_t NUMBER_MAX = std::numeric_limits<uint64_t>::max();
constexpr uint64_t OFFSET_MAX = std::numeric_limits<int64_t>::max();

/* Deeper nesting is in no repair file. */
constexpr int DEPTH_MAX = 8;

constexpr std::array ACTIONS = {Action::mend, Action::copy, Action::restore, Action::free,
                                Action::leave};
constexpr std::array CERTAINTIES = {Certainty::certain, Certainty::likely, Certainty::none};

/* The one of the values that has this name. */
template <class Values, class Name>
auto value_of(const Values &values, const Name &name, const char *key, const std::string &text)
{
    const auto found = std::ranges::find(values, text, name);
    if (found == values.end()) {
        throw std::runtime_error(fmt::format("{} {} is unknown", key, tierctl::quoted(text)));
    }
    return *found;
}

/* The object in a line, in which no key comes twice. */
Json parse_line(const std::string &line)
{
    std::vector<std::set<std::string>> keys; /* of the objects that are open */
    Json json = Json::parse(
        line,
        [&keys](int depth, Json::parse_event_t event, const Json &parsed) {
            if (depth > DEPTH_MAX) {
                throw std::runtime_error("it is nested too deeply");
            }
            if (event == Json::parse_event_t::object_start) {
                keys.emplace_back();
            } else if (event == Json::parse_event_t::object_end) {
                keys.pop_back();
            } else if (event == Json::parse_event_t::key && !keys.back().insert(parsed).second) {
                throw std::runtime_error(
                    fmt::format("{} comes twice", tierctl::quoted(parsed.get<std::string>())));
            }
            return true;
        },
        false);
    if (!json.is_object()) {
        throw std::runtime_error("it is no JSON object");
    }
    return json;
}

/* Takes the members of an object, one after another, and refuses what is left. */
class Members {
public:
    explicit Members(Json object) : object_(std::move(object)) {}

    bool has(const char *key) const { return object_.contains(key); }

    Json take(const char *key, bool (Json::*is_right)() const, const char *type)
    {
        const auto found = object_.find(key);
        if (found == object_.end()) {
            throw std::runtime_error(fmt::format("{} is missing", key));
        }
        if (!((*found).*is_right)()) {
            throw std::runtime_error(fmt::format("{} is no {}", key, type));
        }
        Json value = std::move(*found);
        object_.erase(found);
        return value;
    }

    std::string text(const char *key) { return take(key, &Json::is_string, "text"); }

    uint64_t number(const char *key, uint64_t max)
    {
        const uint64_t value = take(key, &Json::is_number_unsigned, "whole number from 0 on");
        if (value > max) {
            throw std::runtime_error(fmt::format("{} is {}, more than {}", key, value, max));
        }
        return value;
    }

    int64_t offset(const char *key)
    {
        const Json value = take(key, &Json::is_number_integer, "whole number");
        if (value.is_number_unsigned() && value.get<uint64_t>() > OFFSET_MAX) {
            throw std::runtime_error(fmt::format("{} is past any offset", key));
        }
        return value.get<int64_t>();
    }

    Block block(const char *key)
    {
        const auto bytes = base64_bytes(text(key));
        if (!bytes || bytes->size() != SIZE_4K) {
            throw std::runtime_error(fmt::format("{} is no base64 text of 4096 bytes", key));
        }
        Block block;
        std::ranges::copy(*bytes, block.begin());
        return block;
    }

    void end() const
    {
        if (!object_.empty()) {
            throw std::runtime_error(tierctl::quoted(object_.begin().key()) + " is unknown");
        }
    }

private:
    Json object_;
};

Plan read_header(const std::string &line)
{
    Members header(parse_line(line));
    if (!header.has("plan") || header.number("plan", NUMBER_MAX) != FORMAT) {
        throw std::runtime_error(fmt::format("it is no plan of format {}", FORMAT));
    }
    header.text("zu_tierctl");
    header.text("device");
    Plan plan{
        header.text("layout"), header.number("size", OFFSET_MAX), header.block("super_block"), {}};
    header.end();
    const tier_layout *layout = find_layout(plan.layout);
    if (layout == nullptr) {
        throw std::runtime_error(fmt::format("layout {} is unknown", tierctl::quoted(plan.layout)));
    }
    if (!is_super(*layout, plan.super_block)) {
        throw std::runtime_error("super_block is no sound super block of layout " + plan.layout);
    }
    return plan;
}

/* The members that only a step with a block has. */
constexpr std::array OF_A_BLOCK = {"class", "lost",  "crc",   "unreadable",
                                   "keys",  "makes", "block", "fields"};

/* As an operator leaves it who has changed nothing but the action. */
void refuse_block(const Members &members)
{
    for (const char *key : OF_A_BLOCK) {
        if (members.has(key)) {
            throw std::runtime_error(fmt::format(
                "action leave has no {}: to leave an entry as it is, take out its line", key));
        }
    }
}

/* What people read must be what is written. */
void require_fields(const Metadata &metadata, const Table &table, const Step &step,
                    const Json &fields)
{
    alignas(SIZE_4K) Block block;
    step.block->get(block.data());
    const std::string shown = entry_text({metadata, table, step.no, block.data()});
    if (nlohmann::json::parse(fields.dump()) != nlohmann::json::parse(shown)) {
        throw std::runtime_error("fields are not those of the block: they are there to read, and "
                                 "changing them changes nothing");
    }
}

void read_block(Members &members, const Metadata &metadata, const Table &table, Step &step)
{
    if (step.action == Action::leave) {
        refuse_block(members);
        return;
    }
    if (table.name == SUPER_TABLE) {
        throw std::runtime_error("a plan does not change the super block");
    }
    if (!table.identifies()) {
        throw std::runtime_error(fmt::format("entries of {} do not fit their slots", table.name));
    }
    step.certainty = value_of(CERTAINTIES, certainty_name, "class", members.text("class"));
    if (members.has("unreadable")) {
        step.unreadable = members.take("unreadable", &Json::is_boolean, "true or false");
    }
    if (!step.unreadable) {
        step.crc =
            static_cast<uint32_t>(members.number("crc", std::numeric_limits<uint32_t>::max()));
    }
    if (members.has("keys") && members.has("block")) {
        throw std::runtime_error("it has both keys and block: only one can be written");
    }
    if (members.has("keys")) {
        step.keys = members.take("keys", &Json::is_object, "object").dump();
        if (members.has("makes")) {
            step.makes = static_cast<uint32_t>(
                members.number("makes", std::numeric_limits<uint32_t>::max()));
        }
    } else {
        step.block.emplace(members.block("block").data());
        if (members.has("fields")) {
            require_fields(metadata, table, step,
                           members.take("fields", &Json::is_object, "object"));
        }
    }
    step.lost = members.text("lost");
}

Step read_step(const std::string &line, const Plan &plan, const Metadata &metadata)
{
    Members members(parse_line(line));
    Step step{members.text("table"), members.number("no", NUMBER_MAX), members.offset("offset")};
    const auto table = std::ranges::find(metadata.tables, step.table, &Table::name);
    if (table == metadata.tables.end()) {
        throw std::runtime_error(fmt::format("table {} is unknown in layout {}",
                                             tierctl::quoted(step.table), plan.layout));
    }
    step.action = value_of(ACTIONS, action_name, "action", members.text("action"));
    require_slot(*table, step.no, step.offset);
    read_block(members, metadata, *table, step);
    step.reason = members.text("reason");
    members.end();
    if (step.action != Action::leave) {
        require_writable(plan.size, step.offset);
    }
    return step;
}

struct CloseFile {
    void operator()(FILE *file) const { fclose(file); }
};

/* Reads a file line by line. */
class Lines {
public:
    Lines(const std::string &path, const TakeText &take)
        : path_(path), take_(take), file_(fopen(path.c_str(), "re"))
    {
        if (file_ == nullptr) {
            throw_errno("cannot read " + path_);
        }
    }

    /* The next line that is not empty; nothing at the end of the file. */
    std::optional<std::string> next()
    {
        std::string line;
        while (line.empty()) {
            no_++;
            if (!read(line)) {
                return std::nullopt;
            }
        }
        return line;
    }

    uint64_t no() const { return no_; } /* of the last line */
    const TextSum &sum() const { return sum_; }

    [[noreturn]] void refuse(const std::string &reason) const
    {
        throw std::runtime_error(fmt::format("{}, line {}: {}", path_, no_, reason));
    }

private:
    /* False at the end of the file; the last line may lack its line feed. */
    bool read(std::string &line)
    {
        while (true) {
            if (unread_.empty() && !fill()) {
                return !line.empty();
            }
            const size_t end = unread_.find('\n');
            line += unread_.substr(0, end);
            if (line.size() > LINE_MAX_SIZE) {
                refuse("it is longer than any line of a plan");
            }
            if (end != std::string_view::npos) {
                unread_.remove_prefix(end + 1);
                return true;
            }
            unread_ = {};
        }
    }

    bool fill()
    {
        errno = 0;
        const size_t length = fread(buffer_.data(), 1, buffer_.size(), file_.get());
        if (length == 0 && errno != 0) {
            throw_errno("cannot read " + path_);
        }
        if (length == 0) {
            return false;
        }
        unread_ = {buffer_.data(), length};
        sum_.add(unread_);
        take_(unread_);
        return true;
    }

    const std::string &path_;
    const TakeText &take_;
    std::unique_ptr<FILE, CloseFile> file_;
    std::array<char, size_t{1} << 16> buffer_;
    std::string_view unread_; /* of the buffer */
    TextSum sum_;             /* of what was read */
    uint64_t no_ = 0;
};

/* Calls `read` with the next line; false at the end of the file. */
template <class Read>
bool read_next(Lines &lines, const Read &read)
{
    const std::optional<std::string> line = lines.next();
    if (!line) {
        return false;
    }
    try {
        read(*line);
    } catch (const std::exception &error) {
        lines.refuse(error.what());
    }
    return true;
}

} // namespace

std::string_view action_name(Action action)
{
    switch (action) {
    case Action::mend:
        return "mend";
    case Action::copy:
        return "copy";
    case Action::restore:
        return "restore";
    case Action::free:
        return "free";
    default:
        return "leave";
    }
}

std::string plan_header_line(const Plan &plan, std::string_view release, std::string_view device)
{
    return fmt::format(R"({{"plan":{},"zu_tierctl":{},"device":{},"layout":{},"size":{},)"
                       R"("super_block":"{}"}})"
                       "\n",
                       FORMAT, json_text(release), json_text(device), json_text(plan.layout),
                       plan.size, base64_text(plan.super_block));
}

std::string step_line(const Step &step, std::string_view fields)
{
    std::string line = fmt::format(R"({{"table":"{}","no":{},"offset":{},"action":"{}")",
                                   step.table, step.no, step.offset, action_name(step.action));
    if (step.action == Action::leave) {
        return line + fmt::format(",\"reason\":{}}}\n", json_text(step.reason));
    }
    line += fmt::format(R"(,"class":"{}","reason":{},"lost":{})", certainty_name(step.certainty),
                        json_text(step.reason), json_text(step.lost));
    if (step.unreadable) {
        line += ",\"unreadable\":true";
    } else {
        line += fmt::format(",\"crc\":{}", step.crc);
    }
    if (step.makes) {
        line += fmt::format(",\"makes\":{}", *step.makes);
    }
    if (step.keys) {
        line += ",\"keys\":" + *step.keys;
    } else {
        Block block;
        step.block->get(block.data());
        line += fmt::format(R"(,"fields":{},"block":"{}")", fields, base64_text(block));
    }
    return line + "}\n";
}

void require_slot(const Table &table, uint64_t no, int64_t offset)
{
    const std::string name = fmt::format("{} {}", table.name, no);
    if (no >= table.count()) {
        throw std::runtime_error(
            fmt::format("there is no {}: the table has {} slots", name, table.count()));
    }
    if (offset != table.slot(no)) {
        throw std::runtime_error(
            fmt::format("offset is {}, but {} lies at {}", offset, name, table.slot(no)));
    }
}

void require_writable(uint64_t size, int64_t offset)
{
    const bool is_on_device =
        offset >= 0 && offset % SIZE_4K == 0 && static_cast<uint64_t>(offset) + SIZE_4K <= size;
    if (!is_on_device) {
        throw std::runtime_error(
            fmt::format("what lies at {} is no block of a device of {} bytes", offset, size));
    }
    if (offset == TIER_SUPER_OFFSET) {
        throw std::runtime_error("the super block lies there");
    }
}

Plan read_plan(const std::string &path, const TakeText &take)
{
    Lines lines(path, take);
    Plan plan{};
    if (!read_next(lines, [&plan](const std::string &line) { plan = read_header(line); })) {
        throw std::runtime_error(path + " is empty: it is no plan");
    }
    const tier_layout &layout = *find_layout(plan.layout);
    const Metadata metadata{&layout, plan.super_block, tables_of(layout, plan.super_block.data())};
    std::set<std::pair<std::string, uint64_t>> slots;
    std::set<int64_t> blocks; /* that are written */
    while (read_next(lines, [&](const std::string &line) {
        Step step = read_step(line, plan, metadata);
        if (!slots.emplace(step.table, step.no).second) {
            throw std::runtime_error(fmt::format("{} {} has a step already", step.table, step.no));
        }
        if (step.action != Action::leave && !blocks.insert(step.offset).second) {
            throw std::runtime_error(
                fmt::format("another step writes the block at {} already", step.offset));
        }
        step.line = lines.no();
        plan.steps.push_back(std::move(step));
    })) {
    }
    plan.text = lines.sum();
    return plan;
}

} // namespace tierctl
