#include "run.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <ostream>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace tier_test {

namespace {

class Descriptor {
public:
    Descriptor(int fd, const std::string &what) : fd_(fd)
    {
        if (fd < 0)
            throw std::system_error(errno, std::generic_category(), what);
    }
    ~Descriptor() { close(fd_); }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    int get() const { return fd_; }

    std::string content() const
    {
        std::string result;
        std::array<char, 65536> buffer;
        ssize_t got = 0;
        while ((got = pread(fd_, buffer.data(), buffer.size(), static_cast<off_t>(result.size()))) >
               0)
            result.append(buffer.data(), static_cast<std::size_t>(got));
        return result;
    }

private:
    int fd_;
};

// The environment of a program: the test's own, changed as the options say. Under the address
// sanitizer, unless that environment has it otherwise, an abort stays an abort, leaks are reported,
// and a library that is loaded first is accepted.
std::vector<std::string> environment_of(const RunOptions &options)
{
    std::map<std::string, std::string> variables;
    for (char **at = environ; *at != nullptr; ++at) {
        const std::string variable = *at;
        const std::size_t name = variable.find('=');
        variables[variable.substr(0, name)] = variable.substr(name + 1);
    }
    std::string &sanitizer = variables["ASAN_OPTIONS"];
    sanitizer = "handle_abort=0:detect_leaks=1:verify_asan_link_order=0:" + sanitizer;
    for (const auto &[name, value] : options.environment)
        variables[name] = value;

    std::vector<std::string> result;
    for (const auto &[name, value] : variables)
        result.push_back(name + "=" + value);
    return result;
}

std::vector<char *> pointers(const std::vector<std::string> &texts)
{
    std::vector<char *> result;
    for (const std::string &item : texts)
        result.push_back(const_cast<char *>(item.c_str()));
    result.push_back(nullptr);
    return result;
}

// Starts the program without a copy of this process, which is large.
pid_t start(const std::string &path, const std::vector<std::string> &args,
            const RunOptions &options, int in, int out, int err)
{
    std::vector<std::string> all{path};
    all.insert(all.end(), args.begin(), args.end());

    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!options.working_directory.empty())
        posix_spawn_file_actions_addchdir_np(&actions, options.working_directory.c_str());
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    const std::vector<std::string> environment = environment_of(options);
    pid_t child = -1;
    const int error = posix_spawn(&child, path.c_str(), &actions, nullptr, pointers(all).data(),
                                  pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), path);
    return child;
}

bool ends_within(pid_t child, std::chrono::milliseconds timeout)
{
    const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)), "pidfd_open");
    pollfd waiting{handle.get(), POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(timeout.count())) == 1;
}

} // namespace

RunResult run_program(const std::string &path, const std::vector<std::string> &args,
                      const RunOptions &options)
{
    const Descriptor in(open("/dev/null", O_RDONLY | O_CLOEXEC), "/dev/null");
    const Descriptor out(options.stdout_path.empty()
                             ? memfd_create("stdout", MFD_CLOEXEC)
                             : open(options.stdout_path.c_str(),
                                    O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY | O_CLOEXEC, 0600),
                         "standard output");
    const Descriptor err(memfd_create("stderr", MFD_CLOEXEC), "standard error");

    const pid_t child = start(path, args, options, in.get(), out.get(), err.get());

    RunResult result;
    result.timed_out = !ends_within(child, options.timeout);
    if (result.timed_out)
        kill(child, SIGKILL);
    int state = 0;
    if (waitpid(child, &state, 0) != child)
        throw std::system_error(errno, std::generic_category(), "waitpid");
    if (WIFEXITED(state))
        result.status = WEXITSTATUS(state);
    else
        result.signal = WTERMSIG(state);
    if (options.stdout_path.empty())
        result.out = out.content();
    result.err = err.content();
    return result;
}

std::string program(const std::string &name)
{
    const char *directory = std::getenv("ZU_TIER_PROGRAMS");
    return (directory != nullptr ? directory : std::string(PROGRAM_DIRECTORY)) + "/" + name;
}

RunResult run_tool(const std::vector<std::string> &args, const RunOptions &options)
{
    return run_program(ZU_TIER, args, options);
}

LoggedRun run_with_log(const TempDir &directory, const std::vector<std::string> &args,
                       const RunOptions &options)
{
    const std::string log_path = directory.write("log", "");
    std::vector<std::string> all{"-l", log_path};
    all.insert(all.end(), args.begin(), args.end());
    LoggedRun run{run_tool(all, options), {}, {}};
    run.log = parse_log(read_file(log_path));
    run.errors = parse_log(run.err);
    return run;
}

LoggedRun run_logged(const Device &device, const std::string &command,
                     const std::vector<std::string> &args, const RunOptions &options)
{
    std::vector<std::string> all{"-p", device.path(), "-c", command};
    all.insert(all.end(), args.begin(), args.end());
    return run_with_log(device.directory(), all, options);
}

LogLine settings_line(const Device &device, const std::string &command, const Settings &settings)
{
    return debug_line("zutr_prepare_param",
                      text("dev:%s, cmd:%s, spec_ver:%d, meta_no:%d repair_conf:%s, out_path:%s, "
                           "filter: use=%d, error=%d, owner_no=%d, id=%s",
                           device.path().c_str(), command.c_str(), settings.spec_ver,
                           settings.meta_no, settings.repair_conf.c_str(),
                           settings.out_path.c_str(), settings.use, settings.error, settings.owner,
                           settings.id.c_str()));
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::ostream &operator<<(std::ostream &out, const RunResult &result)
{
    return out << "exit status " << result.status << ", signal " << result.signal
               << (result.timed_out ? ", timed out" : "") << "\nstandard output: " << result.out
               << "\nstandard error: " << result.err;
}

} // namespace tier_test
