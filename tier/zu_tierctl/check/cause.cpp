#include "zu_tierctl/check/cause.h"

#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/fields.h"
#include "zu_tierctl/entry/log_capture.h"

#include <algorithm>
#include <fmt/format.h>
#include <new>

namespace tierctl {

namespace {

/* Fewer are told as what they are. */
constexpr uint64_t CAUSE_MIN = 16;

/* A longer stretch that cannot be read is left to the check: each block may take its time. */
constexpr uint64_t UNREADABLE_MAX = 16;

/* The end of an area, read backwards. */
class Tail {
public:
    Tail(const Device &device, const Table &table, const tier_region &region, uint64_t first_no)
        : device_(device), table_(table), region_(region), first_no_(first_no),
          sound_end_(region.count)
    {
    }

    /* Reads slots backwards, from the one before `end`, until one is sound. One that cannot be read
     * is not. False when there are many of these. */
    bool read(uint64_t end)
    {
        uint64_t step = CAUSE_MIN; /* usually all is sound */
        zutr_buffer buffer;
        if (zutr_alloc_aligned(SIZE_1M, &buffer) != 0) {
            throw std::bad_alloc();
        }
        while (end > 0) {
            const uint64_t count = std::min(step, end);
            const uint64_t first = end - count;
            const bool whole = device_.read(region_.slot(first), buffer.get(), count * SIZE_4K);
            for (; end > first; end--) {
                uint8_t *slot = buffer.get() + (end - 1 - first) * SIZE_4K;
                if (!whole && !device_.read(region_.slot(end - 1), slot, SIZE_4K)) {
                    zero_ = false;
                    if (++unreadable_ > UNREADABLE_MAX) {
                        return false;
                    }
                    continue;
                }
                if (table_.flaws(first_no_ + end - 1, slot) == 0) {
                    sound_end_ = end;
                    return true;
                }
                zero_ = zero_ && is_zero(slot);
            }
            step = SIZE_1M / SIZE_4K;
        }
        sound_end_ = 0;
        return true;
    }

    uint64_t sound_end() const { return sound_end_; }
    bool zero() const { return zero_; }

private:
    const Device &device_;
    const Table &table_;
    const tier_region &region_;
    uint64_t first_no_;       /* of the area */
    uint64_t sound_end_;      /* slots of the area up to the last that is sound */
    bool zero_ = true;        /* the slots after it */
    uint64_t unreadable_ = 0; /* of these */
};

/* "inode_cnt 4048, ", from the super block; empty when no field of it counts the area. */
std::string count_text(const Metadata &metadata, std::string_view key)
{
    const tier_columns columns = metadata.tables.front().row->fields();
    const auto column = std::ranges::find(columns, key, &tier_column::key);
    if (column == columns.end()) {
        return "";
    }
    return fmt::format("{} {}, ", key, column_text(*column, metadata.super()));
}

/* Whether the tables are of the layout. What the tool logs of its search is dropped. */
bool has_tables(const tier_layout &layout, const Metadata &metadata, const Device &device)
{
    const LogCapture log;
    return layout.has_tables(metadata.super(), device.fd(), device.size());
}

} // namespace

std::optional<Cause> find_conversion(const Device &device, const Metadata &metadata)
{
    for (const tier_layout *layout : tier_layouts()) {
        if (layout != metadata.layout && layout->has_tables != nullptr &&
            has_tables(*layout, metadata, device)) {
            return Cause{SUPER_TABLE, 0, 0,
                         fmt::format("the tables are those of layout {}: {} -v {} -c {} -f FILE "
                                     "makes their super block, where FILE is the output of "
                                     "dump_super",
                                     layout->name, tool_command(device.path()), layout->version,
                                     layout->conversion)};
        }
    }
    return std::nullopt;
}

std::optional<Cause> find_cause(const Device &device, const Metadata &metadata, const Table &table,
                                size_t region_no)
{
    const tier_region &region = table.regions[region_no];
    const uint64_t first_no = region_no == 0 ? 0 : table.regions.front().count;
    const uint64_t present = slots_on_device(region, device.size());
    Tail tail(device, table, region, first_no);
    if (present < CAUSE_MIN || !tail.read(present) || present - tail.sound_end() < CAUSE_MIN) {
        return std::nullopt;
    }
    const uint64_t first = first_no + tail.sound_end();
    const uint64_t last = first_no + region.count - 1;
    const std::string unit = fmt::format("{}{}", table.name, table.row->packed() ? " block" : "");
    const char *note = tail.zero() && present == region.count ? "; they are all zero"
                       : tail.sound_end() == 0
                           ? "; perhaps the table is of another layout, or lies "
                             "elsewhere"
                           : "";
    const std::string found = tail.sound_end() == 0
                                  ? fmt::format("no {} was found", unit)
                                  : fmt::format("the last {} found is {}", unit, first - 1);
    return Cause{table.name, first, last,
                 fmt::format("{} {} are no {}s: {}{}{}", unit, range_text(first, last), unit,
                             count_text(metadata, table.row->count_keys[region_no]), found, note)};
}

} // namespace tierctl
