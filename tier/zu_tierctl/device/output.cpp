#include "zu_tierctl/device/output.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fmt/core.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tierctl {

namespace {

constexpr size_t WIDTH_FALLBACK = 80;
constexpr size_t WIDTH_MAX = 1000;

void require(bool written)
{
    constexpr const char WHAT[] = "cannot write to standard output";
    if (written) {
        return;
    }
    if (errno == EPIPE) {
        throw OutputClosed(errno, std::generic_category(), WHAT);
    }
    throw_errno(WHAT);
}

/* The value of an environment variable; empty when it is not set. */
std::string variable(const char *name)
{
    const char *value = getenv(name);
    return value != nullptr ? value : "";
}

} // namespace

void print_text(std::string_view text)
{
    require(fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void finish_output() { require(fflush(stdout) == 0); }

bool is_able_terminal(int fd)
{
    const std::string kind = variable("TERM");
    return isatty(fd) != 0 && !kind.empty() && kind != "dumb";
}

size_t output_width()
{
    winsize window{};
    uint64_t width = parse_number(variable("COLUMNS")).value_or(0);
    if (width == 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0) {
        width = window.ws_col;
    }
    return std::min<uint64_t>(width != 0 ? width : WIDTH_FALLBACK, WIDTH_MAX);
}

bool wants_colours() { return is_able_terminal(STDOUT_FILENO) && variable("NO_COLOR").empty(); }

void complain(std::string_view message)
{
    fputs(fmt::format("zu_tierctl: {}\n", one_line(message)).c_str(), stderr);
}

} // namespace tierctl
