#include "zu_tierctl/plan/step_block.h"

#include "common/zutr_crc32.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/rebuild.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace tierctl {

namespace {

Block build(const Device &device, const Metadata &metadata, const Table &table, const Step &step)
{
    Rebuilt rebuilt = rebuild(device, metadata, table, *step.keys, false);
    if (!rebuilt.block) {
        throw std::runtime_error(
            fmt::format("zu_tier refuses its keys: {}",
                        shown_text(fmt::format("{}", fmt::join(rebuilt.messages, "; ")))));
    }
    if (rebuilt.offset != step.offset) {
        throw std::runtime_error(fmt::format(
            "its keys are those of the block at byte {}, not at {}", rebuilt.offset, step.offset));
    }
    if (step.makes && zutr_crc32(rebuilt.block->data(), SIZE_4K) != *step.makes) {
        throw std::runtime_error(
            "its keys no longer make the block of the plan: they were changed, "
            "perhaps by a program that rounds numbers beyond 2^53");
    }
    return *rebuilt.block;
}

} // namespace

Block make_step_block(const Device &device, const Metadata &metadata, const Table &table,
                      const Step &step)
{
    Block block;
    if (step.keys) {
        block = build(device, metadata, table, step);
    } else {
        step.block->get(block.data());
    }
    const uint32_t flaws = table.flaws(step.no, block.data());
    if (flaws != 0) {
        throw std::runtime_error("its block is damaged itself: " + flaws_text(flaws));
    }
    return block;
}

} // namespace tierctl
