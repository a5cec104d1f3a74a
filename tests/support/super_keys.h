#pragma once

// The keys of a super block's repair file.

#include "parsed.h"
#include "v3_device.h"

namespace tier_test {

inline const TableModel &super_table(const SuperV1 &) { return model(1, "super"); }
inline const TableModel &super_table(const SuperV2 &) { return model(2, "super"); }
inline const TableModel &super_table(const SuperV3 &) { return model(3, "super"); }

// The expansion keys of V2 belong to a super block with an expansion area only. The file may give
// more of the identity of the volume than the block keeps.
template <class Super>
RepairFile repair_file(const Super &sb)
{
    const Block block = encode(sb);
    return repair_file(super_table(sb), block, block).string("ssd_uuid", sb.ssd_uuid);
}

// What the log says of this file, in which each key is accepted. Of a super block without an
// expansion area.
template <class Super>
Log key_log(const Super &sb)
{
    return parsed(super_table(sb), encode(sb), repair_file(sb).text(), {.forced = true}).log;
}

} // namespace tier_test
