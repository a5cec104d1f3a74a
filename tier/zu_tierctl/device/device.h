#pragma once

#include "common/zutr_utils.h"
#include "zu_tierctl/device/fd.h"
#include "zu_tierctl/entry/table.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace tierctl {

enum class Access {
    read_only,
    exclusive, /* for writing; a block device that something else holds is refused */
};

/* A device or an image of one: a block device or a regular file, read past the page cache where
 * that is possible. Opening throws when there is no such thing. */
class Device {
public:
    Device(const std::string &path, Access access);

    const std::string &path() const { return path_; }
    uint64_t size() const { return size_; }

    /* Reads into memory aligned to 4096. False when some of it cannot be read, or lies outside the
     * device, or does not begin at a multiple of 4096; errno then says why. */
    bool read(int64_t offset, void *data, size_t length) const;

    /* Writes one 4096-byte block, and returns when it is on the device. Throws. */
    void write_block(int64_t offset, const void *block);

private:
    std::string path_;
    uint64_t size_ = 0;
    Fd fd_;
};

/* Slots of a table that follow one another on the device. */
struct Slots {
    uint64_t first_no;
    uint64_t count;
    int64_t offset;      /* of the first slot */
    const uint8_t *data; /* null: these cannot be read, for the reason `error` */
    int error;

    const uint8_t *slot(uint64_t i) const { return data + i * SIZE_4K; }
};

/* Reads a table from its first slot to its last and gives every slot exactly once: in runs of up to
 * 1 MiB where the device can be read, block by block around what cannot, and in a single run what
 * lies outside the device. Device and table outlive it. */
class TableReader {
public:
    TableReader(const Device &device, const Table &table);

    /* The next run, which lasts until the next call; false when there is none. */
    bool next(Slots *slots);

private:
    /* The next run of a region of which the first `there` slots lie on the device. */
    Slots read(const tier_region &region, uint64_t there);

    const Device &device_;
    const Table &table_;
    zutr_buffer buffer_;
    size_t region_ = 0;       /* where the next run begins: region, */
    uint64_t first_ = 0;      /* slot in it, */
    uint64_t base_ = 0;       /* and the number of its first slot */
    uint64_t single_end_ = 0; /* the slots of the region before this one are read one by one */
};

/* Hands out what a reader gives. */
void read_table(const Device &device, const Table &table,
                const std::function<void(const Slots &)> &take);

} // namespace tierctl
