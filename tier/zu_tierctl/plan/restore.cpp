#include "zu_tierctl/plan/restore.h"

#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/log_capture.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>

namespace tierctl {

namespace {

constexpr uint64_t NUMBER_MAX = std::numeric_limits<int32_t>::max(); /* that a run can name */

int32_t limited(uint64_t count) { return static_cast<int32_t>(std::min(count, NUMBER_MAX)); }

/* A refusal, and what the tool logged of it. */
Restored refused(const LogCapture &log)
{
    std::string reason = "the layout's restore refuses it";
    for (const std::string &message : log.messages()) {
        reason += ": " + message;
    }
    return {std::nullopt, reason};
}

} // namespace

Restored Restorer::restore(const Table &table, uint64_t no, const Block &now)
{
    if (no > NUMBER_MAX) {
        return {std::nullopt, "the layout's restore cannot name it"};
    }
    Block super_block = metadata_.super_block;
    zutr_params_t params = {};
    params.fd = device_.fd();
    params.sb = super_block.data();
    params.meta_no = static_cast<int32_t>(no);
    tier_restore plan = {};
    const LogCapture log;
    if (table.row->restore(&params, &plan) != 0 || tier_check_restore(plan) != 0) {
        return refused(log);
    }
    if (plan.inode_offset != table.slot(no)) {
        return {std::nullopt,
                fmt::format("the layout's restore looks for it at {}", plan.inode_offset)};
    }
    if (tier_inode_is_readable(plan, now.data())) {
        return {std::nullopt, "the layout's restore takes it as readable"};
    }
    walk(plan);
    const auto owned = owned_.find(static_cast<uint32_t>(no));
    const uint64_t count = owned != owned_.end() ? owned->second.count : 0;
    switch (tier_decide_restore({limited(doubtful_), limited(count)}, 0)) {
    case tier_restore_decision::doubtful:
        return {std::nullopt,
                fmt::format("the layout's restore is not sure that nothing belongs to it: {} of {} "
                            "extents are doubtful, {}; once they are repaired, plan again",
                            doubtful_, extents_, doubt_)};
    case tier_restore_decision::owned:
        return {std::nullopt,
                fmt::format("the layout's restore leaves it: {} of {} extents belong to it, the "
                            "first is {}",
                            count, extents_, owned->second.first)};
    default:
        break;
    }
    Restored restored{
        now, fmt::format("none of {} extents belongs to it, and none is doubtful", extents_)};
    tier_put_identity(plan, params.meta_no, restored.block->data());
    return restored;
}

void Restorer::add_doubt(uint64_t no, uint64_t count, const char *why)
{
    if (doubtful_ == 0) {
        doubt_ = fmt::format("the first, {}, {}", no, why);
    }
    doubtful_ = add_limited(doubtful_, count);
}

void Restorer::walk(const tier_restore &plan)
{
    if (walked_) {
        return;
    }
    walked_ = true;
    extents_ = plan.extents.count;
    Progress progress("looking for owners", slots_on_device(plan.extents, device_.size()));
    read_table(device_, {&plan.extents, 1}, [&](const Slots &slots) {
        progress.add(slots.count);
        if (slots.data == nullptr) {
            add_doubt(slots.first_no, slots.count, "cannot be read");
            return;
        }
        for (uint64_t i = 0; i < slots.count; i++) {
            const uint64_t no = slots.first_no + i;
            const tier_judged_extent extent = tier_judge_extent(plan, slots.slot(i));
            switch (extent.state) {
            case tier_extent_state::zero_filled:
                add_doubt(no, 1, "is all zero");
                break;
            case tier_extent_state::bad_checksum:
                add_doubt(no, 1, "has another checksum than that computes");
                break;
            case tier_extent_state::free:
                break;
            case tier_extent_state::in_use:
                owned_.try_emplace(extent.inode_no, Owned{no, 0}).first->second.count++;
                break;
            }
        }
    });
}

} // namespace tierctl
