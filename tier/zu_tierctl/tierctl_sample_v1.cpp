#include "zu_tier/tier_format_v1.h"
#include "zu_tierctl/tierctl_layout.h"
#include "zu_tierctl/tierctl_random.h"
#include "zu_tierctl/tierctl_sample.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

/* Sample devices of layout V1. */

namespace {

constexpr uint64_t NANOSECONDS = 1000000000;
constexpr uint64_t YEAR_START = TIERCTL_SAMPLE_YEAR_START * NANOSECONDS;
constexpr uint64_t YEAR_END = TIERCTL_SAMPLE_YEAR_END * NANOSECONDS;

constexpr std::string_view BRICK_DIRECTORY = "/kd/data/zu/local/";
constexpr size_t UUID_TEXT_LEN = 36;
static_assert(BRICK_DIRECTORY.size() + TIER_SSD_UUID_LEN + 1 + UUID_TEXT_LEN == TIER_BRICKID_LEN);

constexpr uint64_t PAGES_A_WORD = 64;

/* The layout itself has no limit; this one keeps the extent table of a sample within 4 GiB. */
constexpr uint32_t BLOCKS_MAX = 1048576;

/* An extent record whose bitmap has a bit for every 4096-byte page of a block. */
uint32_t extent_size_for(uint32_t block_size)
{
    const uint64_t pages = block_size / SIZE_4K;
    const uint64_t words = tier_round_up(pages, PAGES_A_WORD) / PAGES_A_WORD;
    return TIER_EXTENT_SIZE_MIN + static_cast<uint32_t>(words * sizeof(uint64_t));
}

/* What the extents of a file need to know of its inode. */
struct cached_file {
    uint32_t inode_no;
    uint32_t identity;
    uint64_t size;
    uint64_t atime;
};

/* Makes the entries in order: a table draws on what the tables before it hold. */
class sample_v1 {
public:
    sample_v1(const tierctl_sizes &sizes, uint64_t seed);

    const tier_super_block_v1_t &super() const { return super_; }

    void fill_super(uint8_t *slot) const { memcpy(slot, &super_, sizeof(super_)); }
    void fill_brick(uint64_t no, uint8_t *slot);
    void fill_inode(uint64_t no, uint8_t *slot);
    void fill_extent(uint64_t no, uint8_t *slot);

private:
    void use_brick(tier_brick_info_v1_t &brick);
    void use_inode(tier_inode_v1_t &inode);
    void use_extent(tier_extent_v1_t &extent, uint8_t *bitmap);
    void set_bits(uint8_t *bitmap, uint64_t begin, uint64_t end) const;

