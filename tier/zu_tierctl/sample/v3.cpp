#include "zu_tier/format/v3.h"
#include "zu_tierctl/sample/cache.h"

#include <algorithm>

namespace tierctl {

/* Sample devices of layout V3. */

namespace {

constexpr uint32_t HOT_SIZE_MAX = 1024 * SIZE_1M; /* the layout itself has no limit */

constexpr std::array<Bounds, SIZES> BOUNDS_V3 = {{
    {1, TIER_BRICK_CNT_MAX_V3, 1, 4},
    {1, TIER_INODE_CNT_MAX_V3, 1, 64},
    {1, TIER_EXTENT_CNT_MAX_V3, 1, 0},
    {TIER_BLOCK_SIZE_MIN_V3, TIER_BLOCK_SIZE_MAX_V3, SIZE_4K, TIER_BLOCK_SIZE_MAX_V3},
    NO_BOUNDS,
    NO_BOUNDS,
    {TIER_PACKED_SLOTS_V3, TIER_SHARD_CNT_MAX_V3, TIER_PACKED_SLOTS_V3, 1024},
    {TIER_PACKED_SLOTS_V3, TIER_EXTENT_CNT_MAX_V3, TIER_PACKED_SLOTS_V3, 4096},
    {SIZE_4K, HOT_SIZE_MAX, SIZE_4K, 65536},
}};

constexpr uint32_t FILE_BLOCK_SHIFT = 17; /* i_blocks counts whole 128 KiB */

constexpr uint64_t LBAS = uint64_t{1} << EXTENT_LBA_V3.width;

/* Odd, so that its multiples, which are scattered over the addresses, reach each of them before
 * they repeat. */
constexpr uint64_t SCATTER = 2654435761;
static_assert(SCATTER % 2 == 1);

using SuperBlock = tier_super_block_v3_t;

struct Area {
    uint64_t SuperBlock::*offset;
    uint64_t SuperBlock::*size;
};

/* In their order on the device. */
constexpr Area AREAS[] = {
    {&SuperBlock::sb_brick_table_offset, &SuperBlock::sb_brick_table_size},
    {&SuperBlock::sb_inode_table_offset, &SuperBlock::sb_inode_table_size},
    {&SuperBlock::sb_shard_table_offset, &SuperBlock::sb_shard_table_size},
    {&SuperBlock::sb_hot_table_offset, &SuperBlock::sb_hot_table_size},
    {&SuperBlock::sb_extent_table_offset, &SuperBlock::sb_extent_table_size},
    {&SuperBlock::sb_block_area_offset, &SuperBlock::sb_block_area_size},
};

/* The super block area comes first, then the reserved area up to a multiple of 1 MiB. Each of the
 * others begins at such a multiple. */
void place_areas(SuperBlock *super)
{
    super->sb_sb_offset = TIER_SUPER_OFFSET;
    super->sb_sb_size = TIER_SB_AREA_SIZE_V3;
    super->sb_reserved_offset = super->sb_sb_offset + super->sb_sb_size;
    uint64_t start = tier_round_up(super->sb_reserved_offset, SIZE_1M);
    super->sb_reserved_size = start - super->sb_reserved_offset;
    for (const Area &area : AREAS) {
        super->*area.offset = start;
        start = tier_round_up(start + super->*area.size, SIZE_1M);
    }
}

SuperBlock make_super(const SampleCache &cache, const Sizes &sizes)
{
    SuperBlock super{};
    super.sb_magic = TIER_SB_MAGIC_V3;
    super.sb_version = TIER_SB_VERSION_V3;
    super.sb_ctime = SAMPLE_CTIME;
    cache.identify(super.sb_uuid, super.sb_cdev_uuid);
    super.sb_brick_table_cnt = sizes[BRICKS];
    super.sb_brick_table_size = super.sb_brick_table_cnt * SIZE_4K;
    super.sb_inode_table_cnt = sizes[INODES];
    super.sb_inode_table_size = super.sb_inode_table_cnt * SIZE_4K;
    super.sb_shard_table_cnt = sizes[SHARDS];
    super.sb_shard_table_size = super.sb_shard_table_cnt * TIER_PACKED_SIZE_V3;
    super.sb_extent_table_cnt = sizes[EXTENTS];
    super.sb_extent_table_size = super.sb_extent_table_cnt * TIER_PACKED_SIZE_V3;
    super.sb_hot_table_size = sizes[HOT_SIZE];
    super.sb_block_size = sizes[BLOCK_SIZE];
    super.sb_block_cnt = sizes[BLOCKS];
    super.sb_block_area_size = super.sb_block_size * super.sb_block_cnt;
    place_areas(&super);
    return super;
}

class SampleV3 {
public:
    SampleV3(const Sizes &sizes, uint64_t seed)
        : cache_(sizes, seed), super_(make_super(cache_, sizes))
    {
    }

    const SuperBlock &super() const { return super_; }

    tier_brick_info_v3_t brick(uint64_t no) { return cache_.brick(TIER_BRICK_MAGIC_V3, no); }

    tier_inode_v3_t inode(uint64_t no);

    tier_packed_block_v3_t shard_block(uint64_t no);
    std::array<uint8_t, SIZE_4K> hot_block();
    tier_packed_block_v3_t extent_block(uint64_t no);

private:
    struct CachedFile {
        uint32_t inode_no;
        uint64_t blocks;
        uint64_t shards; /* so far: a shard holds a block or more */
    };

    template <class Make>
    void fill_words(const tier_region &table, uint64_t no, uint32_t first,
                    tier_packed_block_v3_t *block, const Make &make);

