#include "zu_tierctl/device/output.h"

#include "zu_tierctl/device/error.h"

#include <cstdio>

namespace tierctl {

namespace {

void require(bool written)
{
    if (!written) {
        throw_errno("cannot write standard output");
    }
}

} // namespace

void print(std::string_view text)
{
    require(fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void finish_output()
{
    require(fflush(stdout) == 0);
}

} // namespace tierctl
