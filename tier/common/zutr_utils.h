#pragma once

#include "common/zutr_crc32.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sys/types.h>

/* The unit of every device access, and its alignment in memory and on the device. */
constexpr uint32_t SIZE_4K = 4096;
constexpr uint32_t SIZE_1M = 1048576;

/* The device offset `by` bytes after `offset`. Wraps at 64 bits: the terms come from a super block
 * that may hold anything, and the device refuses an offset that it does not have. */
constexpr int64_t zutr_advance(int64_t offset, int64_t by)
{
    return static_cast<int64_t>(static_cast<uint64_t>(offset) + static_cast<uint64_t>(by));
}

/* Reads exactly `nbyte` bytes at byte `offset` of `fd`. Gives `nbyte`, or -1 with errno of the
 * failing call; the end of the device before `nbyte` bytes and bad arguments are failures too,
 * which leave errno alone. */
ssize_t zutr_readn(int32_t fd, void *buf, size_t nbyte, int64_t offset);

/* Writes exactly `nbyte` bytes at byte `offset` of `fd`. Gives `nbyte`, -22 (-EINVAL) for bad
 * arguments, or -1 with errno of the failing call. */
ssize_t zutr_writen(int32_t fd, const void *buf, size_t nbyte, int64_t offset);

/* zutr_readn into a fresh zeroed allocation, aligned to 4096, which the caller frees. Gives what
 * zutr_readn gives, -22 for bad arguments or -12 without memory; `*buf` is null after a failed
 * read and untouched where none was tried. */
ssize_t zutr_readn_ex(int32_t fd, void **buf, size_t nbyte, int64_t offset);

/* The 36-character lower-case text of the 16 bytes at `uu` (RFC 4122), in a static buffer that
 * the next call overwrites. */
const char *zutr_uuid_utoa(const uint8_t *uu);

struct zutr_free {
    void operator()(void *memory) const { free(memory); }
};

/* Owner of memory from malloc and its kin. */
template <class T>
using zutr_owned = std::unique_ptr<T, zutr_free>;

/* Memory aligned for direct device access. */
using zutr_buffer = zutr_owned<uint8_t[]>;

/* Allocates `nbyte` bytes aligned to 4096, not cleared. Gives 0, or the allocator's positive error
 * number. */
int32_t zutr_alloc_aligned(size_t nbyte, zutr_buffer *buf);

/* Turns SIGPIPE and SIGXFSZ into write errors, and opens the standard streams that the caller
 * closed: otherwise a device could get the descriptor of one and be written to. Gives 0, or -1 with
 * errno. */
int32_t zutr_secure_streams();
