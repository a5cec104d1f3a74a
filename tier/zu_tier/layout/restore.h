#pragma once

#include "zu_tier/driver/params.h"
#include "zu_tier/format/records.h"

#include <cstdint>

/* Restoring an inode: a damaged slot gets a fresh identity and checksum, but only where the extent
 * table proves that nothing belongs to it any more. What it decides goes to standard output. */

struct tier_restore {
    const char *func; /* the handler that the log names */
    int64_t inode_offset;
    uint32_t inode_magic;
    tier_region extents;
    uint64_t extent_table_size; /* bytes */
    uint32_t extent_size;       /* bytes that an extent's checksum is taken over */
    int64_t failed_read_offset; /* shown when the extents cannot be read */
    bool shows_write_offset;    /* when the inode cannot be written */
};

/* Restores the inode `params->meta_no`; with the force flag doubtful extents do not count; the
 * commit flag has no effect. 0 also where the inode is healthy or still owned, a negative errno, or
 * the allocator's positive error number. */
int32_t tier_restore_inode(const tier_restore &plan, const zutr_params_t *params);
