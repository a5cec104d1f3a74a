#include "super_check.h"

namespace tier_test {

void spoil(SuperHead &sb)
{
    sb.size = 1;
    sb.brick_table_size = sb.inode_table_size = sb.extent_table_size = sb.data_offset = 1;
    sb.block_size = 1;
    sb.ssd_uuid = "short";
}

const std::vector<Change<SuperHead>> PASSING_HEADS{
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

const std::vector<Change<SuperHead>> FAILING_HEADS{
    {"size below 1 MiB", counts<SuperHead>([](SuperHead &sb) { sb.size = 1048575; })},
    {"size above 1 MiB", counts<SuperHead>([](SuperHead &sb) { sb.size = 1048577; })},
    {"no size", counts<SuperHead>([](SuperHead &sb) { sb.size = 0; })},
    {"no bricks", counts<SuperHead>([](SuperHead &sb) { sb.brick_cnt = 0; })},
    {"301 bricks", counts<SuperHead>([](SuperHead &sb) { sb.brick_cnt = 301; })},
    {"most bricks", counts<SuperHead>([](SuperHead &sb) { sb.brick_cnt = 0xFFFFFFFF; })},
    {"brick table a byte short", [](SuperHead &sb) { sb.brick_table_size -= 1; }},
    {"brick table a page long", [](SuperHead &sb) { sb.brick_table_size += 4096; }},
    {"brick table right in its low half",
     [](SuperHead &sb) { sb.brick_table_size += std::uint64_t{1} << 32; }},
    {"no inodes", counts<SuperHead>([](SuperHead &sb) { sb.inode_cnt = 0; })},
    {"100001 inodes", counts<SuperHead>([](SuperHead &sb) { sb.inode_cnt = 100001; })},
    {"inode table without padding", [](SuperHead &sb) { sb.inode_table_size = 3 * 4096; }},
    {"inode table a byte long", [](SuperHead &sb) { sb.inode_table_size += 1; }},
    {"inode table a MiB long", [](SuperHead &sb) { sb.inode_table_size += MIB; }},
    {"block below the smallest", [](SuperHead &sb) { sb.block_size = 262143; }},
    {"page below the smallest block", [](SuperHead &sb) { sb.block_size = 258048; }},
    {"block off the page", [](SuperHead &sb) { sb.block_size = 262145; }},
    {"block of sectors", [](SuperHead &sb) { sb.block_size = 262656; }},
    {"block of half pages", [](SuperHead &sb) { sb.block_size = 264192; }},
    {"block above the largest", [](SuperHead &sb) { sb.block_size = 4194305; }},
    {"page above the largest block", [](SuperHead &sb) { sb.block_size = 4198400; }},
    {"no block size", [](SuperHead &sb) { sb.block_size = 0; }},
    {"extent table a byte short", [](SuperHead &sb) { sb.extent_table_size -= 1; }},
    {"extent table of records", [](SuperHead &sb) { sb.extent_table_size = 4 * sb.extent_size; }},
    {"one block more", [](SuperHead &sb) { sb.block_cnt += 1; }},
    {"data a byte early", [](SuperHead &sb) { sb.data_offset -= 1; }},
    {"data a MiB late", [](SuperHead &sb) { sb.data_offset += MIB; }},
    {"data nowhere", [](SuperHead &sb) { sb.data_offset = 0; }},
    {"37 characters", [](SuperHead &sb) { sb.ssd_uuid.pop_back(); }},
    {"39 characters", [](SuperHead &sb) { sb.ssd_uuid += 'x'; }},
    {"no characters", [](SuperHead &sb) { sb.ssd_uuid = ""; }},
    {"47 characters", [](SuperHead &sb) { sb.ssd_uuid.resize(47, 'y'); }},
    {"80 characters", [](SuperHead &sb) { sb.ssd_uuid.resize(80, 'z'); }},
};

} // namespace tier_test
