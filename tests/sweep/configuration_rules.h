#pragma once

// The geometry that a new super block must have, by the bytes of its record.

#include "bytes.h"
#include "log.h"

#include <functional>
#include <string>
#include <vector>

namespace tier_test {

struct GeometryRule {
    std::function<bool(const Block &)> holds;
    std::function<std::string(const Block &)> message; // where it does not
};

// In the order in which they are looked at.
const std::vector<GeometryRule> &rules_v1();
const std::vector<GeometryRule> &rules_v2();
const std::vector<GeometryRule> &rules_v3();

// What `func` says of the first rule that the block breaks: nothing if it keeps them all.
Log first_broken(const char *func, const std::vector<GeometryRule> &rules, const Block &block);

} // namespace tier_test
