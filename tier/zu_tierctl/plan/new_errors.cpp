#include "zu_tierctl/plan/new_errors.h"

#include "zu_tierctl/check/check.h"
#include "zu_tierctl/entry/mend.h"

#include <fmt/format.h>

namespace tierctl {

namespace {

/* The errors that are not among others, by the blocks that bring them. */
class NewErrorReport : public Report {
public:
    NewErrorReport(const Device &device, const Metadata &metadata, const Seen &before,
                   const std::set<SlotName> &blocks)
        : Report(device.path()), metadata_(metadata), before_(before), blocks_(blocks)
    {
    }

    std::map<SlotName, std::string> take_all() { return std::move(errors_); }

private:
    void write(const Finding &finding) override
    {
        if (finding.kind.severity != Severity::error || before_.contains(finding)) {
            return;
        }
        const std::string error = fmt::format("has an error that is not there now: {} ({})",
                                              finding.text, finding.kind.name);
        const SlotName slot{finding.table, finding.slot};
        if (blocks_.contains(slot)) {
            errors_.emplace(
                slot, finding.packed ? fmt::format("its {} {} {}", finding.table, finding.no, error)
                                     : "its block " + error);
        } else if (!finding.other_table.empty()) {
            add_other(finding, error);
        }
    }
    void write_end() override {} /* GCOVR_EXCL_LINE: is not finished */

    /* The entry itself is as it was: the other one brings the error. */
    void add_other(const Finding &finding, const std::string &error)
    {
        const Table &table = find_table(metadata_.tables, finding.other_table);
        const SlotName slot{table.name, finding.other / table.end_word};
        if (blocks_.contains(slot)) {
            errors_.emplace(slot, fmt::format("with its block {} {}", about_text(finding), error));
        }
    }

    const Metadata &metadata_;
    const Seen &before_;
    const std::set<SlotName> &blocks_;
    std::map<SlotName, std::string> errors_;
};

void check_into(const Device &device, const Metadata &metadata, Report &report)
{
    check_metadata({.device = device.path()}, device, metadata, report, nullptr);
}

} // namespace

NewErrors::NewErrors(Device &device, const Metadata &metadata, const NewBlocks &blocks)
    : device_(device), metadata_(metadata)
{
    for (const auto &[slot, made] : blocks) {
        alignas(SIZE_4K) Block now;
        if (device.read(made.offset, now.data(), SIZE_4K)) {
            const Mended mended =
                mend(metadata, find_table(metadata.tables, slot.first), slot.second, now);
            if (mended.certainty == Certainty::certain) {
                const KeptBlock block(mended.block.data());
                device.lay_over(made.offset, block);
                if (block == *made.block) {
                    mends_.insert(slot);
                }
            }
        }
    }
    SeenReport<Seen> report(device.path());
    check_into(device, metadata, report);
    device.uncover();
    before_ = report.seen();
}

std::map<SlotName, std::string> NewErrors::find(const NewBlocks &blocks)
{
    std::set<SlotName> doubted;
    for (const auto &[slot, made] : blocks) {
        device_.lay_over(made.offset, *made.block);
        if (!mends_.contains(slot)) {
            doubted.insert(slot);
        }
    }
    NewErrorReport report(device_, metadata_, before_, doubted);
    check_into(device_, metadata_, report);
    device_.uncover();
    return report.take_all();
}

} // namespace tierctl
