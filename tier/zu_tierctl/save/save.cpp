#include "zu_tierctl/save/save.h"

#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/mapfile.h"
#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/unreadable.h"
#include "zu_tierctl/entry/given_super.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <vector>

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

/* What was read of a device, for a mapfile. */
class Coverage {
public:
    void add(const Slots &slots)
    {
        const auto start = static_cast<uint64_t>(slots.offset);
        const CopyStatus status = slots.data != nullptr ? CopyStatus::finished : CopyStatus::failed;
        if (!runs_.empty() && runs_.back().status == status && runs_.back().end() == start) {
            runs_.back().length =
                tier_add(runs_.back().length, tier_multiply(slots.count, SIZE_4K));
        } else {
            runs_.push_back({start, tier_multiply(slots.count, SIZE_4K), status});
        }
    }

    void write(NewFile &file, uint64_t device_size)
    {
        std::ranges::sort(runs_, {}, &Run::start);
        int64_t offset = 0;
        MapfileWriter writer(device_size, [&file, &offset](std::string_view text) {
            file.write(offset, text.data(), text.size());
            offset += static_cast<int64_t>(text.size());
        });
        for (const Run &run : runs_) {
            writer.add(run.start, run.length, run.status);
        }
        writer.finish();
        file.commit();
    }

private:
    struct Run {
        uint64_t start;
        uint64_t length;
        CopyStatus status;

        uint64_t end() const { return tier_add(start, length); }
    };

    std::vector<Run> runs_;
};

} // namespace

bool save(const SaveOptions &options)
{
    const Device device(options.device, Access::read_only, options.mapfile);
    const Metadata metadata = read_metadata(device, options.super_file);
    hint_in_use(options.device);
    NewFile file(options.file, Naming::new_name);
    refuse_existing(unreadable_path(options.file));
    std::optional<NewFile> new_mapfile;
    if (!options.new_mapfile.empty()) {
        new_mapfile.emplace(options.new_mapfile, Naming::new_name);
    }
    file.resize(device.size());
    UnreadableWriter unreadable(options.file);
    Coverage coverage;
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
            if (new_mapfile) {
                coverage.add(slots);
            }
            progress.add(slots.count);
        });
    }
    commit(unreadable, file);
    if (new_mapfile) {
        coverage.write(*new_mapfile, device.size());
    }
    return unreadable.empty();
}

} // namespace tierctl
