#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tierctl {

/* How far a walk has come, as a bar on standard error while that is a terminal; nothing in a pipe.
 * The bar is wiped when its owner goes. */
class Progress {
public:
    /* `total`: what is done when all is done, in the units of `add`. */
    Progress(std::string title, uint64_t total);
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    ~Progress();

    void add(uint64_t done);

private:
    void draw() const;

    std::string title_;
    uint64_t total_;
    uint64_t done_ = 0;
    bool shown_;
    std::chrono::steady_clock::time_point next_; /* time of the next drawing */
};

} // namespace tierctl
