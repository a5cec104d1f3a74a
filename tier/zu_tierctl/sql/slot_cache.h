#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/table.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace tierctl {

/* Slots of a table that were read one by one: a query that joins tables asks for them again and
 * again. When it has asked for some, their neighbours are read with them. */
class SlotCache {
public:
    /* Takes about so many bytes. Device and table must outlive it. */
    SlotCache(const Device &device, const Table &table, size_t memory);

    /* Reads slot `no`, which lies on the device in `region`, the first slot of which has the number
     * `first`: SIZE_4K bytes. False when it cannot be read. */
    bool read(const tier_region &region, uint64_t first, uint64_t no, uint8_t *to);

private:
    enum class Kept : uint8_t { nothing, bytes, unreadable };

    struct Place {
        uint64_t no = 0;
        Kept kept = Kept::nothing;
    };

    void keep(uint64_t no, const uint8_t *slot);
    void read_run(const tier_region &region, uint64_t first, uint64_t no);

    const Device &device_;
    size_t kept_size_; /* bytes of a slot that are kept: the others are not looked at */
    size_t capacity_;
    std::vector<Place> places_; /* that of a slot is its number modulo the capacity */
    std::vector<uint8_t> bytes_;
    uint64_t misses_ = 0;
    zutr_buffer buffer_;
};

/* The caches of a query, by table of a device. */
class SlotCaches {
public:
    /* Together they take about so many bytes. */
    static constexpr size_t MEMORY = size_t{32} << 20;

    explicit SlotCaches(size_t devices) : devices_(devices) {}

    SlotCache &of(const Device &device, const Table &table);

private:
    size_t devices_;
    std::map<const Table *, SlotCache> caches_;
};

} // namespace tierctl