    uint64_t shard(uint64_t no);
    uint64_t extent();

    SampleCache cache_;
    SuperBlock super_;
    std::vector<CachedFile> files_; /* that may have another shard */
    std::vector<uint32_t> shards_;  /* in use */
    uint64_t extents_ = 0;          /* in use so far */
};

tier_inode_v3_t SampleV3::inode(uint64_t no)
{
    tier_inode_v3_t inode = cache_.inode(TIER_INODE_MAGIC_V3, no);
    if (inode.i_use != 0) {
        inode.new_data = cache_.random().below(inode.i_size);
        inode.i_blocks = inode.i_size >> FILE_BLOCK_SHIFT;
        const uint64_t blocks = tier_round_up(inode.i_size, super_.sb_block_size);
        files_.push_back({inode.i_no, blocks / super_.sb_block_size, 0});
    }
    return inode;
}

/* Writes the entries in use of block `no` of a table, whose words from `first` on are entries.
 * `make` gives the word of an entry's number. All entries of a block may be free. */
template <class Make>
void SampleV3::fill_words(const tier_region &table, uint64_t no, uint32_t first,
                          tier_packed_block_v3_t *block, const Make &make)
{
    if (!cache_.random().in_use(no, table.count)) {
        return;
    }
    for (uint32_t k = first; k < TIER_PACKED_SLOTS_V3; k++) {
        if (k == first || !cache_.random().one_in(4)) {
            block->word[k] = make(no * TIER_PACKED_SLOTS_V3 + k);
        }
    }
}

tier_packed_block_v3_t SampleV3::shard_block(uint64_t no)
{
    tier_packed_block_v3_t block{};
    block.word[0] = SHARD_MAGIC_V3.put(0, TIER_SHARD_MAGIC_V3);
    fill_words(tier_shards_v3(super_), no, 1, &block, [this](uint64_t sno) { return shard(sno); });
    return block;
}

/* A free one when no file may have another. */
uint64_t SampleV3::shard(uint64_t no)
{
    if (files_.empty()) {
        return 0;
    }
    shards_.push_back(static_cast<uint32_t>(no));
    CachedFile &file = files_[cache_.random().below(files_.size())];
    uint64_t word = SHARD_INO_V3.put(SHARD_IN_USE_V3.put(0, 1), file.inode_no);
    word = SHARD_INDEX_V3.put(word, file.shards++);
    if (file.shards == file.blocks) {
        file = files_.back();
        files_.pop_back();
    }
    return word;
}

std::array<uint8_t, SIZE_4K> SampleV3::hot_block()
{
    std::array<uint8_t, SIZE_4K> block;
    std::ranges::generate(block,
                          [this] { return static_cast<uint8_t>(cache_.random().between(1, 256)); });
    return block;
}

tier_packed_block_v3_t SampleV3::extent_block(uint64_t no)
{
    tier_packed_block_v3_t block{};
    fill_words(tier_extents_v3(super_), no, 0, &block, [this](uint64_t) { return extent(); });
    return block;
}

/* Extents go through all addresses turn by turn. In each turn an address gets another shard, while
 * there are others: no two extents have the same address of the same shard. */
uint64_t SampleV3::extent()
{
    Random &random = cache_.random();
    const uint64_t turn = extents_ / LBAS;
    const uint64_t place = extents_ % LBAS * SCATTER;
    extents_++;

    uint64_t word = EXTENT_IN_USE_V3.put(0, 1);
    word = EXTENT_LBA_V3.put(word, place);
    word = EXTENT_SHARD_V3.put(word, shards_[(place / LBAS + turn) % shards_.size()]);
    word = EXTENT_DIRTY_V3.put(word, random.one_in(4) ? 1 : 0);
    word = EXTENT_BITMAP_V3.put(word, random.between(1, uint64_t{1} << EXTENT_BITMAP_V3.width));
    word = EXTENT_SENSE_V3.put(word, random.below(uint64_t{1} << EXTENT_SENSE_V3.width));
    word = EXTENT_DEMOTE_V3.put(word, random.one_in(8) ? 1 : 0);
    random.below(1); /* what follows in the image of a seed stays where it was */
    return word;
}

/* By default there is a data block for each extent. */
Sizes with_blocks(Sizes sizes)
{
    if (sizes[BLOCKS] == 0) {
        sizes[BLOCKS] = sizes[EXTENTS];
    }
    return sizes;
}

SamplePlan plan_v3(const Sizes &sizes, uint64_t seed)
{
    const auto contents = std::make_shared<SampleV3>(with_blocks(sizes), seed);
    const SuperBlock &super = contents->super();
    const std::vector<Table> tables = sample_tables("v3", super);
    return {
        super.sb_block_area_offset + super.sb_block_area_size,
        {
            sample_table(tables, "brick", [contents](uint64_t no) { return contents->brick(no); }),
            sample_table(tables, "inode", [contents](uint64_t no) { return contents->inode(no); }),
            sample_table(tables, "shard",
                         [contents](uint64_t no) { return contents->shard_block(no); }),
            sample_table(tables, "hot", [contents](uint64_t) { return contents->hot_block(); }),
            sample_table(tables, "extent",
                         [contents](uint64_t no) { return contents->extent_block(no); }),
            /* The last: a device whose tables are incomplete must not look like a good one. */
            sample_table(tables, "super", [super](uint64_t) { return super; }),
        },
    };
}

} // namespace

constinit const SampleLayout SAMPLE_LAYOUT_V3 = {"v3", BOUNDS_V3, plan_v3, nullptr};

} // namespace tierctl
