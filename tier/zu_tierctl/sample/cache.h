#pragma once

#include "zu_tier/format/areas.h"
#include "zu_tierctl/sample/random.h"
#include "zu_tierctl/sample/sample.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tierctl {

/* What the samples of all layouts share: which files are cached and, in V1 and V2, where. */

constexpr uint64_t SAMPLE_CTIME = SAMPLE_YEAR_START * NANOSECONDS;

/* The layouts themselves set no limit; this one keeps a sample's extent table within 4 GiB. */
constexpr uint32_t BLOCKS_MAX = 1048576;

/* The sizes of V1; those of V2 are the same but for a few. */
constexpr std::array<Bounds, SIZES> CACHE_BOUNDS = {{
    {1, TIER_BRICK_CNT_MAX, 1, 4},
    {1, TIER_INODE_CNT_MAX, 1, 64},
    {1, BLOCKS_MAX, 1, 256},
    {TIER_BLOCK_SIZE_MIN, TIER_BLOCK_SIZE_MAX, SIZE_4K, SIZE_1M},
    {TIER_EXTENT_SIZE_MIN, TIER_EXTENT_SIZE_MAX, 1, 0},
    NO_BOUNDS,
    NO_BOUNDS,
    NO_BOUNDS,
    NO_BOUNDS,
}};

/* The part of a file's block that an extent holds. */
struct Held {
    uint64_t begin;  /* first page of 4096 bytes */
    uint64_t end;    /* page after the last */
    uint64_t length; /* bytes of the block up to the end of the file, which may be within a page */
};

/* Makes the entries of the tables: bricks first, then inodes, then extents, each in the order of
 * their numbers. A table refers to entries of the tables before it. */
class SampleCache {
public:
    SampleCache(const Sizes &sizes, uint64_t seed);

    Random &random() { return random_; }

    /* The identities of the cache and of its SSD. */
    void identify(uint8_t (&uuid)[16], char (&volume_id)[48]) const;

    /* A super block of V1 or V2 without the fields that only one of them has. */
    template <class Super>
    Super super(uint32_t magic, uint32_t version) const;

    tier_brick_info_t brick(uint32_t magic, uint64_t no);
    tier_inode_t inode(uint32_t magic, uint64_t no);

    /* The head of an extent; sets `held` when it is in use. */
    tier_extent_t extent(uint64_t no, std::optional<Held> *held);

    /* Sets the bits of the pages `begin`..`end` - 1, as far as the bitmap of the extent has room.
     */
    void hold(uint8_t *slot, uint64_t begin, uint64_t end) const;

private:
    /* What the extents of a file copy from its inode. */
    struct CachedFile {
        uint32_t inode_no;
        uint32_t identity;
        uint64_t size;
        uint64_t atime;
    };

    void use_brick(tier_brick_info_t *brick);
    void use_inode(tier_inode_t *inode);
    Held use_extent(tier_extent_t *extent);
    uint64_t bitmap_pages() const;

    Sizes sizes_;
    uint32_t inode_sum_; /* including those of the expansion area */
    Random random_;
    uint8_t uuid_[16];
    std::string volume_id_;
    std::vector<uint32_t> bricks_; /* in use */
    std::vector<CachedFile> files_;
    size_t file_ = 0;    /* index of the file of the next extent */
    uint32_t block_ = 0; /* and the block of that file */
};

template <class Super>
Super SampleCache::super(uint32_t magic, uint32_t version) const
{
    Super super{};
    super.sb_magic = magic;
    super.sb_version = version;
    super.sb_size = TIER_SB_AREA_SIZE;
    super.sb_ctime = SAMPLE_CTIME;
    identify(super.sb_uuid, super.sb_ssd_uuid);
    super.sb_brick_cnt = sizes_[BRICKS];
    super.sb_inode_cnt = sizes_[INODES];
    super.sb_block_cnt = sizes_[BLOCKS];
    super.sb_block_size = sizes_[BLOCK_SIZE];
    super.sb_extent_size = sizes_[EXTENT_SIZE];
    super.sb_brick_table_size = uint64_t{super.sb_brick_cnt} * SIZE_4K;
    super.sb_inode_table_size = tier_inode_table_size(super);
    super.sb_extent_table_size = uint64_t{super.sb_block_cnt} * SIZE_4K;
    super.sb_data_offset = tier_data_offset(super);
    return super;
}

template <class Record>
void put(uint8_t *slot, const Record &record)
{
    memcpy(slot, &record, sizeof(record));
}

/* The tables of the layout of that name under the super block. */
template <class Super>
std::vector<Table> sample_tables(std::string_view layout, const Super &super)
{
    return tables_of(*find_layout(layout), &super);
}

/* The table `name`, one of `tables`, with the record that `make` gives for each number. */
template <class Make>
SampleTable sample_table(const std::vector<Table> &tables, const char *name, const Make &make)
{
    return {find_table(tables, name), [make](uint64_t no, uint8_t *slot) { put(slot, make(no)); }};
}

/* The plan of a device of V1 or V2 with the super block `super` and the entries that `sample`
 * makes. */
template <class Contents, class Super>
SamplePlan sample_plan(const std::shared_ptr<Contents> &contents, const Super &super,
                       const std::vector<Table> &tables, uint64_t device_size)
{
    return {
        device_size,
        {
            sample_table(tables, "brick", [contents](uint64_t no) { return contents->brick(no); }),
            sample_table(tables, "inode", [contents](uint64_t no) { return contents->inode(no); }),
            {find_table(tables, "extent"),
             [contents](uint64_t no, uint8_t *slot) { contents->fill_extent(no, slot); }},
            /* The last: a device whose tables are incomplete must not look like a good one. */
            sample_table(tables, "super", [super](uint64_t) { return super; }),
        },
    };
}

/* Where the data blocks of V1 or V2 end. */
template <class Super>
uint64_t data_end(const Super &super)
{
    return super.sb_data_offset + uint64_t{super.sb_block_cnt} * super.sb_block_size;
}

} // namespace tierctl
