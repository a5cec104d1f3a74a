#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tierctl {

/* The command line is wrong. All other failures are other exceptions. */
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* Throws "<what>: <text of errno>". */
[[noreturn]] inline void throw_errno(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace tierctl
