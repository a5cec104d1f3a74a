#pragma once

// Plans of repairs and undo files, byte by byte as zu_tierctl takes and makes them.

#include "bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tier_test {

// A step of a plan, and the change that it becomes in an undo file.
struct PlanStep {
    std::string table;
    std::uint64_t no;
    std::int64_t offset; // of the slot
    Block before;        // as it lies on the device
    Block after;
    std::string keys{};      // a JSON object, in place of the block
    bool unreadable = false; // `before` is not known
    std::string action = "copy";
    std::string certainty = "certain";
    std::string reason = "it is sound there";
    std::string lost{};
};

// What the steps are for.
struct PlannedDevice {
    std::string layout;
    std::uint64_t size;
    Block super_block;
};

std::string base64(ConstByteSpan bytes);

// A line each.
std::string plan_header(const PlannedDevice &device);
std::string plan_step(const PlanStep &step);

std::string plan_text(const PlannedDevice &device, const std::vector<PlanStep> &steps);

std::string undo_file(const PlannedDevice &device, const std::string &plan,
                      const std::vector<PlanStep> &steps);

} // namespace tier_test
