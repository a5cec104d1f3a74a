#pragma once

#include "zu_tier/format/areas.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/record.h"

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

/* Reads "ctime", of which 18 characters count: a hexadecimal number up to the first character that
 * is no such digit. 0 or -EINVAL, logged. */
int32_t tier_read_ctime(const zutr_json_reader &in, zutr_cmd_t cmd, uint64_t *ctime);

/* Reads "version", a hexadecimal number that must be `expected` unless that is 0. 0 or -EINVAL,
 * logged. */
int32_t tier_read_version(const zutr_json_reader &in, zutr_cmd_t cmd, uint32_t expected,
                          uint32_t *version);

/* Reads what TIER_SUPER_HEAD_FIELDS shows but for checksum and magic. 0 or -EINVAL, logged. */
template <class Super>
int32_t tier_read_super_head(const zutr_json_reader &in, zutr_cmd_t cmd, uint32_t expected_version,
                             Super *sb)
{
    int32_t ret = in.read(TIER_SUPER_SIZE_KEYS<Super>, sb);
    ret = ret == 0 ? tier_read_ctime(in, cmd, &sb->sb_ctime) : ret;
    ret = ret == 0 ? in.read(TIER_SUPER_IDENTITY_KEYS<Super>, sb) : ret;
    ret = ret == 0 ? tier_read_version(in, cmd, expected_version, &sb->sb_version) : ret;
    return ret == 0 ? in.read(TIER_SUPER_COUNT_KEYS<Super>, sb) : ret;
}

/* Prints a super block as a JSON object. */
template <const auto &Fields, class Super>
void tier_print_super(const Super &sb, FILE *fp)
{
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields<Fields>(out, sb);
    out.put("}");
}

/* Whether an image is a super block of a layout: 0, or -EFAULT after a DEBUG line on behalf of
 * `func` that begins with the layout's name. */
template <class Super>
int32_t tier_check_super(const char *func, const char *layout, const Super &sb, uint32_t magic,
                         uint32_t version)
{
    const uint32_t crc = zutr_record_crc(sb);
    if (sb.sb_magic == magic && sb.sb_version == version && sb.sb_checksum == crc) {
        return 0;
    }
    zutr_debug(func, "%s check super block failed. magic:0x%x, ver:0x%x, cksum:0x%x:0x%x", layout,
               sb.sb_magic, sb.sb_version, sb.sb_checksum, crc);
    return -EFAULT;
}

/* The command dump_super. */
template <class Super>
int32_t tier_dump_super(const zutr_params_t *params, zutr_super_check_t check,
                        void (*print)(const Super *sb, FILE *fp))
{
    if (params->sb == nullptr || params->out_fp == nullptr) {
        return -EINVAL;
    }
    const int32_t ret = check(params->sb);
    if (ret == 0) {
        print(static_cast<const Super *>(params->sb), params->out_fp);
    }
    return ret;
}

/* Gives the length of the identity of the SSD, which is 38, when it is the right one; else -EINVAL
 * after a message on behalf of `func`. */
int32_t tier_check_ssd_uuid(const char *func, const char (&ssd_uuid)[48]);
