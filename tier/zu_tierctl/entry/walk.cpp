#include "zu_tierctl/entry/walk.h"

#include "zu_tierctl/device/progress.h"

#include <algorithm>
#include <fmt/core.h>

namespace tierctl {

UnknownSlots walk_in_use(const Device &device, const Table &table,
                         const std::function<void(uint64_t no, const uint8_t *entry)> &use)
{
    if (!table.identifies()) {
        return {.damaged = table.count()};
    }
    UnknownSlots unknown;
    Progress progress(fmt::format("reading {}", table.name),
                      std::min(table.count(), device.size() / SIZE_4K));
    read_table(device, table.regions, [&](const Slots &slots) {
        progress.add(slots.count);
        if (slots.data == nullptr) {
            unknown.unreadable += slots.count;
            return;
        }
        for (uint64_t i = 0; i < slots.count; i++) {
            const uint64_t no = slots.first_no + i;
            if (table.flaws(no, slots.slot(i)) != 0) {
                unknown.damaged++;
                continue;
            }
            for (uint32_t k = table.first_word; k < table.end_word; k++) {
                const uint8_t *entry = Table::entry(slots.slot(i), k);
                if (table.in_use(entry)) {
                    use(no * table.end_word + k, entry);
                }
            }
        }
    });
    return unknown;
}

} // namespace tierctl
