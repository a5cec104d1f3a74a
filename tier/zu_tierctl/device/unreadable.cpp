#include "zu_tierctl/device/unreadable.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"

#include <cstdio>
#include <cstring>
#include <fmt/core.h>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>

namespace tierctl {

namespace {

using Json = nlohmann::json;

constexpr size_t TEXT_A_WRITE = 65536;

struct CloseFile {
    void operator()(FILE *file) const { fclose(file); }
};

/* The list; an empty one when there is no such file, and no array when it is no JSON. */
Json read_list(const std::string &path)
{
    const std::unique_ptr<FILE, CloseFile> file(fopen(path.c_str(), "re"));
    if (file == nullptr && errno == ENOENT) {
        return Json::array();
    }
    const Json list = file != nullptr ? Json::parse(file.get(), nullptr, false) : Json();
    if (file == nullptr || ferror(file.get()) != 0) {
        throw_errno("cannot read " + path);
    }
    return list;
}

} // namespace

std::string unreadable_path(const std::string &saved) { return saved + ".unreadable.json"; }

UnreadableWriter::UnreadableWriter(const std::string &saved) : path_(unreadable_path(saved)) {}

void UnreadableWriter::add(std::string_view table, const Slots &slots)
{
    text_ += empty() ? "[\n" : ",\n";
    if (!file_) {
        file_.emplace(path_, Naming::new_name);
    }
    text_ +=
        fmt::format(R"({{"table":{},"no":{},"count":{},"offset":{},"error":{}}})", json_text(table),
                    slots.first_no, slots.count, slots.offset, json_text(strerror(slots.error)));
    if (text_.size() >= TEXT_A_WRITE) {
        flush();
    }
}

void UnreadableWriter::commit()
{
    if (file_) {
        text_ += "\n]\n";
        flush();
        file_->commit();
    }
}

void UnreadableWriter::flush()
{
    file_->write(offset_, text_.data(), text_.size());
    offset_ += static_cast<int64_t>(text_.size());
    text_.clear();
}

UnreadableList::UnreadableList(const std::string &saved)
{
    const std::string path = unreadable_path(saved);
    const std::string complaint = path + " is no list of unreadable blocks";
    const Json list = read_list(path);
    if (!list.is_array()) {
        throw std::runtime_error(complaint);
    }
    const auto field = [&complaint](const Json &run, const char *key, Json::value_t type) {
        const auto found = run.find(key);
        if (found == run.end() || found->type() != type) {
            throw std::runtime_error(complaint + ": " + key);
        }
        return *found;
    };
    for (const Json &run : list) {
        const Json table = field(run, "table", Json::value_t::string);
        const Json count = field(run, "count", Json::value_t::number_unsigned);
        const Json no = field(run, "no", Json::value_t::number_unsigned);
        runs_[{table, no}] = count;
    }
}

bool UnreadableList::holds(const std::string &table, uint64_t no) const
{
    const auto after = runs_.upper_bound({table, no});
    if (after == runs_.begin()) {
        return false;
    }
    const auto &[first, count] = *std::prev(after);
    return first.first == table && no - first.second < count;
}

} // namespace tierctl
