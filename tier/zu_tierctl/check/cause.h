#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tierctl {

/* What explains many findings at once: entries up to the end of an area, none of which is one. */
struct Cause {
    std::string_view table;
    uint64_t first; /* of the table's slots */
    uint64_t last;
    std::string text;
};

/* The cause of a finding about nearly every entry: a super block that a conversion would replace.
 */
std::optional<Cause> find_conversion(const Device &device, const Metadata &metadata);

/* Looks for a cause in area number `region` of a table. Reads its last slots only, up to one that
 * is sound. */
std::optional<Cause> find_cause(const Device &device, const Metadata &metadata, const Table &table,
                                size_t region);

} // namespace tierctl
