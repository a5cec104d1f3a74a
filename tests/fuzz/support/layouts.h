#pragma once

#include "bytes.h"
#include "zu_tier/front/zu_tier.h"

namespace tier_fuzz {

enum class Table { super, brick, inode, exp_inode, extent, shard, hot };

// A table of a layout.
struct Place {
    int layout; // 1, 2 or 3
    Table table;
};

// All there are.
constexpr Place PLACES[] = {
    {1, Table::super},  {1, Table::brick}, {1, Table::inode},  {1, Table::extent},
    {2, Table::super},  {2, Table::brick}, {2, Table::inode},  {2, Table::exp_inode},
    {2, Table::extent}, {3, Table::super}, {3, Table::brick},  {3, Table::inode},
    {3, Table::shard},  {3, Table::hot},   {3, Table::extent},
};

zutr_cmd_t dump_command(Table table);
zutr_cmd_t repair_command(Table table);

constexpr std::size_t super_size(int layout)
{
    constexpr std::size_t SIZES[] = {0, 144, 168, 264};
    return SIZES[layout];
}

// Bricks, inodes, data blocks, in V3 blocks of a packed table, of the sample.
constexpr std::uint32_t SAMPLE_ENTRIES = 8;

// The super block of a sound device with an expansion area, as far as the layout has one.
Bytes sample_super(int layout);

// Byte offset of an entry's block, where a table that lies wrong has it.
std::int64_t entry_offset(Place place, View super, std::uint32_t no);

// Entries, in V3 blocks, of the table.
std::uint64_t entry_count(Place place, View super);

// Bytes of an entry's record, those that its checksum is about.
std::size_t record_size(Place place, View super);

// Gives a block the magic, number and checksum that make it sound, as far as it has them.
void seal_super(int layout, std::span<std::uint8_t> block);
void seal(Place place, View super, std::uint32_t no, std::span<std::uint8_t> block);
// Whether it has them.
bool is_sound(Place place, View super, std::uint32_t no, View block);

// CRC-32, bit by bit: nothing of the tool's.
std::uint32_t crc32(View bytes);

} // namespace tier_fuzz
