#include "zu_tierctl/device/progress.h"

#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/sum.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fmt/core.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace tierctl {

namespace {

constexpr auto INTERVAL = std::chrono::milliseconds(100);
constexpr std::chrono::duration<double> KNOWN_AFTER = std::chrono::seconds(1); /* time left */
constexpr size_t WIDTH_MAX = 40;    /* of the bar, in characters */
constexpr size_t WIDTH_OF_REST = 9; /* of all but the title and the bar */
constexpr size_t COLUMNS_FALLBACK = 80;
constexpr char WIPE[] = "\r\x1b[K";

/* "90 s", "12 min" or "3 h": never less than it is. */
std::string time_text(double seconds)
{
    struct Unit {
        double seconds;
        const char *name;
    };
    constexpr Unit UNITS[] = {{3600, "h"}, {60, "min"}};
    for (const Unit &unit : UNITS) {
        if (seconds > 2 * unit.seconds) {
            return fmt::format("{:.0f} {}", std::ceil(seconds / unit.seconds), unit.name);
        }
    }
    return fmt::format("{:.0f} s", std::ceil(seconds));
}

/* How many characters a line may have without being wrapped. */
size_t line_width()
{
    winsize window{};
    const bool is_known = ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col != 0;
    return (is_known ? window.ws_col : COLUMNS_FALLBACK) - 1;
}

} // namespace

Progress::Progress(std::string title, uint64_t total, unsigned walks_to_come)
    : title_(std::move(title)), total_(total), walks_to_come_(walks_to_come),
      shown_(is_able_terminal(STDERR_FILENO)), start_(std::chrono::steady_clock::now()),
      next_(start_ + INTERVAL)
{
}

Progress::~Progress()
{
    if (shown_) {
        fputs(WIPE, stderr);
    }
}

void Progress::add(uint64_t done)
{
    done_ = add_limited(done_, done);
    if (!shown_) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now >= next_) {
        next_ = now + INTERVAL;
        draw(now);
    }
}

std::string Progress::left_text(double part, Time now) const
{
    const std::chrono::duration<double> passed = now - start_;
    if (passed < KNOWN_AFTER || part == 0) {
        return "";
    }
    return fmt::format(", {} left", time_text(passed.count() / part * (1 - part + walks_to_come_)));
}

void Progress::draw(Time now) const
{
    const double part =
        total_ == 0 ? 1 : std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_));
    const size_t width = line_width();
    std::string left = left_text(part, now);
    if (title_.size() + WIDTH_OF_REST + left.size() > width) {
        left.clear();
    }
    const size_t room = width - std::min(width, WIDTH_OF_REST + left.size());
    const std::string_view title = std::string_view(title_).substr(0, room);
    const size_t bar = std::min(WIDTH_MAX, room - title.size());
    const std::string filled(static_cast<size_t>(part * static_cast<double>(bar)), '#');
    const std::string line =
        fmt::format("{} [{:.<{}}] {:3.0f} %{}", title, filled, bar, part * 100, left);
    fputs((WIPE + line.substr(0, width)).c_str(), stderr);
}

} // namespace tierctl
