#pragma once

#include "zu_tier/tier_format.h"
#include "zu_tier/tier_json.h"
#include "zu_tier/tier_record.h"
#include "zu_tier/zu_tier.h"

#include <cstdint>
#include <tuple>

/* What the super blocks of several layouts have in common. */

/* The fields that V1 and V2 begin with, as a dump shows them. */
template <class Super>
constexpr auto TIER_SUPER_HEAD_FIELDS = std::tuple{
    zutr_field{"checksum", &Super::sb_checksum, zutr_form::hex},
    zutr_field{"magic", &Super::sb_magic, zutr_form::hex},
    zutr_field{"brick_table_size", &Super::sb_brick_table_size},
    zutr_field{"inode_table_size", &Super::sb_inode_table_size},
    zutr_field{"extent_table_size", &Super::sb_extent_table_size},
    zutr_field{"data_offset", &Super::sb_data_offset},
    zutr_field{"ctime", &Super::sb_ctime, zutr_form::hex_and_time},
    zutr_field{"uuid", &Super::sb_uuid},
    zutr_field{"ssd_uuid", &Super::sb_ssd_uuid},
    zutr_field{"version", &Super::sb_version, zutr_form::hex},
    zutr_field{"super block size", &Super::sb_size},
    zutr_field{"brick_cnt", &Super::sb_brick_cnt},
    zutr_field{"inode_cnt", &Super::sb_inode_cnt},
    zutr_field{"block_size", &Super::sb_block_size},
    zutr_field{"block_cnt", &Super::sb_block_cnt},
    zutr_field{"extent_size", &Super::sb_extent_size},
};

/* The same fields as a repair file gives them, before, between and behind the two texts "ctime" and
 * "version". */
template <class Super>
constexpr auto TIER_SUPER_SIZE_KEYS = std::tuple{
    zutr_key{"brick_table_size", &Super::sb_brick_table_size, zutr_to_u64},
    zutr_key{"inode_table_size", &Super::sb_inode_table_size, zutr_to_u64},
    zutr_key{"extent_table_size", &Super::sb_extent_table_size, zutr_to_u64},
    zutr_key{"data_offset", &Super::sb_data_offset, zutr_to_u64},
};

template <class Super>
constexpr auto TIER_SUPER_IDENTITY_KEYS = std::tuple{
    zutr_key{"uuid", &Super::sb_uuid},
    zutr_key{"ssd_uuid", &Super::sb_ssd_uuid},
};

template <class Super>
constexpr auto TIER_SUPER_COUNT_KEYS = std::tuple{
    zutr_key{"super block size", &Super::sb_size, zutr_to_s64},
    zutr_key{"brick_cnt", &Super::sb_brick_cnt, zutr_to_s64},
    zutr_key{"inode_cnt", &Super::sb_inode_cnt, zutr_to_s64},
    zutr_key{"block_size", &Super::sb_block_size, zutr_to_s64},
    zutr_key{"block_cnt", &Super::sb_block_cnt, zutr_to_s64},
    zutr_key{"extent_size", &Super::sb_extent_size, zutr_to_s64},
};

/* Reads "ctime", a hexadecimal number that any other text may follow. 0 or -EINVAL, logged. */
int32_t tier_read_ctime(const zutr_json_reader &in, zutr_cmd_t cmd, uint64_t *ctime);

/* Reads "version", a hexadecimal number that must be `expected`. 0 or -EINVAL, logged. */
int32_t tier_read_version(const zutr_json_reader &in, zutr_cmd_t cmd, uint32_t expected,
                          uint32_t *version);

/* Gives the length of the identity of the SSD when it is the right one, else -EINVAL, logged. */
int32_t tier_check_ssd_uuid(const char *func, const char (&ssd_uuid)[48]);
