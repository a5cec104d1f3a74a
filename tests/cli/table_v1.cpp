#include "table_v1.h"

namespace tier_test {

namespace {

bool skips_use(const Settings &filter, std::uint32_t use)
{
    return filter.use >= 0 && static_cast<std::uint32_t>(filter.use) != use;
}

bool skips_id(const Settings &filter, const std::string &id)
{
    return !filter.id.empty() && filter.id != id;
}

// A filter by owner never shows a free entry.
bool skips_owner(const Settings &filter, std::uint32_t use, std::uint32_t owner)
{
    return filter.owner >= 0 && (use == 0 || static_cast<std::uint32_t>(filter.owner) != owner);
}

int as_int(std::uint32_t value)
{
    return static_cast<int>(value);
}

Uuid parse_uuid(const std::string &text)
{
    Uuid uuid{};
    std::size_t at = 0;
    for (std::uint8_t &byte : uuid) {
        at += text.at(at) == '-' ? 1 : 0;
        byte = static_cast<std::uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16));
        at += 2;
    }
    return uuid;
}

BrickV1 with_generated_uuid(BrickV1 brick, const std::string &out)
{
    static const std::string KEY = "\"bi_uuid\":\"";
    if (const std::size_t at = out.find(KEY); brick.use == 0 && at != std::string::npos)
        brick.uuid = parse_uuid(out.substr(at + KEY.size(), 36));
    return brick;
}

BrickV1 repairable_brick(std::uint32_t no)
{
    BrickV1 brick = brick_used(no);
    brick.reserved = 0;
    return brick;
}

InodeV1 repairable_inode(std::uint32_t no, std::uint32_t owner)
{
    InodeV1 inode = inode_used(no, owner);
    inode.reserved1 = 0;
    inode.reserved2 = 0;
    return inode;
}

std::optional<std::string> brick_bounds_error(const SuperV1 &sb, const BrickV1 &brick)
{
    if (brick.no < sb.brick_cnt)
        return {};
    return text("bi_no %u is invalid, max: %u", brick.no, sb.brick_cnt);
}

std::optional<std::string> inode_bounds_error(const SuperV1 &sb, const InodeV1 &inode)
{
    if (inode.no < sb.inode_cnt && inode.brick_no < sb.brick_cnt)
        return {};
    return text("i_no %u or brick_no %u is invalid, max i_cnt:%u, max b_cnt:%u", inode.no,
                inode.brick_no, sb.inode_cnt, sb.brick_cnt);
}

std::optional<std::string> extent_bounds_error(const SuperV1 &sb, const ExtentV1 &extent)
{
    if (extent.no < sb.block_cnt && extent.inode_no < sb.inode_cnt)
        return {};
    return text("te_no %lu or i_no %u is invalid, block_cnt:%u, inode_cnt:%u", extent.no,
                extent.inode_no, sb.block_cnt, sb.inode_cnt);
}

} // namespace

