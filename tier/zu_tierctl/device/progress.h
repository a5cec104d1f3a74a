#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tierctl {

/* A bar on standard error that shows the progress of a walk, and after a second how long it will
 * still take. Drawn only on a terminal, and wiped at destruction. */
class Progress {
public:
    /* `total`: the sum of all that will be added. So many more walks like this one come after it.
     */
    Progress(std::string title, uint64_t total, unsigned walks_to_come = 0);
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    ~Progress();

    void add(uint64_t done);

private:
    using Time = std::chrono::steady_clock::time_point;

    void draw(Time now) const;

    /* ", 12 s left"; empty while that is not known. */
    std::string left_text(double part, Time now) const;

    std::string title_;
    uint64_t total_;
    uint64_t done_ = 0;
    unsigned walks_to_come_;
    bool shown_;
    Time start_;
    Time next_; /* time of the next drawing */
};

} // namespace tierctl
