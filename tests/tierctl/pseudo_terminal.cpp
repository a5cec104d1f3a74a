#include "pseudo_terminal.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

namespace tier_test {

namespace {

void require(bool done, const char *what)
{
    if (!done)
        throw std::system_error(errno, std::generic_category(), what);
}

std::string read_all(int fd)
{
    std::string result;
    std::array<char, 4096> buffer;
    for (ssize_t got = 0; (got = read(fd, buffer.data(), buffer.size())) > 0;)
        result.append(buffer.data(), static_cast<std::size_t>(got));
    return result;
}

} // namespace

PseudoTerminal::PseudoTerminal(unsigned short columns)
    : fd_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    require(fd_ >= 0 && grantpt(fd_) == 0 && unlockpt(fd_) == 0, "a terminal");
    path_ = ptsname(fd_);
    program_side_ = open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    require(program_side_ >= 0, path_.c_str());
    termios settings{};
    require(tcgetattr(program_side_, &settings) == 0, "settings of the terminal");
    cfmakeraw(&settings);
    require(tcsetattr(program_side_, TCSANOW, &settings) == 0, "settings of the terminal");
    const winsize size{.ws_row = 24, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
    require(ioctl(program_side_, TIOCSWINSZ, &size) == 0, "size of the terminal");
    written_ = std::async(std::launch::async, read_all, fd_);
}

PseudoTerminal::~PseudoTerminal()
{
    take();
    close(fd_);
}

std::string PseudoTerminal::take()
{
    if (!written_.valid())
        return "";
    close(program_side_);
    return written_.get();
}

RunResult run_on_terminal(const std::string &path, const std::vector<std::string> &args,
                          unsigned short columns, RunOptions options)
{
    PseudoTerminal terminal(columns);
    options.stdout_path = terminal.path();
    options.environment.insert(options.environment.begin(), {"TERM", "xterm"});
    RunResult result = run_program(path, args, options);
    result.out = terminal.take();
    return result;
}

} // namespace tier_test
