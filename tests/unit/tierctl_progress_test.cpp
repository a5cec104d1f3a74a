// The progress bar, on a terminal and elsewhere.

#include "zu_tierctl/device/progress.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

using namespace tierctl;

namespace {

// Whatever the terminal of the tests is.
const int HAS_TERM = setenv("TERM", "xterm", 1);

// Longer than a bar stays as it is.
constexpr auto WHILE = std::chrono::milliseconds(110);

// What comes out of standard error, which is what `open_error` opens, while `run` runs. The
// terminal has so many columns; 0: it does not know.
template <class Open, class Run>
std::string shown_on(const Open &open_error, const Run &run, unsigned short columns = 0)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    const int other_side = open(ptsname(terminal), O_RDWR | O_NOCTTY);
    EXPECT_GE(other_side, 0);
    const winsize size{.ws_row = 24, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
    EXPECT_EQ(ioctl(terminal, TIOCSWINSZ, &size), 0);
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

// The bar shrinks first, then the title is cut; the last column stays free.
TEST(Progress, IsNeverWrapped)
{
    const auto line = [](unsigned short columns) {
        const std::string shown =
            shown_on([](int terminal) { return terminal; }, half_way, columns);
        const std::size_t start = std::string("\r\x1b[K").size();
        return shown.substr(start, shown.find('\r', start) - start);
    };
    EXPECT_EQ(line(58), "reading [" + std::string(20, '#') + std::string(20, '.') + "]  50 %");
    EXPECT_EQ(line(57), line(58));
    EXPECT_EQ(line(56), "reading [" + std::string(19, '#') + std::string(20, '.') + "]  50 %");
    EXPECT_EQ(line(21), "reading [##..]  50 %");
    EXPECT_EQ(line(17), "reading []  50 %");
    EXPECT_EQ(line(14), "read []  50 %");
    for (unsigned short columns = 1; columns < 64; columns++)
        EXPECT_LT(line(columns).size(), columns);
}

// What is shown after more than a second, when so many of a thousand steps were made.
std::string shown_after_a_second(std::uint64_t done, unsigned walks_to_come,
                                 unsigned short columns = 0)
{
    return shown_on([](int terminal) { return terminal; },
                    [&] {
                        Progress progress("reading", 1000, walks_to_come);
                        std::this_thread::sleep_for(std::chrono::milliseconds(1010));
                        progress.add(done);
                    },
                    columns);
}

// The number before `unit`, after `before`; 0: there is none.
double left(const std::string &shown, const std::string &unit)
{
    const std::string before = " %, ";
    const std::size_t at = shown.find(before);
    const std::size_t end = shown.find(unit + " left");
    if (at == std::string::npos || end == std::string::npos)
        return 0;
    return std::stod(shown.substr(at + before.size(), end - at - before.size()));
}

// A busy machine may take longer over a step than was asked for, but not shorter.
TEST(Progress, TellsTheTimeToTheEnd)
{
    EXPECT_GE(left(shown_after_a_second(100, 0), " s"), 10); // 9 times 1.01 s, rounded up
    EXPECT_GE(left(shown_after_a_second(1, 0), " min"), 17); // 999 times
    EXPECT_GE(left(shown_after_a_second(1, 10), " h"), 4);   // 10999 times
    EXPECT_EQ(left(shown_after_a_second(0, 0), " s"), 0);    // not known
    EXPECT_GE(left(shown_after_a_second(500, 0, 30), " s"), 2);
    EXPECT_EQ(left(shown_after_a_second(500, 0, 25), " s"), 0); // no room for it
}

TEST(Progress, OfSumsThatNoNumberHolds)
{
    const std::string shown = shown_on([](int terminal) { return terminal; },
                                       [] {
                                           Progress progress("reading", ~uint64_t{0});
                                           progress.add(uint64_t{1} << 63);
                                           std::this_thread::sleep_for(WHILE);
                                           progress.add(uint64_t{1} << 63);
                                       });
    EXPECT_NE(shown.find("] 100 %"), std::string::npos) << shown;
}

TEST(Progress, IsNotShownOnATerminalThatIsDumbOrUnknown)
{
    setenv("TERM", "dumb", 1);
    const auto shown = [] { return shown_on([](int terminal) { return terminal; }, half_way); };
    EXPECT_EQ(shown(), "|\r\n");
    setenv("TERM", "", 1);
    EXPECT_EQ(shown(), "|\r\n");
    unsetenv("TERM");
    EXPECT_EQ(shown(), "|\r\n");
    setenv("TERM", "xterm", 1);
}

} // namespace
