#include "kill_run.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace tier_test {

namespace {

constexpr int AT_SYSTEM_CALL = SIGTRAP | 0x80; // with PTRACE_O_TRACESYSGOOD

[[noreturn]] void become_traced(const std::string &program, const std::vector<std::string> &args)
{
    std::vector<char *> argv{const_cast<char *>(program.c_str())};
    for (const std::string &arg : args)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    const int null = open("/dev/null", O_RDWR);
    // The search for leaks is a tracer itself, and there can be only one.
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    if (dup2(null, STDOUT_FILENO) >= 0 && dup2(null, STDERR_FILENO) >= 0 &&
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0)
        execv(argv[0], argv.data());
    _exit(127);
}

// The state in which the child stops or ends.
int wait_for(pid_t child)
{
    int state = 0;
    if (waitpid(child, &state, 0) != child)
        throw std::system_error(errno, std::generic_category(), "waitpid");
    return state;
}

// A child that was killed meanwhile has gone.
void proceed(pid_t child, int signal)
{
    if (ptrace(PTRACE_SYSCALL, child, nullptr, signal) != 0 && errno != ESRCH)
        throw std::system_error(errno, std::generic_category(), "ptrace");
}

} // namespace

StoppedRun run_stopped(const std::vector<std::string> &args, const std::string &program,
                       const std::function<void(pid_t, std::size_t)> &act)
{
    const pid_t child = fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0)
        become_traced(program, args);

    int state = wait_for(child); // after the start of the program
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    std::size_t reached = 0;
    while (WIFSTOPPED(state)) {
        const int signal = WSTOPSIG(state);
        if (signal == AT_SYSTEM_CALL)
            act(child, ++reached);
        proceed(child, signal == AT_SYSTEM_CALL || signal == SIGTRAP ? 0 : signal);
        state = wait_for(child);
    }
    return {reached, state};
}

StoppedRun run_stopped_at(std::size_t stop, const std::vector<std::string> &args,
                          const std::string &program, const std::function<void(pid_t)> &act)
{
    return run_stopped(args, program, [&](pid_t child, std::size_t reached) {
        if (reached == stop)
            act(child);
    });
}

std::size_t run_killed_at(std::size_t stop, const std::vector<std::string> &args,
                          const std::string &program, int status, int signal)
{
    const auto [reached, state] =
        run_stopped_at(stop, args, program, [signal](pid_t child) { kill(child, signal); });
    const bool was_killed = reached >= stop && WIFSIGNALED(state) && WTERMSIG(state) == signal;
    if (!was_killed && (!WIFEXITED(state) || WEXITSTATUS(state) != status))
        throw std::runtime_error("the run has not ended well, wait status " +
                                 std::to_string(state));
    return std::min(reached, stop);
}

std::size_t first_stop_of_tierctl()
{
    return run_killed_at(100'000, {"--version"}, ZU_TIERCTL) - 60;
}

} // namespace tier_test
