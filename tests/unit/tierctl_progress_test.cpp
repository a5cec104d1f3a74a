// The progress bar, on a terminal and elsewhere.

#include "zu_tierctl/device/progress.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>

using namespace tierctl;

namespace {

// Longer than a bar stays as it is.
constexpr auto WHILE = std::chrono::milliseconds(110);

// What comes out of standard error, which is what `open_error` opens, while `run` runs.
template <class Open, class Run>
std::string shown_on(const Open &open_error, const Run &run)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    const int other_side = open(ptsname(terminal), O_RDWR | O_NOCTTY);
    EXPECT_GE(other_side, 0);
    const int kept = dup(STDERR_FILENO);
    fflush(stderr);
    dup2(open_error(other_side), STDERR_FILENO);
    run();
    fflush(stderr);
    dup2(kept, STDERR_FILENO);
    EXPECT_EQ(write(other_side, "|\n", 2), 2); // the end of what there is to read
    std::string shown;
    std::array<char, 4096> buffer;
    for (ssize_t got = 1; got > 0 && !shown.ends_with("|\r\n");) {
        got = read(terminal, buffer.data(), buffer.size());
        shown.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
    for (const int fd : {terminal, other_side, kept})
        close(fd);
    return shown;
}

void half_way()
{
    Progress progress("reading", 10);
    progress.add(4);
    std::this_thread::sleep_for(WHILE);
    progress.add(1);
    progress.add(1); // too soon to be drawn
}

TEST(Progress, IsDrawnOnATerminalAndWiped)
{
    const std::string shown = shown_on([](int terminal) { return terminal; }, half_way);
    EXPECT_EQ(shown, "\r\x1b[Kreading [" + std::string(20, '#') + std::string(20, '.') +
                         "]  50 %\r\x1b[K|\r\n");
}

TEST(Progress, OfNothingIsComplete)
{
    const std::string shown = shown_on([](int terminal) { return terminal; },
                                       [] {
                                           Progress progress("reading", 0);
                                           std::this_thread::sleep_for(WHILE);
                                           progress.add(0);
                                       });
    EXPECT_EQ(shown, "\r\x1b[Kreading [" + std::string(40, '#') + "] 100 %\r\x1b[K|\r\n");
}

TEST(Progress, IsNotShownElsewhere)
{
    EXPECT_EQ(shown_on([](int) { return open("/dev/null", O_WRONLY); }, half_way), "|\r\n");
}

} // namespace
