#include "zu_tierctl/device/mapfile.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/fd.h"
#include "zu_tierctl/device/number.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fmt/core.h>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>

namespace tierctl {

namespace {

constexpr uint64_t OFFSETS_END = std::numeric_limits<int64_t>::max();
constexpr size_t LINE_MAX_LENGTH = 4096; /* heading comments have a command line */

struct CloseFile {
    void operator()(FILE *file) const { fclose(file); }
};

/* Opens a regular file: anything else may wait for another program. */
std::unique_ptr<FILE, CloseFile> open_text(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        throw_errno("cannot open " + path);
    }
    std::unique_ptr<FILE, CloseFile> file(fdopen(fd, "r"));
    struct stat status {};
    if (file == nullptr || fstat(fd, &status) != 0) {
        throw_errno("cannot open " + path);
    }
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error(path + " is no regular file");
    }
    return file;
}

/* The words of a line up to a comment, at most four. */
std::vector<std::string_view> words_of(std::string_view line)
{
    constexpr std::string_view BLANKS = " \t\r\n";
    std::vector<std::string_view> words;
    while (words.size() < 4) {
        line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
        if (line.empty() || line.front() == '#') {
            break;
        }
        const size_t length = std::min(line.find_first_of(BLANKS), line.size());
        words.push_back(line.substr(0, length));
        line.remove_prefix(length);
    }
    return words;
}

bool is_status(std::string_view word, std::string_view known)
{
    return word.size() == 1 && known.find(word.front()) != std::string_view::npos;
}

} // namespace

Mapfile::Mapfile(const std::string &path) : is_any_(true)
{
    const auto file = open_text(path);
    const auto require = [&path](bool holds, size_t line) {
        if (!holds) {
            throw std::runtime_error(
                fmt::format("{} is no mapfile of ddrescue: line {}", path, line));
        }
    };
    std::string line(LINE_MAX_LENGTH, '\0');
    bool has_position = false;
    size_t number = 0;
    while (fgets(line.data(), static_cast<int>(line.size()), file.get()) != nullptr) {
        number++;
        const std::string_view text(line.c_str());
        require(text.ends_with('\n') || feof(file.get()) != 0, number);
        const std::vector<std::string_view> words = words_of(text);
        if (words.empty()) {
            continue;
        }
        if (!has_position) { /* where ddrescue works now, in what phase and pass */
            require(words.size() <= 3 && words.size() >= 2 && parse_number(words[0]) &&
                        is_status(words[1], "?*/-FG+"),
                    number);
            has_position = true;
            continue;
        }
        require(words.size() == 3 && is_status(words[2], "?*/-+"), number);
        const std::optional<uint64_t> start = parse_number(words[0]);
        const std::optional<uint64_t> length = parse_number(words[1]);
        require(start && length && *start <= OFFSETS_END && *length <= OFFSETS_END - *start &&
                    (end_ == 0 || *start == end_),
                number);
        add(*start, *length, words[2] == "+");
    }
    if (ferror(file.get()) != 0) {
        throw_errno("cannot read " + path);
    }
    require(has_position, number + 1);
}

void Mapfile::add(uint64_t start, uint64_t length, bool is_finished)
{
    end_ = start + length;
    if (!is_finished) {
        return;
    }
    if (!finished_.empty() && finished_.back().end == start) {
        finished_.back().end = end_;
    } else {
        finished_.push_back({start, end_});
    }
}

bool Mapfile::is_finished(int64_t offset, size_t length) const
{
    if (!is_any_) {
        return true;
    }
    const auto start = static_cast<uint64_t>(offset);
    const auto after = std::ranges::upper_bound(finished_, start, {}, &Stretch::start);
    return after != finished_.begin() && std::prev(after)->end >= start + length;
}

MapfileWriter::MapfileWriter(uint64_t size, std::function<void(std::string_view text)> write)
    : size_(size), write_(std::move(write))
{
    write_(fmt::format("# Mapfile. Created by zu_tierctl\n"
                       "# current_pos  current_status  current_pass\n"
                       "0x00000000     ?               1\n"
                       "#      pos        size  status\n"));
}

void MapfileWriter::add(uint64_t start, uint64_t length, CopyStatus status)
{
    const uint64_t end = start < size_ ? start + std::min(length, size_ - start) : start;
    if (start >= size_ || end <= end_) {
        return;
    }
    if (start > end_) {
        extend(start, CopyStatus::not_tried);
    }
    extend(end, status);
}

void MapfileWriter::extend(uint64_t end, CopyStatus status)
{
    if (status != status_) {
        flush();
        status_ = status;
    }
    end_ = end;
}

void MapfileWriter::flush()
{
    if (end_ > start_) {
        write_(fmt::format("{:#010x}  {:#010x}  {}\n", start_, end_ - start_,
                           static_cast<char>(status_)));
        start_ = end_;
    }
}

void MapfileWriter::finish()
{
    if (end_ < size_) {
        extend(size_, CopyStatus::not_tried);
    }
    flush();
}

} // namespace tierctl
