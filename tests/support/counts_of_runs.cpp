// Linked into the programs of the coverage build: runs that end in a failed assertion or may not
// write large files save their counts like any other.

#include <csignal>
#include <sys/resource.h>

extern "C" void __gcov_dump();

namespace {

[[gnu::constructor]] void dump_counts_at_abort()
{
    std::signal(SIGABRT, [](int) { __gcov_dump(); });
}

// Before the counts are written, but after all that the program writes by itself.
[[gnu::destructor]] void lift_the_file_size_limit()
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_FSIZE, &limit);
}

} // namespace
