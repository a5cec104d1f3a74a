#include "table_v3.h"

#include "table_family.h"

namespace tier_test {

namespace {

BrickTableV3 brick_table_v3()
{
    BrickTableV3 table = brick_table<SuperV3, BrickV3>("_v3", brick_v3_used);
    table.keys.back().reading = Reading::OF_USED; // bi_unlink
    return table;
}

InodeV3 repairable_inode_v3(std::uint32_t no, std::uint32_t owner)
{
    InodeV3 inode = inode_v3_used(no, owner);
    inode.reserved1 = 0;
    inode.reserved2 = 0;
    return inode;
}

// The number is signed, and compared with the count as one of 64 bits.
Log inode_bounds_errors_v3(const SuperV3 &sb, const InodeV3 &inode)
{
    const auto no = static_cast<std::uint64_t>(static_cast<std::int32_t>(inode.no));
    if (no < sb.inode_cnt && inode.brick_no < sb.brick_cnt)
        return {};
    return {error_line("parse_inode_from_json_v3",
                       text("i_no %u or brick_no %u is invalid, max i_cnt:%lu, max b_cnt:%lu",
                            inode.no, inode.brick_no, sb.inode_cnt, sb.brick_cnt))};
}

InodeTableV3 inode_table_v3()
{
    InodeTableV3 table = inode_table<SuperV3, InodeV3>("_v3");
    table.used = inode_v3_used;
    table.repairable = repairable_inode_v3;
    table.fault = inode_fault;
    for (Key<InodeV3> &key : table.keys)
        key.conversion = Conversion::UNSIGNED_64;
    table.keys.front().conversion = Conversion::SIGNED_64; // i_no
    table.keys.front().is_signed = true;
    table.keys.push_back({.name = "new_data",
                          .reading = Reading::OPTIONAL,
                          .field = &InodeV3::new_data,
                          .conversion = Conversion::UNSIGNED_64});
    table.keys.push_back({.name = "i_blocks",
                          .reading = Reading::OPTIONAL,
                          .field = &InodeV3::blocks,
                          .conversion = Conversion::UNSIGNED_64,
                          .fallback = [](const InodeV3 &inode) { return inode.size / 131072; }});
    table.unread_keys.insert(table.unread_keys.end(), {"i_new_data", "blocks", "i_reserved1"});
    table.bounds_errors = inode_bounds_errors_v3;
    table.largest_no = 0x7FFFFFFE;
    return table;
}

} // namespace

template <>
const BrickTableV3 &table()
{
    static const BrickTableV3 TABLE = brick_table_v3();
    return TABLE;
}

template <>
const InodeTableV3 &table()
{
    static const InodeTableV3 TABLE = inode_table_v3();
    return TABLE;
}

} // namespace tier_test
