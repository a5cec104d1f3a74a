#pragma once

#include "zu_tier/format/v2.h"

#include <cstdint>

/* The geometry of mapped pieces, for a super block that is converted from the older layout. */

/* Bytes of data for each mapped piece, by the rule. It does not fit every block size: a block may
 * have more pieces than an extent has room for. */
uint32_t tier_map_size_v2(uint32_t block_cnt, uint32_t block_size);

/* The same for a device of `block_cnt` blocks of `block_size` bytes. Asserts that the rule fits the
 * block size. */
int32_t get_def_min_alloc_size(uint32_t block_cnt, uint32_t block_size);

/* Whether the extents on the device have `map_cnt` mapped pieces: 0, -EINVAL when they have not,
 * -EIO when none can be read, -ENOMEM. Reads 1 MiB of extents, once in the process. */
int32_t verify_map_cnt(const tier_super_block_v2_t *sb, int32_t dev_fd, uint32_t map_cnt);

/* Whether the super block `sb` is of the older layout and the extents on the device, which has
 * `size` bytes, are of this one: whether the probe of a conversion would find their pieces. */
bool tier_has_tables_v2(const void *sb, int32_t dev_fd, uint64_t size);

/* Fills in what the older layout does not have, from sb_block_size, sb_block_cnt, sb_extent_size
 * and the extents on the device. 0 or -EINVAL. */
int32_t calc_super_block_v2(int32_t dev_fd, tier_super_block_v2_t *sb);
