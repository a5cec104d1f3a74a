#pragma once

#include "common/zutr_assert.h"
#include "zu_tier/layout/layout.h"

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

/* All fields in V2 and V3; V1 does not use the last two words. */
constexpr auto TIER_INODE_FIELDS = std::tuple_cat(
    TIER_INODE_HEAD_FIELDS, std::tuple{zutr_field{"new_data", &tier_inode_t::new_data},
                                       zutr_field{"blocks", &tier_inode_t::i_blocks}});

/* The keys of V1 and V2. */
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

constexpr tier_claim TIER_INODE_CLAIMS[] = {
    {"identity", tier_number_at(offsetof(tier_inode_t, i_uuid), 8), tier_claim_type::identity},
};

void tier_check_inode(const void *sb, const uint8_t *entry, tier_findings &to);

/* A layout's inode table, which tells extents or shards the size of their file; a layout with
 * `bounds` sets them. */
constexpr tier_table
tier_inode_table(uint32_t magic, tier_regions (*regions)(const void *sb),
                 uint32_t (*crc)(void *record, uint32_t length), tier_columns (*fields)(),
                 tier_columns (*keys)(), const zutr_repair_t &repair,
                 int32_t (*restore)(zutr_params_t *params, tier_restore *plan) = nullptr)
{
    return {
        .name = "inode",
        .number_key = "no",
        .regions = regions,
        .count_keys = {"inode_cnt", "exp_inode_cnt"},
        .record_length = [](const void *) { return uint64_t{sizeof(tier_inode_t)}; },
        .crc = crc,
        .checksum = &TIER_HEAD_CHECKSUM,
        .magic = tier_number_at(offsetof(tier_inode_t, i_magic), 4),
        .magic_value = magic,
        .number = tier_number_at(offsetof(tier_inode_t, i_no), 4),
        .fields = fields,
        .keys = keys,
        .repair = repair,
        .restore = restore,
        .in_use = tier_number_at(offsetof(tier_inode_t, i_use), 2),
        .owner = {"brick", tier_number_at(offsetof(tier_inode_t, i_brick_no), 4)},
        .claims = TIER_INODE_CLAIMS,
        .check = tier_check_inode,
        .for_referrers = tier_number_at(offsetof(tier_inode_t, i_size), 8),
    };
}

/* Logs a bad inode, found at number `no`, in the layout's words. */
using tier_bad_inode_t = void (*)(const char *func, const tier_inode_t &inode, int32_t no,
                                  uint32_t crc);

/* The words of V1 and V3. */
void tier_log_bad_inode(const char *func, const tier_inode_t &inode, int32_t no, uint32_t crc);

/* Prints the inode as a JSON object by the table `Fields`; `offset` is shown as "meta_offset". */
template <const auto &Fields>
void tier_print_inode(const void *inode, int64_t offset, FILE *fp)
{
    /* GCOVR_EXCL_BR_START: only the stream may be missing */
    zutr_assert(inode != nullptr && fp != nullptr, "inode && fp");
    /* GCOVR_EXCL_BR_STOP */
    zutr_print_entry<Fields>(*static_cast<const tier_inode_t *>(inode), offset, fp);
}

/* Formatter of the dump driver, on behalf of `func`. */
int32_t tier_dump_inode(const char *func, const tier_table &table, tier_bad_inode_t log_bad,
                        int32_t no, void *meta, const char *delim, const zutr_params_t *params);

/* Reads a V1 or V2 inode from a repair file; `in_use_keys` only when it is in use. */
template <class Keys>
void tier_read_inode(zutr_json_reader &in, const Keys &in_use_keys, tier_inode_t *inode)
{
    in.read(TIER_INODE_KEYS, inode);
    if (inode->i_use != 0) {
        in.read(in_use_keys, inode);
    }
}
