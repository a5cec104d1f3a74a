#include "zu_tierctl/device/unreadable.h"

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <fmt/core.h>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <tuple>

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
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); /* it may be a FIFO */
    if (fd < 0 && (errno == ENOENT || errno == ENAMETOOLONG)) { /* none has so long a name */
        return Json::array();
    }
    const std::unique_ptr<FILE, CloseFile> file(fd < 0 ? nullptr : fdopen(fd, "r"));
    Json list = file != nullptr ? Json::parse(file.get(), nullptr, false) : Json();
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
                    slots.first_no, slots.count, slots.offset, json_text(error_text(slots.error)));
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
    const Json list = read_list(path);
    const auto require = [&path](bool holds, const char *what) {
        if (!holds) {
            throw std::runtime_error(path + " is no list of unreadable blocks" + what);
        }
    };
    require(list.is_array(), "");
    for (const Json &run : list) {
        require(run.is_object(), "");
        const Json table = run.value("table", Json());
        const Json no = run.value("no", Json());
        const Json count = run.value("count", Json());
        const Json offset = run.value("offset", Json());
        require(table.is_string(), ": table");
        require(no.is_number_unsigned(), ": no");
        require(count.is_number_unsigned(), ": count");
        require(offset.is_number_integer(), ": offset");
        runs_.push_back({table, no, count, offset});
    }
    std::ranges::sort(runs_, {}, &UnreadableRun::offset);
    std::ranges::for_each(runs_, [this](const UnreadableRun &run) { add_stretch(run); });
    std::ranges::sort(runs_, {},
                      [](const UnreadableRun &run) { return std::tie(run.table, run.no); });
}

/* What lies before the device or at no multiple of 4096 cannot be read in any case. */
void UnreadableList::add_stretch(const UnreadableRun &run)
{
    if (run.offset < 0 || run.offset % SIZE_4K != 0) {
        return;
    }
    constexpr uint64_t END = uint64_t{1} << 63; /* of all offsets */
    const auto start = static_cast<uint64_t>(run.offset);
    const uint64_t end = start + std::min(run.count, (END - start) / SIZE_4K) * SIZE_4K;
    if (!stretches_.empty() && start <= stretches_.back().end) {
        stretches_.back().end = std::max(stretches_.back().end, end);
    } else {
        stretches_.push_back({start, end});
    }
}

bool UnreadableList::touches(int64_t offset, size_t length) const
{
    const auto start = static_cast<uint64_t>(offset);
    const auto after = std::ranges::lower_bound(stretches_, start + length, {}, &Stretch::start);
    return after != stretches_.begin() && std::prev(after)->end > start;
}

} // namespace tierctl
