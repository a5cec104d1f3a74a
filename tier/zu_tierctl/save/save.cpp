#include "zu_tierctl/save/save.h"

#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/unreadable.h"
#include "zu_tierctl/entry/given_super.h"

#include <filesystem>
#include <stdexcept>

namespace tierctl {

namespace fs = std::filesystem;

namespace {

/* Writes the slots that hold anything but zeros; the others stay holes. */
void write_slots(NewFile &file, const Slots &slots)
{
    for (uint64_t first = 0; first < slots.count; first++) {
        uint64_t end = first;
        while (end < slots.count && !is_zero(slots.slot(end))) {
            end++;
        }
        if (end > first) {
            file.write(slots.offset + static_cast<int64_t>(first * SIZE_4K), slots.slot(first),
                       (end - first) * SIZE_4K);
            first = end;
        }
    }
}

/* Gives both files their names, the list first: an incomplete file must never look complete. A
 * signal leaves both or none. */
void commit(UnreadableWriter &unreadable, NewFile &file)
{
    file.sync(); /* takes long: before the signals are held */
    const SignalsHeld held;
    unreadable.commit();
    try {
        file.commit();
    } catch (...) {
        if (!unreadable.empty()) {
            std::error_code ignored; /* only the first failure is reported */
            fs::remove(unreadable_path(file.path()), ignored);
        }
        throw;
    }
}

} // namespace

bool save(const std::string &device_path, const std::string &file_path,
          const std::string &super_file)
{
    const Device device(device_path, Access::read_only);
    const Metadata metadata = read_metadata(device, super_file);
    hint_in_use(device_path);
    NewFile file(file_path, Naming::new_name);
    refuse_existing(unreadable_path(file_path));
    file.resize(device.size());
    UnreadableWriter unreadable(file_path);
    uint64_t total = 0;
    for (const Table &table : metadata.tables) {
        total = add_limited(total, table.count());
    }
    Progress progress("save", total);
    for (const Table &table : metadata.tables) {
        read_table(device, table.regions, [&](const Slots &slots) {
            if (slots.data == nullptr) {
                unreadable.add(table.name, slots);
            } else {
                write_slots(file, slots);
            }
            progress.add(slots.count);
        });
    }
    commit(unreadable, file);
    return unreadable.empty();
}

} // namespace tierctl
