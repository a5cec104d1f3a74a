#pragma once

#include <csignal>
#include <string>

namespace tierctl {

/* Holds INT, TERM and HUP back during its lifetime: one that arrives meanwhile comes afterwards. */
class SignalsHeld {
public:
    SignalsHeld();
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;
    ~SignalsHeld();

    /* Whether one has arrived that is not ignored. */
    static bool is_any_pending();

private:
    sigset_t before_;
};

/* The name of an unfinished file. It is removed with its owner, and when INT, TERM or HUP ends the
 * program. Hold these signals from the creation of the file to that of the owner. */
class ScratchName {
public:
    explicit ScratchName(std::string path);
    ScratchName(const ScratchName &) = delete;
    ScratchName &operator=(const ScratchName &) = delete;
    ~ScratchName();

    const char *path() const { return path_.c_str(); }

private:
    static void remove_all(int signal);

    static inline ScratchName *last_ = nullptr; /* the list of all */

    std::string path_;
    ScratchName *previous_ = last_;
    ScratchName *next_ = nullptr;
};

} // namespace tierctl
