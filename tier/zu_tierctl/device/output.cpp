#include "zu_tierctl/device/output.h"

#include "zu_tierctl/device/error.h"

#include <cstdio>

namespace {

void require(bool written)
{
    if (!written) {
        tierctl_throw_errno("cannot write standard output");
    }
}

} // namespace

void tierctl_print(std::string_view text)
{
    require(fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void tierctl_finish_output()
{
    require(fflush(stdout) == 0);
}