template <>
const TableV1<BrickV1> &table_v1()
{
    static const TableV1<BrickV1> TABLE{
        .count = &SuperV1::brick_cnt,
        .length = [](const SuperV1 &) { return BrickV1::LENGTH; },
        .offset = brick_offset,
        .encode = [](const SuperV1 &, const BrickV1 &brick) { return encode(brick); },
        .json = [](const SuperV1 &, const BrickV1 &brick,
                   std::int64_t offset) { return json(brick, offset); },
        .used = [](std::uint32_t no, std::uint32_t) { return brick_used(no); },
        .repairable = [](std::uint32_t no, std::uint32_t) { return repairable_brick(no); },
        .dump = "dump_brick",
        .formatter = "__dump_brick_v1",
        .number_key = "bi_no",
        .assertion_without_log = "brick && fp",
        .fault =
            [](std::uint32_t slot, const BrickV1 &brick, std::uint32_t stored, std::uint32_t crc) {
                return text("no:%u, brick no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", slot,
                            brick.no, brick.magic, stored, crc);
            },
        .ignored =
            [](std::uint32_t slot, const BrickV1 &brick) {
                return text("ignore brick %u, bi_use=%d, bi_brickid=%s", slot, as_int(brick.use),
                            brick.brickid.c_str());
            },
        .skips =
            [](const Settings &filter, const BrickV1 &brick) {
                return filter.error == 1 || skips_use(filter, brick.use) ||
                       skips_id(filter, brick.brickid);
            },
        .id = [](const BrickV1 &brick) { return brick.brickid; },
        .repair = "repair_brick",
        .repair_code = 10,
        .parser = "parse_brick_from_json_v1",
        .assertion_without_super = "params && params->sb && brick_cfg && brick",
        .keys =
            {
                {"bi_use", Reading::ALWAYS, &BrickV1::use},
                {"bi_no", Reading::ALWAYS, &BrickV1::no},
                {"bi_uuid", Reading::OF_USED, &BrickV1::uuid},
                {"bi_brickid", Reading::OF_USED, &BrickV1::brickid},
                {"bi_unlink", Reading::OPTIONAL, &BrickV1::unlink},
            },
        .unread_keys = {"bi_checksum", "bi_magic", "bi_reserved", "meta_offset"},
        .bounds_error = brick_bounds_error,
        .completed = with_generated_uuid,
    };
    return TABLE;
}

template <>
const TableV1<InodeV1> &table_v1()
{
    static const TableV1<InodeV1> TABLE{
        .count = &SuperV1::inode_cnt,
        .length = [](const SuperV1 &) { return InodeV1::LENGTH; },
        .offset = inode_offset,
        .encode = [](const SuperV1 &, const InodeV1 &inode) { return encode(inode); },
        .json = [](const SuperV1 &, const InodeV1 &inode,
                   std::int64_t offset) { return json(inode, offset); },
        .used = inode_used,
        .repairable = repairable_inode,
        .dump = "dump_inode",
        .formatter = "__dump_inode_v1",
        .number_key = "no",
        .assertion_without_log = "inode && fp",
        .fault =
            [](std::uint32_t, const InodeV1 &inode, std::uint32_t stored, std::uint32_t crc) {
                return text("inode no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", inode.no,
                            inode.magic, stored, crc);
            },
        .ignored =
            [](std::uint32_t slot, const InodeV1 &inode) {
                return text("ignore inode %u, i_use:%d, i_uuid:%s, i_brick_no:%d", slot, inode.use,
                            uuid_text(inode.uuid).c_str(), as_int(inode.brick_no));
            },
        .skips =
            [](const Settings &filter, const InodeV1 &inode) {
                return filter.error == 1 || skips_use(filter, inode.use) ||
                       skips_id(filter, uuid_text(inode.uuid)) ||
                       skips_owner(filter, inode.use, inode.brick_no);
            },
        .id = [](const InodeV1 &inode) { return uuid_text(inode.uuid); },
        .repair = "repair_inode",
        .repair_code = 11,
        .parser = "parse_inode_from_json_v1",
        .assertion_without_super = "params && params->sb && inode_cfg && inode",
        .keys =
            {
                {"i_no", Reading::ALWAYS, &InodeV1::no},
                {"i_use", Reading::ALWAYS, &InodeV1::use, Conversion::SIGNED_32},
                {"i_atime", Reading::OPTIONAL, &InodeV1::atime, Conversion::UNSIGNED_64},
                {"i_ctime", Reading::OPTIONAL, &InodeV1::ctime, Conversion::UNSIGNED_64},
                {"i_mtime", Reading::OPTIONAL, &InodeV1::mtime, Conversion::UNSIGNED_64},
                {"i_dtime", Reading::OPTIONAL, &InodeV1::dtime, Conversion::UNSIGNED_64},
                {"i_uuid", Reading::OF_USED, &InodeV1::uuid},
                {"i_size", Reading::OF_USED, &InodeV1::size, Conversion::UNSIGNED_64},
                {"i_priority", Reading::OF_USED, &InodeV1::priority},
                {"i_brick_no", Reading::OF_USED, &InodeV1::brick_no, Conversion::UNSIGNED_64},
                {"i_unlink", Reading::OPTIONAL, &InodeV1::unlink, Conversion::SIGNED_32},
            },
        .unread_keys = {"i_checksum", "i_magic", "i_reserved1", "i_reserved2", "no", "use",
                        "brick_no", "meta_offset"},
        .bounds_error = inode_bounds_error,
        .completed = [](const InodeV1 &inode, const std::string &) { return inode; },
    };
    return TABLE;
}

