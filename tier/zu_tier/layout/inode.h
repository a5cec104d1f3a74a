#pragma once

#include "zu_tier/format/records.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/record.h"

#include <cstdint>
#include <cstdio>
#include <tuple>

/* What the inode tables of all layouts have in common. */

constexpr auto TIER_INODE_HEAD_FIELDS = std::tuple{
    zutr_field{"checksum", &tier_inode_t::i_checksum, zutr_form::hex},
    zutr_field{"magic", &tier_inode_t::i_magic, zutr_form::hex},
    zutr_field{"atime", &tier_inode_t::i_atime, zutr_form::time},
    zutr_field{"ctime", &tier_inode_t::i_ctime, zutr_form::time},
    zutr_field{"mtime", &tier_inode_t::i_mtime, zutr_form::time},
    zutr_field{"dtime", &tier_inode_t::i_dtime, zutr_form::time},
    zutr_field{"uuid", &tier_inode_t::i_uuid},
    zutr_field{"size", &tier_inode_t::i_size},
    zutr_field{"priority", &tier_inode_t::i_priority},
    zutr_field{"no", &tier_inode_t::i_no},
    zutr_field{"brick_no", &tier_inode_t::i_brick_no},
    zutr_field{"unlink", &tier_inode_t::i_unlink},
    zutr_field{"use", &tier_inode_t::i_use},
};

/* In V1 the last two words are unused. */
constexpr auto TIER_INODE_FIELDS_V1 = std::tuple_cat(
    TIER_INODE_HEAD_FIELDS, std::tuple{zutr_field{"reserved1", &tier_inode_t::i_reserved1},
                                       zutr_field{"reserved2", &tier_inode_t::i_reserved2}});

/* From V2 on the last two words have a meaning. */
constexpr auto TIER_INODE_FIELDS_V2 =
    std::tuple_cat(TIER_INODE_HEAD_FIELDS, std::tuple{
                                               zutr_field{"new_data", &tier_inode_t::new_data},
                                               zutr_field{"blocks", &tier_inode_t::i_blocks},
                                           });

constexpr auto TIER_INODE_KEYS = std::tuple{
    zutr_key{"i_no", &tier_inode_t::i_no, zutr_to_s64},
    zutr_key{"i_use", &tier_inode_t::i_use, zutr_to_s32},
};

/* Read only for an inode in use, as all that follow. */
constexpr auto TIER_INODE_FILE_KEYS = std::tuple{
    zutr_key{"i_atime", &tier_inode_t::i_atime, zutr_to_u64, zutr_need::optional},
    zutr_key{"i_ctime", &tier_inode_t::i_ctime, zutr_to_u64, zutr_need::optional},
    zutr_key{"i_mtime", &tier_inode_t::i_mtime, zutr_to_u64, zutr_need::optional},
    zutr_key{"i_dtime", &tier_inode_t::i_dtime, zutr_to_u64, zutr_need::optional},
    zutr_key{"i_uuid", &tier_inode_t::i_uuid},
    zutr_key{"i_size", &tier_inode_t::i_size, zutr_to_u64},
};

/* The keys of V1 and V2. */
constexpr auto TIER_INODE_IN_USE_KEYS = std::tuple_cat(
    TIER_INODE_FILE_KEYS,
    std::tuple{
        zutr_key{"i_priority", &tier_inode_t::i_priority, zutr_to_s64},
        zutr_key{"i_brick_no", &tier_inode_t::i_brick_no, zutr_to_u64},
        zutr_key{"i_unlink", &tier_inode_t::i_unlink, zutr_to_s32, zutr_need::optional},
    });

constexpr zutr_key TIER_INODE_NEW_DATA_KEY = {"new_data", &tier_inode_t::new_data, zutr_to_u64,
                                              zutr_need::optional};
constexpr zutr_key TIER_INODE_BLOCKS_KEY = {"i_blocks", &tier_inode_t::i_blocks, zutr_to_u64,
                                            zutr_need::optional};

/* A layout's inode table: its magic, how it prints an inode, what it says of a bad one (found at
 * number `no`), and where the slot of a number lies. */
struct tier_inode_table {
    uint32_t magic;
    void (*print)(const tier_inode_t *inode, int64_t offset, FILE *fp);
    void (*log_bad)(const char *func, const tier_inode_t &inode, int32_t no, uint32_t crc);
    int64_t (*slot)(const zutr_params_t *params, uint32_t no);
};

/* What V1 and V3 say of a bad inode. */
void tier_log_bad_inode(const char *func, const tier_inode_t &inode, int32_t no, uint32_t crc);

/* Formatter of the dump driver, on behalf of `func`. */
int32_t tier_dump_inode(const char *func, const tier_inode_table &table, int32_t no,
                        const void *meta, const char *delim, const zutr_params_t *params);

/* Reads an inode from a repair file; `in_use_keys` only when it is in use. 0 or -EINVAL, logged. */
template <class Keys>
int32_t tier_read_inode(const zutr_json_reader &in, const Keys &in_use_keys, tier_inode_t *inode)
{
    const int32_t ret = in.read(TIER_INODE_KEYS, inode);
    return ret == 0 && inode->i_use != 0 ? in.read(in_use_keys, inode) : ret;
}

/* Seals a repaired inode and prints it to standard output. Gives the device offset of its slot, or
 * -EFAULT after a message on behalf of `func`. */
int64_t tier_finish_inode(const char *func, const tier_inode_table &table,
                          const zutr_params_t *params, tier_inode_t *inode);
