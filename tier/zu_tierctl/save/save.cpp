#include "zu_tierctl/save/save.h"

#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/unreadable.h"
#include "zu_tierctl/entry/metadata.h"

#include <algorithm>
#include <filesystem>
#include <span>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

bool is_zero(const uint8_t *slot)
{
    return std::ranges::all_of(std::span(slot, SIZE_4K), [](uint8_t byte) { return byte == 0; });
}

/* Writes the slots that are not zero; the others are holes. */
void write_slots(tierctl_new_file &file, const tierctl_slots &slots)
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

/* Names both files, the list first: an incomplete file must never look complete. */
void commit(tierctl_unreadable_writer &unreadable, tierctl_new_file &file)
{
    unreadable.commit();
    try {
        file.commit(tierctl_naming::new_name);
    } catch (...) {
        if (!unreadable.empty()) {
            std::error_code ignored; /* the first failure is the one to be told */
            fs::remove(tierctl_unreadable_path(file.path()), ignored);
        }
        throw;
    }
}

} // namespace

bool tierctl_save(const std::string &device_path, const std::string &file_path)
{
    const tierctl_device device(device_path, tierctl_access::read_only);
    const tierctl_metadata metadata = tierctl_read_metadata(device);
    if (!tierctl_unreadable_list(device_path).empty()) {
        throw std::runtime_error(device_path + " is incomplete: see " +
                                 tierctl_unreadable_path(device_path));
    }
    tierctl_refuse_existing(file_path);
    tierctl_refuse_existing(tierctl_unreadable_path(file_path));
    tierctl_new_file file(file_path);
    file.resize(device.size());
    tierctl_unreadable_writer unreadable(file_path);
    uint64_t total = 0;
    for (const tierctl_table &table : metadata.tables) {
        total += table.count();
    }
    tierctl_progress progress("save", total);
    for (const tierctl_table &table : metadata.tables) {
        tierctl_read_table(device, table, [&](const tierctl_slots &slots) {
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
