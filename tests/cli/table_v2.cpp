#include "table_v2.h"

#include "table_family.h"

namespace tier_test {

namespace {

constexpr std::uint32_t INODE_MAX = 500'000;

bool is_valid(const SuperV2 &sb, std::uint32_t no)
{
    if (no >= INODE_MAX)
        return false;
    if (no < sb.inode_cnt)
        return true;
    return sb.exp_magic == 0x4558 && sb.exp_inuse == 0x53 &&
           no < sb.inode_cnt + expansion_count(sb);
}

InodeV2 repairable_inode_v2(std::uint32_t no, std::uint32_t owner)
{
    InodeV2 inode = inode_v2_used(no, owner);
    inode.reserved1 = 0;
    inode.reserved2 = 0;
    return inode;
}

Log inode_bounds_errors_v2(const SuperV2 &sb, const InodeV2 &inode)
{
    // The number is looked at only when the brick's number is right.
    Log log = inode.brick_no < sb.brick_cnt ? inode_number_errors(sb, inode.no) : Log{};
    if (!log.empty() || inode.brick_no >= sb.brick_cnt)
        log.push_back(inode_refused(sb, inode));
    return log;
}

InodeTableV2 inode_table_v2()
{
    InodeTableV2 table = inode_table<SuperV2, InodeV2>("_v2");
    table.used = inode_v2_used;
    table.repairable = repairable_inode_v2;
    table.fault = [](std::uint32_t slot, const InodeV2 &inode, std::uint32_t stored,
                     std::uint32_t crc) {
        return text("inode no: %u no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", inode.no, slot,
                    inode.magic, stored, crc);
    };
    table.no_such_entry = [](std::uint32_t no, std::uint32_t) {
        return error_line("zutr_dump_inode_v2", text("exp inode not format, invalid inode %u", no));
    };
    table.before_walk = std::string("{ \"inode\":");
    table.behind_walk = std::string("}");
    table.keys.push_back(
        {"new_data", Reading::OPTIONAL, &InodeV2::new_data, Conversion::UNSIGNED_64});
    table.keys.push_back(
        {"i_blocks", Reading::OPTIONAL, &InodeV2::blocks, Conversion::UNSIGNED_64});
    table.unread_keys.insert(table.unread_keys.end(), {"i_new_data", "blocks", "i_reserved1"});
    table.bounds_errors = inode_bounds_errors_v2;
    table.largest_no = INODE_MAX - 1;
    return table;
}

Log extent_bounds_errors_v2(const SuperV2 &sb, const ExtentV2 &extent)
{
    // The inode is looked at only when the extent's number is right.
    Log log = extent.no < sb.block_cnt ? inode_number_errors(sb, extent.inode_no) : Log{};
    if (!log.empty() || extent.no >= sb.block_cnt)
        log.push_back(error_line("parse_extent_from_json_v2",
                                 text("te_no %lu or i_no %u is invalid, block_cnt:%u, inode_cnt:%u",
                                      extent.no, extent.inode_no, sb.block_cnt, sb.inode_cnt)));
    return log;
}

ExtentTableV2 extent_table_v2()
{
    ExtentTableV2 table = extent_table<SuperV2, ExtentV2>("_v2");
    table.assertion_without_log = std::string("extent && fp && sb");
    table.length = [](const SuperV2 &sb) { return sb.total_extent_size; };
    table.encode = [](const SuperV2 &sb, const ExtentV2 &extent) { return encode(extent, sb); };
    table.json = [](const SuperV2 &sb, const ExtentV2 &extent, std::int64_t offset) {
        return json(extent, sb, offset);
    };
    table.used = extent_v2_used;
    table.repairable = [](std::uint32_t no, std::uint32_t owner) {
        return repairable(extent_v2_used(no, owner));
    };
    table.keys = {
        {"te_use", Reading::ALWAYS, &ExtentV2::use, Conversion::SIGNED_32},
        {"te_no", Reading::ALWAYS, &ExtentV2::no, Conversion::UNSIGNED_64},
        {"te_inode_no", Reading::OF_USED, &ExtentV2::inode_no},
        {"te_sampling_low", Reading::OF_USED, &ExtentV2::sampling_low},
        {"te_sampling_mid", Reading::OPTIONAL, &ExtentV2::sampling_mid},
        {"te_sampling_high", Reading::OPTIONAL, &ExtentV2::sampling_high},
        {"te_mapped_meta", Reading::OF_USED, &ExtentV2::maps},
    };
    table.unread_keys.insert(table.unread_keys.end(), {"te_block", "te_size", "te_clean",
                                                       "te_ntime", "te_hot", "te_bitmap"});
    table.bounds_errors = extent_bounds_errors_v2;
    return table;
}

} // namespace

ExtentV2 repairable(ExtentV2 extent)
{
    extent.block = 0;
    extent.size = 0;
    extent.clean = 0;
    extent.ntime = 0;
    extent.hot = 0;
    extent.bitmap.clear();
    extent.hot_area.clear();
    return extent;
}

Log inode_number_errors(const SuperV2 &sb, std::uint32_t no)
{
    if (is_valid(sb, no))
        return {};
    return {error_line("inode_is_valid",
                       text("invalid inode no %d max inode_cnt:%u inode_max: %u inode_sum:%u "
                            "exp_magic: 0x%x exp_inuse: 0x%x",
                            static_cast<int>(no), sb.inode_cnt, INODE_MAX,
                            sb.inode_cnt + expansion_count(sb), sb.exp_magic, sb.exp_inuse))};
}

LogLine inode_refused(const SuperV2 &sb, const InodeV2 &inode, int meta_no)
{
    return error_line(
        "parse_inode_from_json_v2",
        text("repiar_file i_no %u input ino: %d or brick_no %u is invalid, exp_magic :0x%x exp "
             "exp_inuse: 0x%xmax i_cnt:%u, max b_cnt:%u",
             inode.no, meta_no, inode.brick_no, sb.exp_magic, sb.exp_inuse, sb.inode_cnt,
             sb.brick_cnt));
}

template <>
const BrickTableV2 &table()
{
    static const BrickTableV2 TABLE = brick_table<SuperV2, BrickV2>("_v2", brick_used);
    return TABLE;
}

template <>
const InodeTableV2 &table()
{
    static const InodeTableV2 TABLE = inode_table_v2();
    return TABLE;
}

template <>
const ExtentTableV2 &table()
{
    static const ExtentTableV2 TABLE = extent_table_v2();
    return TABLE;
}

} // namespace tier_test
