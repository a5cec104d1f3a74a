#include "zu_tierctl/plan/apply.h"

#include "common/zutr_crc32.h"
#include "zu_tierctl/check/check.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/plan/plan_file.h"
#include "zu_tierctl/plan/rewrite.h"
#include "zu_tierctl/plan/step_block.h"

#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <utility>

namespace tierctl {

namespace {

class Apply {
public:
    explicit Apply(const ApplyOptions &options)
        : options_(options),
          device_(options.device, options.commit ? Access::exclusive : Access::read_only),
          plan_(read_plan(options.plan)), undo_{plan_.size,
                                                plan_.super_block,
                                                std::move(plan_.text),
                                                {}},
          metadata_(require_device(device_, options.plan, undo_))
    {
        for (const Step &step : plan_.steps) {
            steps_[{step.table, step.no}] = &step;
        }
    }

    void run()
    {
        if (!is_undo_of_this_plan()) {
            make_changes();
            if (options_.commit && !undo_.changes.empty()) { /* better known before the work */
                new_undo_.emplace(options_.undo, Naming::new_name);
            }
        }
        if (!options_.commit) {
            hint_in_use(options_.device);
        }
        Rewrite rewrite(device_, metadata_, undo_.changes, &Change::after);
        show(rewrite);
        if (rewrite.left() == 0) {
            complain("nothing to do: every block is as the plan makes it");
        } else if (options_.commit) {
            write(rewrite);
        } else {
            rewrite.lay_over();
            print_check();
            complain("nothing was written: --commit writes it");
        }
    }

private:
    /* Whether the undo file is there, from an earlier run. Its blocks are those to be written: the
     * tool's parser may make up another identity each time. */
    bool is_undo_of_this_plan()
    {
        std::error_code ignored; /* what cannot be looked up cannot be created either */
        if (!std::filesystem::exists(options_.undo, ignored)) {
            refuse_existing(options_.undo); /* as is a link that leads nowhere */
            return false;
        }
        UndoFile found = read_undo_file(options_.undo);
        if (found.plan != undo_.plan) {
            throw std::runtime_error(fmt::format("{} is the undo file of another plan than {}",
                                                 options_.undo, options_.plan));
        }
        undo_ = std::move(found);
        require_device(device_, options_.undo, undo_);
        for (const Change &change : undo_.changes) {
            if (!steps_.contains({change.table, change.no})) {
                throw std::runtime_error(fmt::format("{} has {}, of which {} has no step",
                                                     options_.undo, change.name(), options_.plan));
            }
        }
        return true;
    }

    void make_changes()
    {
        for (const Step &step : plan_.steps) {
            if (step.action == Action::leave) {
                continue;
            }
            try {
                add_change(step);
            } catch (const std::exception &error) {
                throw std::runtime_error(fmt::format("{}, line {}, {} {}: {}", options_.plan,
                                                     step.line, step.table, step.no, error.what()));
            }
        }
    }

    /* Unless the block is already as the step makes it. */
    void add_change(const Step &step)
    {
        alignas(SIZE_4K) Block now;
        const bool is_read = device_.read(step.offset, now.data(), SIZE_4K);
        if (!is_read && !step.unreadable) {
            throw_errno("cannot read its block of " + options_.device);
        }
        const Table &table = find_table(metadata_.tables, step.table);
        Change change{step.table, step.no, step.offset, !is_read, {}, {}};
        change.after = make_step_block(device_, metadata_, table, step, is_read ? &now : nullptr);
        if (is_read) {
            if (now == change.after) {
                return;
            }
            if (step.unreadable || zutr_crc32(now.data(), SIZE_4K) != step.crc) {
                throw std::runtime_error("its block of " + options_.device +
                                         " has changed since the plan was made");
            }
            change.before = now;
        }
        undo_.changes.push_back(std::move(change));
    }

    /* What a step is, for people. */
    std::string note(const Change &change) const
    {
        const Step &step = *steps_.at({change.table, change.no});
        std::string text = fmt::format("  {}, {}: {}\n", action_name(step.action),
                                       certainty_name(step.certainty), one_line(step.reason));
        if (!step.lost.empty()) {
            text += fmt::format("  lost: {}\n", one_line(step.lost));
        }
        return text;
    }

    void show(Rewrite &rewrite)
    {
        rewrite.show([this](const Change &change) { return note(change); }, options_.commit);
    }

    void print_check() const
    {
        print("\ncheck afterwards:\n");
        const auto report = make_text_report(options_.device, Detail::runs);
        check_metadata({.device = options_.device}, device_, metadata_, *report, nullptr);
        report->finish();
    }

    void write(Rewrite &rewrite)
    {
        if (new_undo_) {
            write_undo_file(*new_undo_, undo_);
        }
        if (!sync_name(options_.undo)) { /* an earlier run may have been killed before it */
            throw_errno("nothing was written: cannot sync the directory of " + options_.undo);
        }
        rewrite.write(fmt::format("the same command goes on from here, and zu_tierctl undo {} {} "
                                  "goes back",
                                  shell_word(options_.undo), shell_word(options_.device)));
    }

    const ApplyOptions &options_;
    Device device_;
    Plan plan_;
    UndoFile undo_;
    Metadata metadata_;
    std::optional<NewFile> new_undo_; /* empty: it is that of an earlier run */
    std::map<std::pair<std::string_view, uint64_t>, const Step *> steps_; /* by table and number */
};

} // namespace

void apply(const ApplyOptions &options) { Apply(options).run(); }

} // namespace tierctl
