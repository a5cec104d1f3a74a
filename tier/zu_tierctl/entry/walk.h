#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/table.h"

#include <cstdint>
#include <functional>

namespace tierctl {

/* Slots of which nothing is known. */
struct UnknownSlots {
    uint64_t damaged = 0;
    uint64_t unreadable = 0;
};

/* Calls `use` with the number and the bytes of each entry in use of the sound slots of a table, in
 * the order of their numbers. */
UnknownSlots walk_in_use(const Device &device, const Table &table,
                         const std::function<void(uint64_t no, const uint8_t *entry)> &use);

} // namespace tierctl
