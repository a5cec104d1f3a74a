#include "zu_tierctl/tierctl_output.h"

#include "zu_tierctl/tierctl_error.h"

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
