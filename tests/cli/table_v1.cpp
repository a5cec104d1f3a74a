#include "table_family.h"

namespace tier_test {

namespace {

InodeV1 repairable_inode_v1(std::uint32_t no, std::uint32_t owner)
{
    InodeV1 inode = inode_used(no, owner);
    inode.reserved1 = 0;
    inode.reserved2 = 0;
    return inode;
}

Log inode_bounds_errors_v1(const SuperV1 &sb, const InodeV1 &inode)
{
    if (inode.no < sb.inode_cnt && inode.brick_no < sb.brick_cnt)
        return {};
    return {error_line("parse_inode_from_json_v1",
                       text("i_no %u or brick_no %u is invalid, max i_cnt:%u, max b_cnt:%u",
                            inode.no, inode.brick_no, sb.inode_cnt, sb.brick_cnt))};
}

InodeTableV1 inode_table_v1()
{
    InodeTableV1 table = inode_table<SuperV1, InodeV1>("_v1");
    table.used = inode_used;
    table.repairable = repairable_inode_v1;
    table.fault = inode_fault;
    table.unread_keys.insert(table.unread_keys.end(), {"i_reserved1", "i_reserved2"});
    table.bounds_errors = inode_bounds_errors_v1;
    return table;
}

Log extent_bounds_errors_v1(const SuperV1 &sb, const ExtentV1 &extent)
{
    if (extent.no < sb.block_cnt && extent.inode_no < sb.inode_cnt)
        return {};
    return {error_line("parse_extent_from_json_v1",
                       text("te_no %lu or i_no %u is invalid, block_cnt:%u, inode_cnt:%u",
                            extent.no, extent.inode_no, sb.block_cnt, sb.inode_cnt))};
}

ExtentTableV1 extent_table_v1()
{
    ExtentTableV1 table = extent_table<SuperV1, ExtentV1>("_v1");
    table.length = [](const SuperV1 &sb) { return sb.extent_size; };
    table.encode = [](const SuperV1 &sb, const ExtentV1 &extent) {
        return encode(extent, sb.extent_size);
    };
    table.json = [](const SuperV1 &sb, const ExtentV1 &extent, std::int64_t offset) {
        return json(extent, sb.extent_size, offset);
    };
    table.used = extent_used;
    table.repairable = extent_used;
    table.keys = {
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
    };
    table.bounds_errors = extent_bounds_errors_v1;
    return table;
}

} // namespace

template <>
const BrickTableV1 &table()
{
    static const BrickTableV1 TABLE = brick_table<SuperV1, BrickV1>("_v1", brick_used);
    return TABLE;
}

template <>
const InodeTableV1 &table()
{
    static const InodeTableV1 TABLE = inode_table_v1();
    return TABLE;
}

template <>
const ExtentTableV1 &table()
{
    static const ExtentTableV1 TABLE = extent_table_v1();
    return TABLE;
}

} // namespace tier_test
