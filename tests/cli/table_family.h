#pragma once

// What the tables of one kind have in common in all layouts.

#include "table.h"

namespace tier_test {

bool skips_use(const Settings &filter, std::uint32_t use);
bool skips_id(const Settings &filter, const std::string &id);
// A filter by owner never shows a free entry.
bool skips_owner(const Settings &filter, std::uint32_t use, std::uint32_t owner);

// The UUID in the line of a dumped brick.
Uuid shown_uuid(const std::string &line);

// A free brick has one that the tool has made up.
template <class Brick>
Brick with_generated_uuid(Brick brick, const std::string &out)
{
    if (brick.use == 0)
        brick.uuid = shown_uuid(out);
    return brick;
}

inline int as_int(std::uint32_t value)
{
    return static_cast<int>(value);
}

// The driver's own refusal of an entry number.
std::function<LogLine(std::uint32_t no, std::uint32_t count)> refusal_of_driver(std::string key);

// What is said of a damaged inode in the layouts 1 and 3.
std::string inode_fault(std::uint32_t slot, const InodeV1 &inode, std::uint32_t stored,
                        std::uint32_t crc);

template <class Super, class Brick>
Table<Super, Brick> brick_table(const std::string &suffix, Brick (*used)(std::uint32_t no))
{
    const std::string parser = "parse_brick_from_json" + suffix;
    return {
        .count = &Super::brick_cnt,
        .length = [](const Super &) { return Brick::LENGTH; },
        .offset = [](const Super &sb, std::uint64_t no) { return brick_offset(sb, no); },
        .encode = [](const Super &, const Brick &brick) { return encode(brick); },
        .json = [](const Super &, const Brick &brick,
                   std::int64_t offset) { return json(brick, offset); },
        .used = [used](std::uint32_t no, std::uint32_t) { return used(no); },
        .repairable =
            [used](std::uint32_t no, std::uint32_t) {
                Brick brick = used(no);
                brick.reserved = 0;
                return brick;
            },
        .dump = "dump_brick",
        .formatter = "__dump_brick" + suffix,
        .number_key = "bi_no",
        .assertion_without_log = "brick && fp",
        .fault =
            [](std::uint32_t slot, const Brick &brick, std::uint32_t stored, std::uint32_t crc) {
                return text("no:%u, brick no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", slot,
                            brick.no, brick.magic, stored, crc);
            },
        .ignored =
            [](std::uint32_t slot, const Brick &brick) {
                return text("ignore brick %u, bi_use=%d, bi_brickid=%s", slot, as_int(brick.use),
                            brick.brickid.c_str());
            },
        .no_such_entry = refusal_of_driver("bi_no"),
        .skips =
            [](const Settings &filter, const Brick &brick) {
                return filter.error == 1 || skips_use(filter, brick.use) ||
                       skips_id(filter, brick.brickid);
            },
        .id = [](const Brick &brick) { return brick.brickid; },
        .repair = "repair_brick",
        .repair_code = 10,
        .parser = parser,
        .assertion_without_super = "params && params->sb && brick_cfg && brick",
        .keys =
            {
                {"bi_use", Reading::ALWAYS, &Brick::use},
                {"bi_no", Reading::ALWAYS, &Brick::no},
                {"bi_uuid", Reading::OF_USED, &Brick::uuid},
                {"bi_brickid", Reading::OF_USED, &Brick::brickid},
                {"bi_unlink", Reading::OPTIONAL, &Brick::unlink},
            },
        .unread_keys = {"bi_checksum", "bi_magic", "bi_reserved", "meta_offset"},
        .bounds_errors = [parser](const Super &sb, const Brick &brick) -> Log {
            if (brick.no < sb.brick_cnt)
                return {};
            return {error_line(parser, text("bi_no %u is invalid, max: %lu", brick.no,
                                            std::uint64_t{sb.brick_cnt}))};
        },
        .completed = with_generated_uuid<Brick>,
    };
}

// Without the rules of its bounds.
template <class Super, class Inode>
Table<Super, Inode> inode_table(const std::string &suffix)
{
    return {
        .count = &Super::inode_cnt,
        .length = [](const Super &) { return Inode::LENGTH; },
        .offset = [](const Super &sb,
                     std::uint64_t no) { return inode_offset(sb, static_cast<std::uint32_t>(no)); },
        .encode = [](const Super &, const Inode &inode) { return encode(inode); },
        .json = [](const Super &, const Inode &inode,
                   std::int64_t offset) { return json(inode, offset); },
        .used = {},
        .repairable = {},
        .dump = "dump_inode",
        .formatter = "__dump_inode" + suffix,
        .number_key = "no",
        .assertion_without_log = "inode && fp",
        .fault = {},
        .ignored =
            [](std::uint32_t slot, const Inode &inode) {
                return text("ignore inode %u, i_use:%d, i_uuid:%s, i_brick_no:%d", slot, inode.use,
                            uuid_text(inode.uuid).c_str(), as_int(inode.brick_no));
            },
        .no_such_entry = refusal_of_driver("no"),
        .skips =
            [](const Settings &filter, const Inode &inode) {
                return filter.error == 1 || skips_use(filter, inode.use) ||
                       skips_id(filter, uuid_text(inode.uuid)) ||
                       skips_owner(filter, inode.use, inode.brick_no);
            },
        .id = [](const Inode &inode) { return uuid_text(inode.uuid); },
        .repair = "repair_inode",
        .repair_code = 11,
        .parser = "parse_inode_from_json" + suffix,
        .assertion_without_super = "params && params->sb && inode_cfg && inode",
        .keys =
            {
                {"i_no", Reading::ALWAYS, &Inode::no},
                {"i_use", Reading::ALWAYS, &Inode::use, Conversion::SIGNED_32},
                {"i_atime", Reading::OPTIONAL, &Inode::atime, Conversion::UNSIGNED_64},
                {"i_ctime", Reading::OPTIONAL, &Inode::ctime, Conversion::UNSIGNED_64},
                {"i_mtime", Reading::OPTIONAL, &Inode::mtime, Conversion::UNSIGNED_64},
                {"i_dtime", Reading::OPTIONAL, &Inode::dtime, Conversion::UNSIGNED_64},
                {"i_uuid", Reading::OF_USED, &Inode::uuid},
                {"i_size", Reading::OF_USED, &Inode::size, Conversion::UNSIGNED_64},
                {"i_priority", Reading::OF_USED, &Inode::priority},
                {"i_brick_no", Reading::OF_USED, &Inode::brick_no, Conversion::UNSIGNED_64},
                {"i_unlink", Reading::OPTIONAL, &Inode::unlink, Conversion::SIGNED_32},
            },
        .unread_keys = {"i_checksum", "i_magic", "no", "use", "brick_no", "meta_offset"},
        .bounds_errors = {},
    };
}

// Without its record's length and text, its keys and the rules of its bounds.
template <class Super, class Extent>
Table<Super, Extent> extent_table(const std::string &suffix)
{
    return {
        .count = &Super::block_cnt,
        .length = {},
        .offset = [](const Super &sb, std::uint64_t no) { return extent_offset(sb, no); },
        .encode = {},
        .json = {},
        .used = {},
        .repairable = {},
        .dump = "dump_extent",
        .formatter = "__dump_extent" + suffix,
        .number_key = "te_no",
        .assertion_without_log = "extent && sb && fp",
        .fault =
            [](std::uint32_t, const Extent &extent, std::uint32_t stored, std::uint32_t crc) {
                return text("extent no: %lu, checksum: 0x%x crc32: 0x%x", extent.no, stored, crc);
            },
        .ignored =
            [](std::uint32_t slot, const Extent &extent) {
                return text("ignore extent %u, te_use:%d, te_brick_no:%d", slot, extent.use,
                            as_int(extent.inode_no));
            },
        .no_such_entry = refusal_of_driver("te_no"),
        .skips =
            [](const Settings &filter, const Extent &extent) {
                return filter.error == 1 || skips_use(filter, extent.use) ||
                       skips_owner(filter, extent.use, extent.inode_no);
            },
        .id = [](const Extent &) { return "anything"; },
        .repair = "repair_extent",
        .repair_code = 12,
        .parser = "parse_extent_from_json" + suffix,
        .assertion_without_super = "params && params->sb && ext_cfg && extent",
        .keys = {},
        .unread_keys = {"te_checksum", "te_reserved1", "meta_offset"},
        .bounds_errors = {},
    };
}

} // namespace tier_test
