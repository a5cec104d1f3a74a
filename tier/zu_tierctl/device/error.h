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

/* Nobody reads standard output any more, as after `| head`. */
class OutputClosed : public std::system_error {
public:
    using std::system_error::system_error;
};

/* A value of errno besides those of the system: the block is not in the saved file. */
constexpr int NOT_SAVED = 1 << 16;

/* Another: the mapfile does not call the block finished. */
constexpr int NOT_RESCUED = NOT_SAVED + 1;

/* What an error number means. */
inline std::string error_text(int error)
{
    if (error == NOT_SAVED) {
        return "not in the saved file";
    }
    if (error == NOT_RESCUED) {
        return "not finished in the mapfile";
    }
    return std::generic_category().message(error);
}

/* Throws "<what>: <text of errno>". */
[[noreturn]] inline void throw_errno(const std::string &what)
{
    throw std::runtime_error(what + ": " + error_text(errno));
}

} // namespace tierctl
