#include "super_check.h"

namespace tier_test {

std::string size_message(const SuperHead &sb)
{
    return text("sb size is invalid. expect:1048576, real:%u", sb.size);
}

std::string brick_message(const SuperHead &sb)
{
    return text("brick params is invalid. brick_cnt:%u, brick_table_size:%lu, expect "
                "brick_cnt:[1-300]",
                sb.brick_cnt, sb.brick_table_size);
}

std::string inode_message(const SuperHead &sb)
{
    return text("inode params is invalid. inode_cnt:%u, itable_size:%lu, expect "
                "inode_cnt:[1-100000]",
                sb.inode_cnt, sb.inode_table_size);
}

std::string block_message(const SuperHead &sb)
{
    return text("block size(%u) is invalid. expect block_size:[262144-4194304] and must 4k aligned",
                sb.block_size);
}

std::string extent_table_message(const SuperHead &sb)
{
    return text("extent table size(%lu) is invalid. block_cnt:%u", sb.extent_table_size,
                sb.block_cnt);
}

std::string data_offset_message(const SuperHead &sb)
{
    SuperHead right = sb;
    set_geometry(right);
    return text("data offset(%lu) is invalid. expect:%lu", sb.data_offset, right.data_offset);
}

std::string ssd_uuid_message(const SuperHead &sb)
{
    return message_of_ssd_uuid(sb.ssd_uuid);
}

std::string message_of_ssd_uuid(const std::string &given)
{
    const std::string stored = given.substr(0, 47);
    return text("ssd uuid(%s) length(%zu) is invalid. expect:38", stored.c_str(), stored.size());
}

void spoil(SuperHead &sb)
{
    sb.size = 1;
    sb.brick_table_size = sb.inode_table_size = sb.extent_table_size = sb.data_offset = 1;
    sb.block_size = 1;
    sb.ssd_uuid = "short";
}

const Step<SuperHead> SIZE_STEP{size_message, [](SuperHead &sb) { sb.size = 1048576; }};
const Step<SuperHead> BRICK_STEP{brick_message, [](SuperHead &sb) {
                                     sb.brick_cnt = 1;
                                     sb.brick_table_size = 4096;
                                 }};
const Step<SuperHead> INODE_STEP{inode_message, [](SuperHead &sb) {
                                     sb.inode_cnt = 1;
                                     sb.inode_table_size = 1040384;
                                 }};
const Step<SuperHead> BLOCK_STEP{block_message, [](SuperHead &sb) { sb.block_size = 1048576; }};
const Step<SuperHead> EXTENT_TABLE_STEP{extent_table_message,
                                        [](SuperHead &sb) { sb.extent_table_size = 0; }};
const Step<SuperHead> DATA_OFFSET_STEP{data_offset_message,
                                       [](SuperHead &sb) { sb.data_offset = 0x400000; }};
const Step<SuperHead> SSD_UUID_STEP{ssd_uuid_message,
                                    [](SuperHead &sb) { sb.ssd_uuid.resize(38, 'x'); }};

const std::vector<Passing<SuperHead>> PASSING_HEADS{
    {"as built", [](SuperHead &) {}},
    {"one brick", counts<SuperHead>([](SuperHead &sb) { sb.brick_cnt = 1; })},
    {"300 bricks", counts<SuperHead>([](SuperHead &sb) { sb.brick_cnt = 300; })},
    {"one inode", counts<SuperHead>([](SuperHead &sb) { sb.inode_cnt = 1; })},
    {"100000 inodes", counts<SuperHead>([](SuperHead &sb) { sb.inode_cnt = 100000; })},
    {"inodes that fill their last MiB",
     counts<SuperHead>([](SuperHead &sb) { sb.inode_cnt = 253; })},
    {"inodes that just need one more MiB",
     counts<SuperHead>([](SuperHead &sb) { sb.inode_cnt = 254; })},
    {"smallest block", [](SuperHead &sb) { sb.block_size = 262144; }},
    {"block of 65 pages", [](SuperHead &sb) { sb.block_size = 266240; }},
    {"largest block", [](SuperHead &sb) { sb.block_size = 4194304; }},
    {"no blocks", counts<SuperHead>([](SuperHead &sb) { sb.block_cnt = 0; })},
    {"extents that end on a MiB", counts<SuperHead>([](SuperHead &sb) { sb.block_cnt = 256; })},
    {"extents that end behind a MiB", counts<SuperHead>([](SuperHead &sb) { sb.block_cnt = 257; })},
    {"most blocks", counts<SuperHead>([](SuperHead &sb) { sb.block_cnt = 0xFFFFFFFF; })},
    {"any 38 characters", [](SuperHead &sb) { sb.ssd_uuid = std::string(38, '-'); }},
};

const std::vector<Failing<SuperHead>> FAILING_HEADS{
    {"size below 1 MiB", counts<SuperHead>([](SuperHead &sb) { sb.size = 1048575; }), size_message},
    {"size above 1 MiB", counts<SuperHead>([](SuperHead &sb) { sb.size = 1048577; }), size_message},
    {"no size", counts<SuperHead>([](SuperHead &sb) { sb.size = 0; }), size_message},
    {"no bricks", counts<SuperHead>([](SuperHead &sb) { sb.brick_cnt = 0; }), brick_message},
    {"301 bricks", counts<SuperHead>([](SuperHead &sb) { sb.brick_cnt = 301; }), brick_message},
    {"most bricks", counts<SuperHead>([](SuperHead &sb) { sb.brick_cnt = 0xFFFFFFFF; }),
     brick_message},
    {"brick table a byte short", [](SuperHead &sb) { sb.brick_table_size -= 1; }, brick_message},
    {"brick table a page long", [](SuperHead &sb) { sb.brick_table_size += 4096; }, brick_message},
    {"brick table right in its low half",
     [](SuperHead &sb) { sb.brick_table_size += std::uint64_t{1} << 32; }, brick_message},
    {"no inodes", counts<SuperHead>([](SuperHead &sb) { sb.inode_cnt = 0; }), inode_message},
    {"100001 inodes", counts<SuperHead>([](SuperHead &sb) { sb.inode_cnt = 100001; }),
     inode_message},
    {"inode table without padding", [](SuperHead &sb) { sb.inode_table_size = 3 * 4096; },
     inode_message},
    {"inode table a byte long", [](SuperHead &sb) { sb.inode_table_size += 1; }, inode_message},
    {"inode table a MiB long", [](SuperHead &sb) { sb.inode_table_size += MIB; }, inode_message},
    {"block below the smallest", [](SuperHead &sb) { sb.block_size = 262143; }, block_message},
    {"page below the smallest block", [](SuperHead &sb) { sb.block_size = 258048; }, block_message},
    {"block off the page", [](SuperHead &sb) { sb.block_size = 262145; }, block_message},
    {"block of sectors", [](SuperHead &sb) { sb.block_size = 262656; }, block_message},
    {"block of half pages", [](SuperHead &sb) { sb.block_size = 264192; }, block_message},
    {"block above the largest", [](SuperHead &sb) { sb.block_size = 4194305; }, block_message},
    {"page above the largest block", [](SuperHead &sb) { sb.block_size = 4198400; }, block_message},
    {"no block size", [](SuperHead &sb) { sb.block_size = 0; }, block_message},
    {"extent table a byte short", [](SuperHead &sb) { sb.extent_table_size -= 1; },
     extent_table_message},
    {"extent table of records", [](SuperHead &sb) { sb.extent_table_size = 4 * sb.extent_size; },
     extent_table_message},
    {"one block more", [](SuperHead &sb) { sb.block_cnt += 1; }, extent_table_message},
    {"data a byte early", [](SuperHead &sb) { sb.data_offset -= 1; }, data_offset_message},
    {"data a MiB late", [](SuperHead &sb) { sb.data_offset += MIB; }, data_offset_message},
    {"data nowhere", [](SuperHead &sb) { sb.data_offset = 0; }, data_offset_message},
    {"37 characters", [](SuperHead &sb) { sb.ssd_uuid.pop_back(); }, ssd_uuid_message},
    {"39 characters", [](SuperHead &sb) { sb.ssd_uuid += 'x'; }, ssd_uuid_message},
    {"no characters", [](SuperHead &sb) { sb.ssd_uuid = ""; }, ssd_uuid_message},
    {"47 characters", [](SuperHead &sb) { sb.ssd_uuid.resize(47, 'y'); }, ssd_uuid_message},
    {"80 characters", [](SuperHead &sb) { sb.ssd_uuid.resize(80, 'z'); }, ssd_uuid_message},
};

} // namespace tier_test
