#include "zu_tierctl/plan/apply.h"

#include "common/zutr_crc32.h"
#include "zu_tierctl/check/check.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/plan/new_errors.h"
#include "zu_tierctl/plan/plan_file.h"
#include "zu_tierctl/plan/rewrite.h"
#include "zu_tierctl/plan/step_block.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <utility>

namespace tierctl {

namespace {

bool exists(const std::string &path)
{
    std::error_code ignored; /* what cannot be looked up cannot be created either */
    return std::filesystem::exists(path, ignored);
}

class Apply {
public:
    explicit Apply(const ApplyOptions &options)
        : options_(options),
          device_(options.device, options.commit ? Access::exclusive : Access::read_only),
          goes_on_(exists(options.undo)), new_undo_(make_undo_file()), plan_(read()),
          metadata_(require_unchanged(device_, options.plan, plan_.size, plan_.super_block))
    {
        for (const Step &step : plan_.steps) {
            steps_[{step.table, step.no}] = &step;
        }
    }

    void run()
    {
        if (goes_on_) {
            read_undo();
        } else {
            undo_ = {plan_.size, plan_.super_block, plan_.text, {}};
            make_changes();
            refuse_new_errors();
        }
        if (!options_.commit) {
            hint_in_use(options_.device);
        }
        Rewrite rewrite(device_, metadata_, undo_.changes, &Change::after);
        show(rewrite);
        if (has_no_steps()) {
            complain(no_steps_text());
        } else if (rewrite.left() == 0) {
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
    uint64_t left() const
    {
        return static_cast<uint64_t>(std::ranges::count(plan_.steps, Action::leave, &Step::action));
    }

    /* What the plan says of entries is at most why it leaves them. */
    bool has_no_steps() const { return left() == plan_.steps.size(); }

    std::string no_steps_text() const
    {
        const uint64_t entries = left();
        return "the plan has no steps" +
               text_if(entries != 0, fmt::format("; {} {} left", entries,
                                                 entries == 1 ? "entry is" : "entries are"));
    }

    /* Better known before the work. */
    std::optional<NewUndoFile> make_undo_file() const
    {
        if (goes_on_) {
            return std::nullopt;
        }
        refuse_existing(options_.undo); /* as is a link that leads nowhere */
        return options_.commit ? std::make_optional<NewUndoFile>(options_.undo) : std::nullopt;
    }

    Plan read()
    {
        return read_plan(options_.plan, [this](std::string_view piece) {
            if (new_undo_) {
                new_undo_->add_plan(piece);
            }
        });
    }

    /* The undo file of an earlier run. Its blocks are those to be written: the
     * tool's parser may make up another identity each time. They were judged by that run, and the
     * file's checksums say that they are the same. */
    void read_undo()
    {
        undo_ = read_undo_file(options_.undo);
        if (undo_.plan != plan_.text) {
            throw std::runtime_error(
                fmt::format("{} is the undo file of another plan than {}: --undo needs a new name",
                            options_.undo, options_.plan));
        }
        require_same(device_, options_.undo, undo_);
        for (const Change &change : undo_.changes) {
            if (!steps_.contains({change.table, change.no})) {
                throw std::runtime_error(fmt::format("{} has {}, of which {} has no step",
                                                     options_.undo, change.name(), options_.plan));
            }
        }
    }

    [[noreturn]] void refuse(const Step &step, std::string_view why) const
    {
        throw std::runtime_error(fmt::format("{}, line {}, {} {}: {}", options_.plan, step.line,
                                             step.table, step.no, why));
    }

    void make_changes()
    {
        for (Step &step : plan_.steps) {
            if (step.action == Action::leave) {
                continue;
            }
            try {
                add_change(step);
            } catch (const std::exception &error) {
                refuse(step, error.what());
            }
            step.keys.reset(); /* there may be many */
            step.block.reset();
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
        const Block after =
            make_step_block(device_, metadata_, find_table(metadata_.tables, step.table), step);
        Change change;
        change.table = step.table;
        change.no = step.no;
        change.offset = step.offset;
        change.unreadable = !is_read;
        change.after = KeptBlock(after.data());
        if (is_read) {
            if (now == after) {
                return;
            }
            if (step.unreadable || zutr_crc32(now.data(), SIZE_4K) != step.crc) {
                throw std::runtime_error("its block of " + options_.device +
                                         " has changed since the plan was made");
            }
            change.before = KeptBlock(now.data());
        }
        undo_.changes.push_back(std::move(change));
    }

    void refuse_new_errors()
    {
        if (undo_.changes.empty()) {
            return;
        }
        NewBlocks blocks;
        for (const Change &change : undo_.changes) {
            blocks[{change.table, change.no}] = {change.offset, &change.after};
        }
        const auto errors = NewErrors(device_, metadata_, blocks).find(blocks);
        for (const Step &step : plan_.steps) {
            const auto error = errors.find({step.table, step.no});
            if (error != errors.end()) {
                refuse(step, error->second);
            }
        }
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
            new_undo_->finish(undo_);
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
    bool goes_on_;                        /* where an earlier run ended: its undo file is there */
    std::optional<NewUndoFile> new_undo_; /* empty: none is made */
    Plan plan_;
    Metadata metadata_;
    UndoFile undo_;
    std::map<std::pair<std::string_view, uint64_t>, const Step *> steps_; /* by table and number */
};

} // namespace

void apply(const ApplyOptions &options)
{
    if (options.undo.empty()) {
        throw UsageError("--undo needs the name of a file");
    }
    Apply(options).run();
}

} // namespace tierctl
