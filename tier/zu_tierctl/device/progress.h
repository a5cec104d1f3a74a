#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tierctl {

/* A bar on standard error that shows the progress of a walk. Drawn only on a terminal, and wiped at
 * destruction. */
class Progress {
public:
    /* `total`: the sum of all that will be added. */
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
