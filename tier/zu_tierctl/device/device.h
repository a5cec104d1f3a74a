#pragma once

#include "common/zutr_utils.h"
#include "zu_tier/format/records.h"
#include "zu_tierctl/device/fd.h"
#include "zu_tierctl/device/kept_block.h"
#include "zu_tierctl/device/mapfile.h"
#include "zu_tierctl/device/read_queue.h"
#include "zu_tierctl/device/unreadable.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace tierctl {

enum class Access {
    read_only,
    exclusive, /* for writing; a block device that is in use, or read-only, is refused */
};

/* Throws a usage error when two of the paths are the same block device or file. */
void refuse_same(const std::vector<std::string> &paths);

/* A device or an image of one: a block device or a regular file, read with direct I/O where
 * possible. The constructor throws for anything else, and when the list beside it, of blocks that a
 * saved file lacks, is none. Of a copy that ddrescue has made `mapfile`, unless it is empty, names
 * the mapfile: what that does not call finished cannot be read, and the size is that of the device.
 */
class Device {
public:
    Device(const std::string &path, Access access, const std::string &mapfile = "");

    const std::string &path() const { return path_; }
    uint64_t size() const { return size_; }
    int fd() const { return fd_.get(); }

    const UnreadableList &unreadable() const { return unreadable_; }

    /* Reads into memory aligned to 4096. False, with the reason in errno, when any of it cannot be
     * read or lies outside the device, or when `offset` is no multiple of 4096. A block that a
     * saved file lacks cannot be read either, until anything but zeros is written there. */
    bool read(int64_t offset, void *data, size_t length) const;

    /* Whether the device alone decides what a read gives: no block of it is laid over, and none is
     * in the list of blocks that a saved file lacks, or unfinished in a mapfile. */
    bool is_bare(int64_t offset, size_t length) const;

    /* Whether reads go past the page cache. */
    bool is_direct() const;

    /* From now on reads give this block of 4096 bytes in place of the one at `offset`, a multiple
     * of 4096. Nothing is written, and a block that lies outside the device stays there. */
    void lay_over(int64_t offset, const KeptBlock &block);

    /* From now on reads give again what the device has. */
    void uncover() { laid_over_.clear(); }

    /* The only way to write to a device: puts `block` in place of the block at `offset`, which must
     * still be `expected`, or still be unreadable when that is null. Waits until it is there, reads
     * it back and compares. All blocks have 4096 bytes, aligned to 4096. Throws; the message says
     * whether anything was written. */
    void write_block(int64_t offset, const void *expected, const void *block);

private:
    bool holds(int64_t offset, size_t length) const;

    /* Reads what the device has, whatever lies over it and whatever the list says. */
    bool read_stored(int64_t offset, void *data, size_t length) const;

    /* The same where the mapfile and the list allow it. */
    bool read_listed(int64_t offset, void *data, size_t length) const;

    std::string path_;
    uint64_t size_ = 0;
    Fd fd_;
    UnreadableList unreadable_;
    Mapfile mapfile_;
    std::map<int64_t, KeptBlock> laid_over_; /* by offset */
};

/* Whether all bytes of a block of 4096 are zero. */
bool is_zero(const uint8_t *block);
/* How many slots of a region, counted from its first, lie on a device of `size` bytes. The tool
 * reads only whole slots at multiples of 4096. */
uint64_t slots_on_device(const tier_region &region, uint64_t size);

/* Slots of a table that follow one another on the device. */
struct Slots {
    uint64_t first_no;
    uint64_t count;
    int64_t offset;      /* of the first slot */
    const uint8_t *data; /* null: the slots cannot be read */
    int error;           /* error number that says why; 0: they were read */

    const uint8_t *slot(uint64_t i) const { return data + i * SIZE_4K; }
};

/* The data of a file, as far as is known where its holes are. */
class Holes {
public:
    explicit Holes(int fd) : fd_(fd) {}

    /* Whether the file has nothing there, so that all bytes are zero. Where that cannot be told, as
     * on a block device, it has. */
    bool cover(int64_t offset, size_t length);

private:
    void look_up(int64_t offset);

    int fd_;
    int64_t known_ = 0;      /* from here to the end of the data it is known */
    int64_t data_start_ = 0; /* the first after that */
    int64_t data_end_ = 0;
};

/* The largest number of buffers of 1 MiB of a reader. */
constexpr size_t READ_BUFFERS = 8;

/* Reads a table from its first slot to its last and gives every slot exactly once: in runs of up to
 * 1 MiB where the device can be read, slot by slot around an error, and as a single run whatever
 * lies outside the device. Device and regions must outlive the reader.
 *
 * What comes next of the table is read ahead, several MiB at the same time, when that saves time
 * and the kernel lets it. So what is written to the table while a reader is at work may be missed.
 * Holes of a file are not read. */
class TableReader {
public:
    /* `buffers`, at least 1, for two readers that work at the same time: together they should have
     * READ_BUFFERS. */
    TableReader(const Device &device, std::span<const tier_region> regions,
                size_t buffers = READ_BUFFERS);
    TableReader(const TableReader &) = delete;
    TableReader &operator=(const TableReader &) = delete;
    ~TableReader();

    /* Gives the next run, whose data are valid until the next call; false at the end of the table.
     */
    bool next(Slots *slots);

private:
    /* Slots that are read in one go. */
    struct Chunk {
        zutr_buffer data; /* 1 MiB, from the first use on */
        int64_t offset = 0;
        size_t length = 0;
        bool is_hole = false;
        bool is_queued = false;
        QueuedRead read;
    };

    /* The next run of a region of which only the first `present` slots lie on the device. */
    Slots read(const tier_region &region, uint64_t present);

    /* Begins with as many of the next chunks as there may be at the same time. */
    void begin_chunks();
    /* How many chunks of the table were not begun. */
    uint64_t chunks_to_begin() const;
    /* Makes it the next of these: there must be one. */
    void place_next(Chunk &chunk);
    /* Completes the first chunk that was begun; false when not all of it can be read. */
    bool complete(Chunk &chunk);

    const Device &device_;
    std::span<const tier_region> regions_;
    size_t region_ = 0;       /* of the next run */
    uint64_t first_ = 0;      /* slot of the region with which the next run begins */
    uint64_t base_ = 0;       /* number of the region's first slot */
    uint64_t single_end_ = 0; /* slots of the region before this one are read one by one */

    Holes holes_;
    size_t ahead_region_ = 0; /* of the next chunk to begin */
    uint64_t ahead_first_ = 0;
    size_t buffers_;
    std::array<Chunk, READ_BUFFERS> chunks_; /* each begun chunk takes the next, in a ring */
    uint64_t begun_ = 0;
    uint64_t completed_ = 0;
};

/* Calls `take` with each run of the table. */
void read_table(const Device &device, std::span<const tier_region> regions,
                const std::function<void(const Slots &)> &take);

} // namespace tierctl