template <>
const TableV1<ExtentV1> &table_v1()
{
    static const TableV1<ExtentV1> TABLE{
        .count = &SuperV1::block_cnt,
        .length = [](const SuperV1 &sb) { return sb.extent_size; },
        .offset = extent_offset,
        .encode = [](const SuperV1 &sb,
                     const ExtentV1 &extent) { return encode(extent, sb.extent_size); },
        .json = [](const SuperV1 &sb, const ExtentV1 &extent,
                   std::int64_t offset) { return json(extent, sb.extent_size, offset); },
        .used = extent_used,
        .repairable = extent_used,
        .dump = "dump_extent",
        .formatter = "__dump_extent_v1",
        .number_key = "te_no",
        .assertion_without_log = "extent && sb && fp",
        .fault =
            [](std::uint32_t, const ExtentV1 &extent, std::uint32_t stored, std::uint32_t crc) {
                return text("extent no: %lu, checksum: 0x%x crc32: 0x%x", extent.no, stored, crc);
            },
        .ignored =
            [](std::uint32_t slot, const ExtentV1 &extent) {
                return text("ignore extent %u, te_use:%d, te_brick_no:%d", slot, extent.use,
                            as_int(extent.inode_no));
            },
        .skips =
            [](const Settings &filter, const ExtentV1 &extent) {
                return filter.error == 1 || skips_use(filter, extent.use) ||
                       skips_owner(filter, extent.use, extent.inode_no);
            },
        .id = [](const ExtentV1 &) { return "anything"; },
        .repair = "repair_extent",
        .repair_code = 12,
        .parser = "parse_extent_from_json_v1",
        .assertion_without_super = "params && params->sb && ext_cfg && extent",
        .keys =
            {
                {"te_use", Reading::ALWAYS, &ExtentV1::use, Conversion::SIGNED_32},
                {"te_no", Reading::ALWAYS, &ExtentV1::no, Conversion::UNSIGNED_64},
                {"te_block", Reading::OF_USED, &ExtentV1::block},
                {"te_size", Reading::OF_USED, &ExtentV1::size, Conversion::UNSIGNED_64},
                {"te_inode_no", Reading::OF_USED, &ExtentV1::inode_no},
                {"te_sampling_low", Reading::OF_USED, &ExtentV1::sampling_low},
                {"te_sampling_mid", Reading::OPTIONAL, &ExtentV1::sampling_mid},
                {"te_sampling_high", Reading::OPTIONAL, &ExtentV1::sampling_high},
                {"te_clean", Reading::OF_USED, &ExtentV1::clean, Conversion::SIGNED_32},
                {"te_ntime", Reading::OPTIONAL, &ExtentV1::ntime},
                {"te_hot", Reading::OPTIONAL, &ExtentV1::hot, Conversion::UNSIGNED_64},
                {"te_bitmap", Reading::OF_USED, &ExtentV1::bitmap},
            },
        .unread_keys = {"te_checksum", "te_reserved1", "meta_offset"},
        .bounds_error = extent_bounds_error,
        .completed = [](const ExtentV1 &extent, const std::string &) { return extent; },
    };
    return TABLE;
}

} // namespace tier_test
