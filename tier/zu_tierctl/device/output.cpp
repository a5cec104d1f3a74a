#include "zu_tierctl/device/output.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fmt/core.h>
#include <unistd.h>

namespace tierctl {

namespace {

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

} // namespace

void print_text(std::string_view text)
{
    require(fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void finish_output() { require(fflush(stdout) == 0); }

bool is_able_terminal(int fd)
{
    const char *kind = getenv("TERM");
    return isatty(fd) != 0 && (kind == nullptr || std::string_view(kind) != "dumb");
}

void complain(std::string_view message)
{
    fputs(fmt::format("zu_tierctl: {}\n", one_line(message)).c_str(), stderr);
}

} // namespace tierctl
