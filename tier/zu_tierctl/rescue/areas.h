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
 * multiple of 1 MiB, then an extent for each data block. No data lies in the first 5 MiB, nor
 * within 2 MiB after an extent. */

constexpr int64_t AREA_START = TIER_SB_AREA_SIZE + SIZE_4K; /* of the bricks */
static_assert(AREA_START == HEAD_START);
constexpr uint64_t SLOTS_A_MIB = SIZE_1M / SIZE_4K;

/* The sound extents of one length that all begin at the same offset, if their numbers are right. */
struct ExtentTrace : Trace {
    uint64_t in_use = 0;
    LargestTwo size;                    /* bytes held */
    std::map<uint64_t, uint64_t> sizes; /* how many hold so many bytes, of sizes of a block */
    std::vector<Block> samples;         /* some of those in use */
};

/* By offset of entry 0 and length of the record. */
using ExtentTraces = std::map<std::pair<int64_t, uint32_t>, ExtentTrace>;

/* The inodes of an area of its own after the data. */
struct ExpansionFacts {
    uint64_t base = 0;  /* offset of inode 0, if the area went back to it */
    uint64_t first = 0; /* lowest number */
    uint64_t count = 0;
    uint64_t found = 0; /* sound ones that were looked at */
    bool in_use = false;

    /* Where the data before it end. */
    uint64_t data_end() const { return base + first * SIZE_4K - SIZE_1M; }
};

struct AreaFacts {
    uint64_t device_size = 0;
    Blanks blanks{};
    Trace bricks{};
    Traces inodes{};
    ExtentTraces extents{};
    bool has_room = true; /* for an expansion area, after the blocks that are known */
    std::optional<ExpansionFacts> expansion{};
};

/* Reads the tables once. The rows are those of the layout's bricks and inodes. */
AreaFacts survey_areas(const BlockReader &blocks, const tier_layout &layout);

/* How many inodes the table may have when the extents begin there: at least, at most. */
std::pair<uint64_t, uint64_t> inode_bounds(int64_t inodes, int64_t extents);

/* Whether the layouts allow blocks of so many bytes. */
constexpr bool is_block_size(uint64_t size)
{
    return size % SIZE_4K == 0 && size >= TIER_BLOCK_SIZE_MIN && size <= TIER_BLOCK_SIZE_MAX;
}

/* What most of the extents hold needs blocks of at least so many bytes, as far as a layout allows.
 */
uint64_t least_block_size(const ExtentTrace &extents);

/* Where data blocks lie whose extents begin at `start`, when nothing but they ends at `end`. */
struct DataArea {
    int64_t start;
    uint64_t end;

    uint64_t offset(uint64_t blocks) const;
    /* The most blocks of that size that have room. */
    uint64_t most_blocks(uint64_t size) const;
    /* The size with which so many blocks end with the last byte; nothing when none does. */
    std::optional<uint64_t> size_that_fills(uint64_t blocks) const;
};

/* What the extents of a layout say besides. */
struct ExtentEvidence {
    uint64_t least_block = 0;            /* bytes that a block must have */
    std::map<uint64_t, uint64_t> blocks; /* how many pieces say that blocks have so many bytes */
};

/* The numbers that both layouts have. */
struct AreaNumbers {
    uint64_t brick_cnt = 0;
    uint64_t inode_cnt = 0;
    uint64_t block_cnt = 0;
    uint64_t block_size = 0;
    const ExtentTrace *extents = nullptr;          /* null: none was found */
    uint32_t extent_length = 0;                    /* of the whole record */
    Certainty extents_certainty = Certainty::none; /* where they begin, and how long they are */
    uint64_t explained = 0;                        /* bricks and inodes */
    std::string explained_text{};
};

/* The page after the last that has its bit, if all of a record after its head is a bitmap. */
uint64_t bitmap_end(const uint8_t *block, uint32_t length);

/* Reads the numbers and adds them. `expansion`: of an area of inodes after the data, which only
 * some layouts have. */
AreaNumbers read_areas(const AreaFacts &facts, const ExtentEvidence &evidence,
                       const std::optional<ExpansionFacts> &expansion, Readings *to);

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
    to->add("data_offset", lower(inodes, blocks), super.sb_data_offset,
            "2 MiB after the extents, up to a multiple of 1 MiB");
}

} // namespace tierctl
