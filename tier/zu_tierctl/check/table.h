#pragma once

#include "zu_tierctl/check/states.h"
#include "zu_tierctl/check/table_findings.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tierctl {

/* What the check of a table needs to know. */
struct TableContext {
    const Device &device;
    const Metadata &metadata;
    const Table &table;
    const TableFindings &findings;
    const States &owners; /* of the table that the entries refer to, if any */
    Watcher *watcher;     /* may be null */
    bool live;            /* the table may change while it is read */
};

struct TableOutcome {
    Counts counts;
    States states; /* empty unless other tables refer to this one */
};

/* Checks the entries of a table whose records fit their slots. Reads the table once for each of its
 * claims, and once more when something is claimed repeatedly. When the claims do not fit in
 * `claims_memory` bytes it reads the table three times, and more often only when very much is
 * claimed repeatedly. With 0 it does not search for claims. */
TableOutcome check_entries(const TableContext &context, size_t claims_memory);

/* What the progress bar says during a pass over a table. `passes`: how many there will be, fewer
 * than `pass` when that is not known. */
std::string pass_title(std::string_view table, unsigned pass, unsigned passes);

/* Reports what is wrong in the super block: that it is of another layout than the tables, its
 * parameters, and the places of its areas on a device of so many bytes. */
void check_super(const Metadata &metadata, const std::optional<Cause> &conversion,
                 uint64_t device_size, const TableFindings &findings);

} // namespace tierctl
