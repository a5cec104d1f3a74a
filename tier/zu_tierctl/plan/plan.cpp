#include "zu_tierctl/plan/plan.h"

#include "zu_tierctl/check/check.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/plan/new_errors.h"
#include "zu_tierctl/plan/planner.h"
#include "zu_tierctl/revert/same_cache.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>

namespace tierctl {

namespace {

NewBlocks new_blocks(const std::vector<Step> &steps)
{
    NewBlocks blocks;
    for (const Step &step : steps) {
        if (step.block) {
            blocks[{step.table, step.no}] = {step.offset, &*step.block};
        }
    }
    return blocks;
}

void leave(Step &step, const std::string &why)
{
    step = {.table = step.table,
            .no = step.no,
            .offset = step.offset,
            .reason = step.reason + "; but " + why};
}

/* What becomes free because an owner does must stay when that stays. */
void leave_free(std::vector<Step> &steps)
{
    for (Step &step : steps) {
        if (step.action == Action::free) {
            leave(step, "not all of what hangs together can become free: carry out the other "
                        "steps, and plan again");
        }
    }
}

/* Leaves the slots to which a step would bring an error: apply would refuse it. */
void leave_new_errors(Device &device, const Metadata &metadata, std::vector<Step> &steps)
{
    NewBlocks blocks = new_blocks(steps);
    if (blocks.empty()) {
        return;
    }
    NewErrors new_errors(device, metadata, blocks);
    for (auto errors = new_errors.find(blocks); !errors.empty(); errors = new_errors.find(blocks)) {
        bool frees = true;
        for (Step &step : steps) {
            const auto error = errors.find({step.table, step.no});
            if (error != errors.end()) {
                frees = frees && step.action != Action::free;
                leave(step, error->second);
            }
        }
        if (!frees) {
            leave_free(steps);
        }
        blocks = new_blocks(steps);
    }
}

/* "mend 2 certain, 1 likely; copy 256 likely" */
std::string actions_text(const std::vector<Step> &steps)
{
    std::string text;
    for (const Action action : {Action::mend, Action::copy, Action::restore, Action::free}) {
        std::string counts;
        for (const Certainty certainty : {Certainty::certain, Certainty::likely, Certainty::none}) {
            const auto count = std::ranges::count_if(steps, [&](const Step &step) {
                return step.action == action && step.certainty == certainty;
            });
            if (count != 0) {
                counts += fmt::format("{} {} {}", counts.empty() ? "" : ",", count,
                                      certainty == Certainty::none ? "to decide on"
                                                                   : certainty_name(certainty));
            }
        }
        if (!counts.empty()) {
            text += fmt::format("{}{}{}", text.empty() ? "" : "; ", action_name(action), counts);
        }
    }
    return text;
}

void tell(const std::vector<Step> &steps, uint64_t left_out)
{
    const auto left =
        static_cast<uint64_t>(std::ranges::count(steps, Action::leave, &Step::action));
    const uint64_t planned = steps.size() - left;
    complain(fmt::format("{} step{}{}{}", planned, planned == 1 ? "" : "s",
                         planned == 0 ? "" : ": ", actions_text(steps)));
    if (left_out != 0) {
        complain(fmt::format("left out, because not certain: {} step{}", left_out,
                             left_out == 1 ? "" : "s"));
    }
    if (left != 0) {
        complain(fmt::format("left as they are: {}; each line \"leave\" says why", left));
    }
}

} // namespace

void require_saved(const Device &saved, const Device &device, const Metadata &metadata)
{
    const Metadata then = read_metadata(saved);
    require_same_layout(saved, then, device, metadata);
    const std::string reason = other_cache_reason(saved, device, metadata);
    if (!reason.empty()) {
        throw std::runtime_error(reason);
    }
    require_same_super(saved, then, device, metadata);
}

Plan make_plan(Device &device, const Metadata &metadata, const Device *saved, bool free_lost)
{
    Troubles troubles(device, metadata, free_lost);
    check_metadata({.device = device.path()}, device, metadata, troubles, &troubles);
    for (const Cause &cause : troubles.causes()) {
        if (cause.table == SUPER_TABLE) {
            throw std::runtime_error("there is no plan: " + cause.text);
        }
        complain("cause: " + cause.text);
    }
    Plan plan{std::string(metadata.layout->name), device.size(), metadata.super_block,
              plan_steps(device, metadata, saved, free_lost, troubles)};
    leave_new_errors(device, metadata, plan.steps);
    return plan;
}

void plan(const PlanOptions &options)
{
    Device device(options.device, Access::read_only);
    hint_in_use(options.device);
    const Metadata metadata = read_metadata(device);
    std::optional<Device> saved;
    if (!options.saved.empty()) {
        saved.emplace(options.saved, Access::read_only);
        require_saved(*saved, device, metadata);
    }
    Plan plan = make_plan(device, metadata, saved ? &*saved : nullptr, options.free_lost);
    const auto left_out = options.only_certain
                              ? std::erase_if(plan.steps,
                                              [](const Step &step) {
                                                  return step.action != Action::leave &&
                                                         step.certainty != Certainty::certain;
                                              })
                              : 0;
    print_text(plan_header_line(plan, options.release, options.device));
    for (const Step &step : plan.steps) {
        std::string fields;
        if (step.block && !step.keys) {
            Block block;
            step.block->get(block.data());
            const Table &table = find_table(metadata.tables, step.table);
            fields = entry_text({metadata, table, step.no, block.data()});
        }
        print_text(step_line(step, fields));
    }
    finish_output();
    tell(plan.steps, left_out);
}

} // namespace tierctl
