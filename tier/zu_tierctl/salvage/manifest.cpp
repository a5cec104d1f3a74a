#include "zu_tierctl/salvage/manifest.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fmt/core.h>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/file.h>
#include <unistd.h>

namespace tierctl {

namespace {

using Json = nlohmann::json;

constexpr std::array<std::string_view, OUTCOMES> STATES = {"copied", "unreadable", "no place",
                                                           "too large"};

/* Reads the lines of a file; one that is not complete is none. */
class LineReader {
public:
    LineReader(const Target &target, int fd) : target_(target), fd_(fd) {}

    /* False at the end. */
    bool next(std::string *line)
    {
        size_t end = 0;
        while ((end = text_.find('\n', start_)) == std::string::npos) {
            text_.erase(0, start_);
            start_ = 0;
            std::array<char, 65536> more;
            const ssize_t got = pread(fd_, more.data(), more.size(), offset_);
            if (got < 0) {
                target_.fail("read", Manifest::NAME);
            }
            if (got == 0) {
                return false;
            }
            offset_ += got;
            text_.append(more.data(), static_cast<size_t>(got));
        }
        line->assign(text_, start_, end - start_);
        start_ = end + 1;
        return true;
    }

private:
    const Target &target_;
    int fd_;
    off_t offset_ = 0;
    std::string text_;
    size_t start_ = 0;
};

/* The head without the path of the device, which may have moved. */
Json parse_head(const std::string &text)
{
    Json head = Json::parse(text, nullptr, false);
    if (head.is_object()) {
        head.erase("device");
    }
    return head;
}

/* A segment as a line says. Nothing where the line is none of that piece, from byte `at` of it on.
 */
std::optional<Segment> parse_segment(const std::string &text, const DataPlan &plan,
                                     const DataPiece &piece, uint64_t at)
{
    const Json line = Json::parse(text, nullptr, false);
    if (!line.is_object()) {
        return std::nullopt;
    }
    const auto is = [&line](const char *key, const Json &value) {
        return line.value(key, Json()) == value;
    };
    const auto *const outcome =
        std::ranges::find_if(STATES, [&](std::string_view known) { return is("state", known); });
    const Json length = line.value("length", Json());
    if (outcome == STATES.end() || !length.is_number_unsigned() || length.get<uint64_t>() == 0 ||
        length.get<uint64_t>() > piece.length - at || !is("file", plan.path(piece)) ||
        !is("offset", tier_add(plan.offset(piece), at)) ||
        !is("device_offset", tier_add(piece.start, at))) {
        return std::nullopt;
    }
    return Segment{at, length.get<uint64_t>(), static_cast<Outcome>(outcome - STATES.begin()), 0};
}

} // namespace

Manifest::Manifest(const Target &target, const std::string &head)
    : target_(target), fd_(target.open_manifest(NAME))
{
    /* Not every file system has locks: without one nobody else is seen. */
    if (flock(fd_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw std::runtime_error("another salvage is at work in " + target_.path() +
                                 ": wait for its end, or give another directory");
    }
    std::string first;
    if (LineReader(target, fd_.get()).next(&first)) {
        if (!(parse_head(first) == parse_head(head))) { /* what is no JSON is not even unequal */
            throw std::runtime_error(
                fmt::format("{}/{} is that of another device, or of another choice of its data",
                            target_.path(), NAME));
        }
        head_end_ = first.size() + 1;
        return;
    }
    if (ftruncate(fd_.get(), 0) != 0) {
        target_.fail("write", NAME);
    }
    text_ = head + "\n";
    head_end_ = text_.size();
    sync();
}

size_t Manifest::resume(const DataPlan &plan, const std::function<void(const Segment &)> &use)
{
    LineReader reader(target_, fd_.get());
    std::string line;
    reader.next(&line);
    uint64_t number = 1;
    uint64_t end = head_end_;
    size_t done = 0;
    uint64_t at = 0;
    std::vector<Segment> segments; /* of the piece that is read */
    end_ = end;
    while (reader.next(&line)) {
        number++;
        end += line.size() + 1;
        const auto segment = done < plan.pieces().size()
                                 ? parse_segment(line, plan, plan.pieces()[done], at)
                                 : std::nullopt;
        if (!segment) {
            refuse(number);
        }
        if (segment->outcome == Outcome::too_large) {
            break;
        }
        segments.push_back(*segment);
        at += segment->length;
        if (at == plan.pieces()[done].length) {
            std::ranges::for_each(segments, use);
            segments.clear();
            at = 0;
            done++;
            end_ = end;
        }
    }
    if (ftruncate(fd_.get(), static_cast<off_t>(end_)) != 0) {
        target_.fail("write", NAME);
    }
    return done;
}

void Manifest::refuse(uint64_t line) const
{
    throw std::runtime_error(fmt::format(
        "{}/{}: line {} is not what the device holds there now; salvage it into a new directory",
        target_.path(), NAME, line));
}

void Manifest::add(const DataPlan &plan, const DataPiece &piece, const Segment &segment)
{
    constexpr size_t TEXT_A_WRITE = 65536;
    text_ += fmt::format(
        R"({{"file":{},"offset":{},"length":{},"device_offset":{},"clean":{},"state":"{}")",
        json_text(plan.path(piece)), tier_add(plan.offset(piece), segment.at), segment.length,
        tier_add(piece.start, segment.at), piece.is_clean,
        STATES[static_cast<size_t>(segment.outcome)]);
    if (segment.outcome == Outcome::copied) {
        text_ += fmt::format(R"(,"crc32":"{:08x}")", segment.crc);
    }
    text_ +=
        fmt::format(R"(,"by":"{}","{}":{})", held_by_text(piece.by), plan.table().name, piece.no);
    if (piece.is_aside) {
        text_ += fmt::format(R"(,"conflict":{})", plan.conflicts().at(piece.no));
    }
    if (const uint64_t past = plan.past_end(piece, segment.at, segment.length); past != 0) {
        text_ += fmt::format(R"(,"past_end":{})", past);
    }
    if (piece.cut != 0 && segment.at + segment.length == piece.length) {
        text_ += fmt::format(R"(,"cut":{})", piece.cut);
    }
    text_ += "}\n";
    if (text_.size() >= TEXT_A_WRITE) {
        write();
    }
}

void Manifest::write()
{
    if (zutr_writen(fd_.get(), text_.data(), text_.size(), static_cast<int64_t>(end_)) < 0) {
        target_.fail("write", NAME);
    }
    end_ += text_.size();
    text_.clear();
}

void Manifest::sync()
{
    if (!text_.empty()) {
        write();
    }
    if (fsync(fd_.get()) != 0) {
        target_.fail("write", NAME);
    }
}

} // namespace tierctl
