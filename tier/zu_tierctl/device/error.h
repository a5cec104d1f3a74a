#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tierctl {

/* What the caller asked for makes no sense. Anything else that goes wrong is another exception. */
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* "<what>: <text of errno>" */
[[noreturn]] inline void throw_errno(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace tierctl
