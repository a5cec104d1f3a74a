#include "zu_tierctl/device/progress.h"

#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/sum.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace tierctl {

namespace {

constexpr auto INTERVAL = std::chrono::milliseconds(100);
constexpr size_t WIDTH_MAX = 40;    /* of the bar, in characters */
constexpr size_t WIDTH_OF_REST = 9; /* of all but the title and the bar */
constexpr size_t COLUMNS_FALLBACK = 80;
constexpr char WIPE[] = "\r\x1b[K";

/* How many characters a line may have without being wrapped. */
size_t line_width()
{
    winsize window{};
    const bool is_known = ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col != 0;
    return (is_known ? window.ws_col : COLUMNS_FALLBACK) - 1;
}

} // namespace

Progress::Progress(std::string title, uint64_t total)
    : title_(std::move(title)), total_(total), shown_(is_able_terminal(STDERR_FILENO)),
      next_(std::chrono::steady_clock::now() + INTERVAL)
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
        draw();
    }
}

void Progress::draw() const
{
    const double part =
        total_ == 0 ? 1 : std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_));
    const size_t width = line_width();
    const size_t room = width - std::min(width, WIDTH_OF_REST);
    const std::string_view title = std::string_view(title_).substr(0, room);
    const size_t bar = std::min(WIDTH_MAX, room - title.size());
    const std::string filled(static_cast<size_t>(part * static_cast<double>(bar)), '#');
    const std::string line = fmt::format("{} [{:.<{}}] {:3.0f} %", title, filled, bar, part * 100);
    fputs((WIPE + line.substr(0, width)).c_str(), stderr);
}

} // namespace tierctl
