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

/* How a restore takes an extent. The first two are doubtful: they may belong to any inode. */
enum class tier_extent_state { zero_filled, bad_checksum, free, in_use };

struct tier_judged_extent {
    tier_extent_state state;
    uint32_t inode_no; /* of one in use */
};

/* The extents that keep an inode from being restored. */
struct tier_inode_claims {
    int32_t doubtful;
    int32_t owned;
};

enum class tier_restore_decision {
    doubtful, /* nothing proves that the inode has no extents */
    owned,    /* some are its own */
    restored,
};

/* The steps of a restore, for those who decide by it and do not write. */

/* Whether an inode needs none: `slot` has the right magic and checksum. */
bool tier_inode_is_readable(const tier_restore &plan, const void *slot);

/* 0, or -EFAULT, logged, where the super block gives the extent table fewer bytes than its entries
 * need. */
int32_t tier_check_restore(const tier_restore &plan);

tier_judged_extent tier_judge_extent(const tier_restore &plan, const uint8_t *slot);

/* `force`, unless it is 0: doubtful extents do not count. */
tier_restore_decision tier_decide_restore(const tier_inode_claims &claims, int32_t force);

/* Gives a slot the identity of inode `no` and its checksum, and leaves every other byte. */
void tier_put_identity(const tier_restore &plan, int32_t no, void *slot);

/* Restores the inode `params->meta_no`; with the force flag doubtful extents do not count; the
 * commit flag has no effect. 0 also where the inode is healthy or still owned, a negative errno, or
 * the allocator's positive error number. */
int32_t tier_restore_inode(const tier_restore &plan, const zutr_params_t *params);
