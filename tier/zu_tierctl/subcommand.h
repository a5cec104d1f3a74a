#pragma once

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tierctl {

constexpr int STATUS_FAILURE = 1;

/* A command of the program: what it takes, and what it does. Where a value goes must outlive the
 * function that run() is given. The large headers of the library that reads command lines stay out
 * of the commands' sources. */
class Subcommand {
public:
    /* `app` is the program. The exit status goes to `*status`. */
    Subcommand(CLI::App &app, const std::string &name, int *status);

    /* The two texts of --help: before and after the options. */
    void describe(const std::string &text, const char *footer);

    /* Leaves two columns more for the names of the options. */
    void widen();

    /* What stands without a name: one that must be there, one that may, and one or more. */
    void operand(const char *name, std::string &value, const std::string &help);
    void operand(const char *name, std::optional<std::string> &value, const std::string &help);
    void operands(const char *name, std::vector<std::string> &values, const std::string &help);

    /* TABLE and NO, which read_operands() takes. */
    void entry_operands(std::string &table, std::string &numbers);

    /* An option without a value: sets `chosen` (clears it, if the name begins with "!"), or calls.
     */
    void flag(const char *name, bool &chosen, const std::string &help);
    void flag(const char *name, const std::function<void()> &choose, const std::string &help);

    /* An option with a value, which --help calls `type`; one with values is given once for each. */
    void option(const char *name, const char *type, std::string &value, const std::string &help);
    void option(const char *name, const char *type, std::optional<std::string> &value,
                const std::string &help);
    void option(const char *name, const char *type, std::vector<std::string> &values,
                const std::string &help);
    void option(const char *name, const char *type,
                const std::function<void(const std::string &)> &read, const std::string &help);

    /* What is the same in several commands. */
    void super_option(std::string &file);
    void mapfile_option(std::string &file);
    void commit_flag(bool &commit);

    /* Of an option that was added: it must be given; not with one of `others`, which were added
     * before it. */
    void require(const char *name);
    void exclude(const char *name, std::initializer_list<const char *> others);

    /* `run` does what the command is for and returns the exit status, which is `failure` if it
     * throws. */
    void run(const std::function<int()> &run, int failure = STATUS_FAILURE);

private:
    CLI::App &app_;
    int *status_;
};

} // namespace tierctl
