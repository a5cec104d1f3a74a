#include "zu_tierctl/device/unreadable.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/json.h"

#include <array>
#include <cjson/cJSON.h>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>

namespace tierctl {

namespace {

constexpr size_t TEXT_A_WRITE = 65536;

struct close_file {
    void operator()(FILE *file) const { fclose(file); }
};

struct delete_json {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};

/* The text of the list; without a file, that of an empty one. */
std::string read_list(const std::string &path)
{
    const std::unique_ptr<FILE, close_file> file(fopen(path.c_str(), "re"));
    if (file == nullptr && errno == ENOENT) {
        return "[]";
    }
    std::string text;
    std::array<char, TEXT_A_WRITE> part;
    size_t got = file == nullptr ? 0 : fread(part.data(), 1, part.size(), file.get());
    for (; got > 0; got = fread(part.data(), 1, part.size(), file.get())) {
        text.append(part.data(), got);
    }
    if (file == nullptr || ferror(file.get()) != 0) {
        throw_errno("cannot read " + path);
    }
    return text;
}

/* A number that the tool has written, exact up to 2^53. */
uint64_t read_number(const cJSON *object, const char *key, const std::string &path)
{
    constexpr double LIMIT = 18446744073709551616.0;
    const cJSON *item = cJSON_GetObjectItem(object, key);
    if (!cJSON_IsNumber(item) || !(item->valuedouble >= 0) || item->valuedouble >= LIMIT) {
        throw std::runtime_error(path + " is no list of unreadable blocks: " + key);
    }
    return static_cast<uint64_t>(item->valuedouble);
}

} // namespace

std::string unreadable_path(const std::string &saved)
{
    return saved + ".unreadable.json";
}

UnreadableWriter::UnreadableWriter(const std::string &saved) : path_(unreadable_path(saved)) {}

void UnreadableWriter::add(std::string_view table, const Slots &slots)
{
    text_ += empty() ? "[\n" : ",\n";
    if (!file_) {
        file_.emplace(path_);
    }
    text_ += "{\"table\":" + json_text(table) + ",\"no\":" + std::to_string(slots.first_no) +
             ",\"count\":" + std::to_string(slots.count) +
             ",\"offset\":" + std::to_string(slots.offset) +
             ",\"error\":" + json_text(strerror(slots.error)) + '}';
    if (text_.size() >= TEXT_A_WRITE) {
        flush();
    }
}

void UnreadableWriter::commit()
{
    if (file_) {
        text_ += "\n]\n";
        flush();
        file_->commit(Naming::new_name);
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
    const std::unique_ptr<cJSON, delete_json> list(cJSON_Parse(read_list(path).c_str()));
    if (!cJSON_IsArray(list.get())) {
        throw std::runtime_error(path + " is no list of unreadable blocks");
    }
    for (const cJSON *item = list->child; item != nullptr; item = item->next) {
        const cJSON *table = cJSON_GetObjectItem(item, "table");
        if (!cJSON_IsString(table)) {
            throw std::runtime_error(path + " is no list of unreadable blocks: table");
        }
        runs_[{table->valuestring, read_number(item, "no", path)}] =
            read_number(item, "count", path);
    }
}

bool UnreadableList::holds(const std::string &table, uint64_t no) const
{
    const auto behind = runs_.upper_bound({table, no});
    if (behind == runs_.begin()) {
        return false;
    }
    const auto &[first, count] = *std::prev(behind);
    return first.first == table && no - first.second < count;
}

} // namespace tierctl
