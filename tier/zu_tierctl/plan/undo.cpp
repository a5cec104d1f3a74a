#include "zu_tierctl/plan/undo.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/plan/rewrite.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

namespace tierctl {

namespace {

/* Leaves only the changes that the operands name; each must be there. */
void select_changes(std::vector<Change> &changes, const Metadata &metadata,
                    const UndoOptions &options)
{
    const Selection selection = select_slots(metadata.tables, *options.entries);
    std::set<uint64_t> held;
    for (const Change &change : changes) {
        if (change.table == selection.table.name) {
            held.insert(change.no);
        }
    }
    for (const std::string &note : selection.notes) {
        complain(note);
    }
    for (const uint64_t no : selection.slots) {
        if (!held.contains(no)) {
            throw UsageError(
                fmt::format("{} {} is not in {}", selection.table.name, no, options.file));
        }
    }
    std::erase_if(changes, [&](const Change &change) {
        return change.table != selection.table.name ||
               !std::ranges::binary_search(selection.slots, change.no);
    });
}

} // namespace

/* The old blocks are held by the checksums of the file, not by the layout's checks: most are
 * damaged, which is why they were replaced. As in an apply, each block of the device must be on one
 * of the two sides, and is written through the same door. */
void undo(const UndoOptions &options)
{
    Device device(options.device, options.commit ? Access::exclusive : Access::read_only);
    UndoFile undo = read_undo_file(options.file);
    const Metadata metadata = require_same(device, options.file, undo);
    if (options.entries) {
        select_changes(undo.changes, metadata, options);
    }
    if (!options.commit) {
        hint_in_use(options.device);
    }
    Rewrite rewrite(device, metadata, undo.changes, &Change::before);
    rewrite.show([](const Change &) { return std::string(); }, options.commit);
    if (rewrite.left() == 0) {
        complain("nothing to do: every block that could be read before is as it was");
    } else if (options.commit) {
        rewrite.write("the same command goes on from here");
    } else {
        complain("nothing was written: --commit writes it");
    }
}

} // namespace tierctl