    tierctl_random random_;
    tier_super_block_v1_t super_{};
    std::vector<uint32_t> bricks_; /* in use */
    std::vector<cached_file> files_;
    size_t file_ = 0;    /* the file that the next extent belongs to */
    uint32_t block_ = 0; /* and the block of it */
};

sample_v1::sample_v1(const tierctl_sizes &sizes, uint64_t seed) : random_(seed)
{
    super_.sb_magic = TIER_SB_MAGIC_V1;
    super_.sb_version = TIER_SB_VERSION_V1;
    super_.sb_size = TIER_SB_AREA_SIZE;
    super_.sb_ctime = YEAR_START;
    random_.uuid(super_.sb_uuid);
    random_.volume_id().copy(super_.sb_ssd_uuid, sizeof(super_.sb_ssd_uuid) - 1);
    super_.sb_brick_cnt = sizes[TIERCTL_BRICKS];
    super_.sb_inode_cnt = sizes[TIERCTL_INODES];
    super_.sb_block_cnt = sizes[TIERCTL_BLOCKS];
    super_.sb_block_size = sizes[TIERCTL_BLOCK_SIZE];
    super_.sb_extent_size = sizes[TIERCTL_EXTENT_SIZE] != 0 ? sizes[TIERCTL_EXTENT_SIZE]
                                                            : extent_size_for(super_.sb_block_size);
    super_.sb_brick_table_size = uint64_t{super_.sb_brick_cnt} * SIZE_4K;
    super_.sb_inode_table_size = tier_inode_table_size(super_);
    super_.sb_extent_table_size = uint64_t{super_.sb_block_cnt} * SIZE_4K;
    super_.sb_data_offset = tier_data_offset(super_);
}

void sample_v1::fill_brick(uint64_t no, uint8_t *slot)
{
    tier_brick_info_v1_t brick{};
    brick.bi_magic = TIER_BRICK_MAGIC_V1;
    brick.bi_no = static_cast<uint32_t>(no);
    random_.uuid(brick.bi_uuid); /* a free brick has one, too */
    if (random_.in_use(no, super_.sb_brick_cnt)) {
        use_brick(brick);
    }
    memcpy(slot, &brick, sizeof(brick));
}

void sample_v1::use_brick(tier_brick_info_v1_t &brick)
{
    brick.bi_use = 1;
    std::string path(BRICK_DIRECTORY);
    path += random_.volume_id() + '/' + zutr_uuid_utoa(brick.bi_uuid);
    path.copy(brick.bi_brickid, sizeof(brick.bi_brickid) - 1);
    bricks_.push_back(brick.bi_no);
}

void sample_v1::fill_inode(uint64_t no, uint8_t *slot)
{
    tier_inode_v1_t inode{};
    inode.i_magic = TIER_INODE_MAGIC_V1;
    inode.i_no = static_cast<uint32_t>(no);
    if (random_.in_use(no, super_.sb_inode_cnt)) {
        use_inode(inode);
    }
    memcpy(slot, &inode, sizeof(inode));
}

void sample_v1::use_inode(tier_inode_v1_t &inode)
{
    inode.i_use = 1;
    inode.i_mtime = random_.between(YEAR_START, YEAR_END);
    inode.i_ctime = random_.between(inode.i_mtime, YEAR_END);
    inode.i_atime = random_.between(inode.i_ctime, YEAR_END);
    if (random_.one_in(16)) {
        inode.i_unlink = 1;
        inode.i_dtime = random_.between(inode.i_atime, YEAR_END);
    }
    random_.uuid(inode.i_uuid);
    inode.i_priority = static_cast<uint32_t>(random_.below(8));
    inode.i_brick_no = bricks_[random_.below(bricks_.size())];
    /* On average the files in use need about as many blocks as there are extents in use. */
    const uint64_t blocks = std::max(1U, super_.sb_block_cnt / super_.sb_inode_cnt);
    inode.i_size = 1 + random_.below(2 * blocks * super_.sb_block_size);

    cached_file file{inode.i_no, 0, inode.i_size, inode.i_atime};
    memcpy(&file.identity, inode.i_uuid, sizeof(file.identity));
    files_.push_back(file);
}

void sample_v1::fill_extent(uint64_t no, uint8_t *slot)
{
    tier_extent_v1_t extent{};
    extent.te_reserved1 = no;
    if (file_ < files_.size() && random_.in_use(no, super_.sb_block_cnt)) {
        use_extent(extent, slot + sizeof(extent));
    }
    memcpy(slot, &extent, sizeof(extent));
}

void sample_v1::use_extent(tier_extent_v1_t &extent, uint8_t *bitmap)
{
    const cached_file &file = files_[file_];
    const uint64_t behind = file.size - uint64_t{block_} * super_.sb_block_size;
    const uint64_t length = std::min(behind, uint64_t{super_.sb_block_size});
    const uint64_t pages = tier_round_up(length, SIZE_4K) / SIZE_4K;
    const uint64_t first = random_.one_in(4) ? random_.below(pages) : 0; /* some lack their head */

    extent.te_use = 1;
    extent.te_block = block_;
    extent.te_size = length - first * SIZE_4K;
    extent.te_inode_no = file.inode_no;
    extent.te_sampling_low = file.identity;
    extent.te_sampling_mid = static_cast<uint32_t>(random_.below(1000));
    extent.te_sampling_high = static_cast<uint32_t>(random_.below(1000));
    extent.te_clean = random_.one_in(4) ? 0 : 1;
    extent.te_ntime = static_cast<uint32_t>(file.atime / NANOSECONDS);
    extent.te_hot = random_.below(10000);
    set_bits(bitmap, first, pages);

    block_++;
    if (length == behind) {
        file_++;
        block_ = 0;
    }
}

/* Sets the bits of the pages `begin`..`end` - 1 that the bitmap has room for. */
void sample_v1::set_bits(uint8_t *bitmap, uint64_t begin, uint64_t end) const
{
    const uint64_t room = tier_bitmap_words_v1(super_.sb_extent_size) * PAGES_A_WORD;
    for (uint64_t page = begin; page < std::min(end, room); page++) {
        uint8_t &byte = bitmap[page / 8]; /* words are stored low byte first */
        byte = static_cast<uint8_t>(byte | (1U << (page % 8)));
    }
}

tierctl_sample_plan plan_v1(const tierctl_sizes &sizes, uint64_t seed)
{
    const auto sample = std::make_shared<sample_v1>(sizes, seed);
    const auto &sb = sample->super();
    const tierctl_table bricks{"brick", tier_bricks(sb), sizeof(tier_brick_info_v1_t),
                               offsetof(tier_brick_info_v1_t, bi_magic),
                               offsetof(tier_brick_info_v1_t, bi_no)};
    const tierctl_table inodes{"inode", tier_inodes(sb), sizeof(tier_inode_v1_t),
                               offsetof(tier_inode_v1_t, i_magic), offsetof(tier_inode_v1_t, i_no)};
    const tierctl_table extents{"extent", tier_extents(sb), sb.sb_extent_size, std::nullopt,
                                offsetof(tier_extent_v1_t, te_reserved1)};
    const tierctl_table super{"super",
                              {TIER_SUPER_OFFSET, 1},
                              sizeof(tier_super_block_v1_t),
                              offsetof(tier_super_block_v1_t, sb_magic),
                              std::nullopt};
    return {
        sb.sb_data_offset + uint64_t{sb.sb_block_cnt} * sb.sb_block_size,
        {
            {bricks, [sample](uint64_t no, uint8_t *slot) { sample->fill_brick(no, slot); }},
            {inodes, [sample](uint64_t no, uint8_t *slot) { sample->fill_inode(no, slot); }},
            {extents, [sample](uint64_t no, uint8_t *slot) { sample->fill_extent(no, slot); }},
            /* Last: a device whose tables are incomplete is not to look like a good one. */
            {super, [sample](uint64_t, uint8_t *slot) { sample->fill_super(slot); }},
        },
    };
}

} // namespace

constinit const tierctl_layout TIERCTL_LAYOUT_V1 = {
    "v1",
    {{
        {1, TIER_BRICK_CNT_MAX, 1, 4},
        {1, TIER_INODE_CNT_MAX, 1, 64},
        {1, BLOCKS_MAX, 1, 256},
        {TIER_BLOCK_SIZE_MIN, TIER_BLOCK_SIZE_MAX, SIZE_4K, SIZE_1M},
        {TIER_EXTENT_SIZE_MIN, TIER_EXTENT_SIZE_MAX, 1, 0},
    }},
    plan_v1,
};
