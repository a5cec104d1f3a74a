#include "zu_tierctl/device/progress.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>
#include <unistd.h>
#include <utility>

namespace tierctl {

namespace {

constexpr auto INTERVAL = std::chrono::milliseconds(100);
constexpr int WIDTH = 40; /* of the bar, in characters */
constexpr char WIPE[] = "\r\x1b[K";

} // namespace

Progress::Progress(std::string title, uint64_t total)
    : title_(std::move(title)), total_(total), shown_(isatty(STDERR_FILENO) != 0),
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
    done_ += done;
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
    const std::string filled(static_cast<size_t>(part * WIDTH), '#');
    fputs(fmt::format("{}{} [{:.<{}}] {:3.0f} %", WIPE, title_, filled, WIDTH, part * 100).c_str(),
          stderr);
}

} // namespace tierctl
