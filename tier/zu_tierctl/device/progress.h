#pragma once

#include <chrono>
#include <cstdint>
#include <string>

/* How far a walk has come, as a bar on standard error while that is a terminal; nothing in a pipe.
 * The bar is wiped when its owner goes. */
class tierctl_progress {
public:
    /* `total`: what is done when all is done, in the units of `add`. */
    tierctl_progress(std::string title, uint64_t total);
    tierctl_progress(const tierctl_progress &) = delete;
    tierctl_progress &operator=(const tierctl_progress &) = delete;
    ~tierctl_progress();

    void add(uint64_t done);

private:
    void draw() const;

    std::string title_;
    uint64_t total_;
    uint64_t done_ = 0;
    bool shown_;
    std::chrono::steady_clock::time_point next_; /* time of the next drawing */
};
