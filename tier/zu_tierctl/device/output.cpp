#include "zu_tierctl/device/output.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"

#include <cstdio>
#include <fmt/core.h>

namespace tierctl {

namespace {

void require(bool written)
{
    if (!written) {
        throw_errno("cannot write to standard output");
    }
}

} // namespace

void print_text(std::string_view text)
{
    require(fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void finish_output() { require(fflush(stdout) == 0); }

void complain(std::string_view message)
{
    fputs(fmt::format("zu_tierctl: {}\n", one_line(message)).c_str(), stderr);
}

} // namespace tierctl
