#pragma once

#include "zu_tier/format/areas.h"
#include "zu_tierctl/rescue/reading.h"
#include "zu_tierctl/rescue/survey.h"

#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace tierctl {

/* The tables of layouts that arrange them as V1 does: bricks from a fixed place on, inodes up to a
 * multiple of 1 MiB, then an extent for each data block. */

/* The two largest of many numbers: one entry alone is no evidence. */
struct LargestTwo {
    uint64_t first = 0;
    uint64_t second = 0;

    void add(uint64_t value);
};

/* The extents of one length that all begin at the same offset, if their numbers are right. */
struct ExtentTrace : Trace {
    uint64_t in_use = 0;
    LargestTwo size;                     /* bytes held */
    LargestTwo pages;                    /* the bitmap ends before this page */
    LargestTwo inode;                    /* number of the owner */
    std::map<uint64_t, uint64_t> sizes;  /* how many hold so many bytes */
    std::map<uint32_t, uint32_t> blocks; /* the last block of each owner */
    std::vector<Block> samples;          /* some of those in use */
};

/* By offset of entry 0 and length of the record. */
using ExtentTraces = std::map<std::pair<int64_t, uint32_t>, ExtentTrace>;

struct AreaFacts {
    uint64_t device_size = 0;
    BlockStates states;
    Trace bricks;
    Traces inodes;
    std::map<int64_t, std::map<uint32_t, uint64_t>> file_sizes; /* of inodes in use, by number */
    std::map<int64_t, LargestTwo> brick_numbers;                /* that these refer to */
    ExtentTraces extents;
    Traces numbered_extents; /* whatever their checksum, by offset of entry 0 */

    explicit AreaFacts(const Device &device);
};

/* Reads the tables once. The rows are those of the layout's bricks and inodes. */
AreaFacts survey_areas(const Device &device, const tier_layout &layout);

/* The inodes of an area of its own after the data. */
struct ExpansionFacts {
    int64_t base = 0;   /* offset of inode 0, if the area went back to it */
    uint64_t first = 0; /* lowest number found */
    uint64_t count = 0;
    uint64_t found = 0; /* sound ones that were looked at */
    bool in_use = false;
};

/* What the extents of a layout say besides. */
struct ExtentEvidence {
    uint64_t least_block = 0;            /* bytes that a block must have */
    std::map<uint64_t, uint64_t> blocks; /* how many entries say that blocks have so many bytes */
    std::optional<ExpansionFacts> expansion;
};

/* The numbers that both layouts have. */
struct AreaNumbers {
    uint64_t brick_cnt = 0;
    uint64_t inode_cnt = 0;
    uint64_t block_cnt = 0;
    uint64_t block_size = 0;
    uint32_t extent_length = 0; /* of the whole record; 0: no extent was found */
    const ExtentTrace *extents = nullptr;
    Certainty extents_certainty = Certainty::none; /* where they begin, and how long they are */
    uint64_t explained = 0;                        /* bricks and inodes */
    std::string explained_text{};
};

/* How many inodes the table may have: at least, at most. Extents refer to those of an area of its
 * own as well, if there is one. */
std::pair<uint64_t, uint64_t> inode_bounds(const AreaFacts &facts, bool has_expansion);

/* The page after the last that has its bit, if all of a record after its head is a bitmap. */
uint64_t bitmap_end(const uint8_t *block, uint32_t length);

/* The extents with the most sound entries, null when there are none. */
const ExtentTraces::value_type *best_extents(const AreaFacts &facts);

/* Reads the numbers and adds them, and those that follow from them. */
AreaNumbers read_areas(const AreaFacts &facts, const ExtentEvidence &evidence, Readings *to);

/* Puts the numbers into a super block. */
template <class Super>
void put_areas(const AreaNumbers &numbers, Super *super)
{
    super->sb_size = TIER_SB_AREA_SIZE;
    super->sb_brick_cnt = static_cast<uint32_t>(numbers.brick_cnt);
    super->sb_inode_cnt = static_cast<uint32_t>(numbers.inode_cnt);
    super->sb_block_cnt = static_cast<uint32_t>(numbers.block_cnt);
    super->sb_block_size = static_cast<uint32_t>(numbers.block_size);
    super->sb_brick_table_size = numbers.brick_cnt * SIZE_4K;
    super->sb_inode_table_size = tier_inode_table_size(*super);
    super->sb_extent_table_size = numbers.block_cnt * SIZE_4K;
    super->sb_data_offset = tier_data_offset(*super);
}

/* Adds the numbers of the super block that follow from others. The extents themselves say where the
 * inodes end. */
template <class Super>
void add_area_sizes(const AreaNumbers &numbers, const Super &super, Readings *to)
{
    const Certainty bricks = to->certainty("brick_cnt");
    const Certainty inodes = lower(bricks, numbers.extents_certainty);
    const Certainty blocks = to->certainty("block_cnt");
    to->add("super block size", Certainty::certain, super.sb_size, "the layout has no other");
    to->add("brick_table_size", bricks, super.sb_brick_table_size, "4096 for each of brick_cnt");
    to->add("inode_table_size", inodes, super.sb_inode_table_size,
            "4096 for each of inode_cnt, up to a multiple of 1 MiB");
    to->add("extent_table_size", blocks, super.sb_extent_table_size, "4096 for each of block_cnt");
    to->add("data_offset", blocks, super.sb_data_offset,
            "2 MiB after the extents, up to a multiple of 1 MiB");
}

} // namespace tierctl
