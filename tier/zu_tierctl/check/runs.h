#pragma once

#include "zu_tierctl/check/finding.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tierctl {

/* Joins findings of the same kind about entries that follow one another, and hands each run on when
 * it has ended. Its memory does not grow with the number of findings: runs end when the check has
 * passed their slots. */
class Runs {
public:
    explicit Runs(std::function<void(const Finding &)> use) : use_(std::move(use)) {}

    void add(const Finding &finding);

    /* Hands on the runs that are still open, the one that began first before the others. */
    void end();

private:
    struct Run {
        Finding whole;
        std::string alike; /* what its findings have in common */
    };

    void end_before(const Finding &finding);

    std::function<void(const Finding &)> use_;
    std::vector<Run> open_;
};

} // namespace tierctl
