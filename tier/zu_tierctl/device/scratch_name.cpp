#include "zu_tierctl/device/scratch_name.h"

#include <algorithm>
#include <unistd.h>
#include <utility>

namespace tierctl {

namespace {

constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

} // namespace

SignalsHeld::SignalsHeld()
{
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : SIGNALS) {
        sigaddset(&held, signal);
    }
    sigprocmask(SIG_BLOCK, &held, &before_);
}

SignalsHeld::~SignalsHeld() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

bool SignalsHeld::is_any_pending()
{
    sigset_t pending;
    sigpending(&pending);
    return std::ranges::any_of(SIGNALS, [&pending](int signal) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        return sigismember(&pending, signal) == 1 && action.sa_handler != SIG_IGN;
    });
}

ScratchName::ScratchName(std::string path) : path_(std::move(path))
{
    const SignalsHeld held;
    if (previous_ != nullptr) {
        previous_->next_ = this;
    }
    last_ = this;
    struct sigaction action {};
    action.sa_handler = remove_all;
    for (const int signal : SIGNALS) {
        struct sigaction now {};
        sigaction(signal, nullptr, &now);
        if (now.sa_handler == SIG_DFL) { /* one that is ignored, as by nohup, stays so */
            sigaction(signal, &action, nullptr);
        }
    }
}

ScratchName::~ScratchName()
{
    const SignalsHeld held;
    if (previous_ != nullptr) {
        previous_->next_ = next_;
    }
    (next_ != nullptr ? next_->previous_ : last_) = previous_;
    unlink(path()); /* no longer there when the file has its own name by now */
}

/* The handler: the program ends by the signal once it returns. With SA_RESETHAND a second signal,
 * sent from another processor at that moment, could end it before the first line. */
void ScratchName::remove_all(int signal)
{
    for (const ScratchName *name = last_; name != nullptr; name = name->previous_) {
        unlink(name->path());
    }
    std::signal(signal, SIG_DFL);
    raise(signal);
}

} // namespace tierctl
