#include "zu_tierctl/sample/cache.h"

#include <algorithm>
#include <fmt/core.h>
#include <string_view>

namespace tierctl {

namespace {

constexpr uint64_t YEAR_START = SAMPLE_YEAR_START * NANOSECONDS;
constexpr uint64_t YEAR_END = SAMPLE_YEAR_END * NANOSECONDS;

constexpr std::string_view BRICK_DIRECTORY = "/kd/data/zu/local/";
constexpr size_t UUID_TEXT_LEN = 36;
static_assert(BRICK_DIRECTORY.size() + TIER_SSD_UUID_LEN + 1 + UUID_TEXT_LEN == TIER_BRICKID_LEN);

constexpr uint64_t PAGES_A_WORD = 64;

/* Bytes of an extent head and of a bitmap with a bit for every 4096-byte page of a block. */
uint32_t extent_size_for(uint32_t block_size)
{
    const uint64_t pages = block_size / SIZE_4K;
    const uint64_t words = tier_round_up(pages, PAGES_A_WORD) / PAGES_A_WORD;
    return TIER_EXTENT_SIZE_MIN + static_cast<uint32_t>(words * sizeof(uint64_t));
}

} // namespace

SampleCache::SampleCache(const Sizes &sizes, uint64_t seed)
    : sizes_(sizes), inode_sum_(sizes[INODES] + sizes[EXPANSION]), random_(seed)
{
    random_.uuid(uuid_);
    volume_id_ = random_.volume_id();
    if (sizes_[EXTENT_SIZE] == 0) {
        sizes_[EXTENT_SIZE] = extent_size_for(sizes_[BLOCK_SIZE]);
    }
}

void SampleCache::identify(uint8_t (&uuid)[16], char (&volume_id)[48]) const
{
    memcpy(uuid, uuid_, sizeof(uuid));
    volume_id_.copy(volume_id, sizeof(volume_id) - 1);
}

tier_brick_info_t SampleCache::brick(uint32_t magic, uint64_t no)
{
    tier_brick_info_t brick{};
    brick.bi_magic = magic;
    brick.bi_no = static_cast<uint32_t>(no);
    random_.uuid(brick.bi_uuid); /* a free brick also has one */
    if (random_.in_use(no, sizes_[BRICKS])) {
        use_brick(&brick);
    }
    return brick;
}

void SampleCache::use_brick(tier_brick_info_t *brick)
{
    brick->bi_use = 1;
    const std::string path = fmt::format("{}{}/{}", BRICK_DIRECTORY, random_.volume_id(),
                                         zutr_uuid_utoa(brick->bi_uuid));
    path.copy(brick->bi_brickid, sizeof(brick->bi_brickid) - 1);
    bricks_.push_back(brick->bi_no);
}

tier_inode_t SampleCache::inode(uint32_t magic, uint64_t no)
{
    tier_inode_t inode{};
    inode.i_magic = magic;
    inode.i_no = static_cast<uint32_t>(no);
    if (random_.in_use(no, inode_sum_)) {
        use_inode(&inode);
    }
    return inode;
}

void SampleCache::use_inode(tier_inode_t *inode)
{
    inode->i_use = 1;
    inode->i_mtime = random_.between(YEAR_START, YEAR_END);
    inode->i_ctime = random_.between(inode->i_mtime, YEAR_END);
    inode->i_atime = random_.between(inode->i_ctime, YEAR_END);
    if (random_.one_in(16)) {
        inode->i_unlink = 1;
        inode->i_dtime = random_.between(inode->i_atime, YEAR_END);
    }
    random_.uuid(inode->i_uuid);
    inode->i_priority = static_cast<uint32_t>(random_.below(8));
    inode->i_brick_no = bricks_[random_.below(bricks_.size())];
    /* On average, the files in use then need as many blocks as there are extents in use. */
    const uint64_t blocks = std::max(1U, sizes_[BLOCKS] / inode_sum_);
    inode->i_size = 1 + random_.below(2 * blocks * sizes_[BLOCK_SIZE]);

    CachedFile file{inode->i_no, 0, inode->i_size, inode->i_atime};
    memcpy(&file.identity, inode->i_uuid, sizeof(file.identity));
    files_.push_back(file);
}

tier_extent_t SampleCache::extent(uint64_t no, std::optional<Held> *held)
{
    tier_extent_t extent{};
    extent.te_reserved1 = no;
    if (file_ < files_.size() && random_.in_use(no, sizes_[BLOCKS])) {
        *held = use_extent(&extent);
    }
    return extent;
}

Held SampleCache::use_extent(tier_extent_t *extent)
{
    const CachedFile &file = files_[file_];
    const uint64_t block_size = sizes_[BLOCK_SIZE];
    const uint64_t rest = file.size - block_ * block_size;
    const uint64_t length = std::min(rest, block_size);
    const uint64_t pages = tier_round_up(length, SIZE_4K) / SIZE_4K;
    /* Some blocks lack their first pages, but not all that the bitmap has bits for. */
    const uint64_t first =
        random_.one_in(4) ? random_.below(std::min(pages, std::max<uint64_t>(1, bitmap_pages())))
                          : 0;

    extent->te_use = 1;
    extent->te_block = block_;
    extent->te_size = length - first * SIZE_4K;
    extent->te_inode_no = file.inode_no;
    extent->te_sampling_low = file.identity;
    extent->te_sampling_mid = static_cast<uint32_t>(random_.below(1000));
    extent->te_sampling_high = static_cast<uint32_t>(random_.below(1000));
    extent->te_clean = random_.one_in(4) ? 0 : 1;
    extent->te_ntime = static_cast<uint32_t>(file.atime / NANOSECONDS);
    extent->te_hot = random_.below(10000);

    block_++;
    if (length == rest) {
        file_++;
        block_ = 0;
    }
    return {first, pages, length};
}

uint64_t SampleCache::bitmap_pages() const
{
    return (sizes_[EXTENT_SIZE] - sizeof(tier_extent_t)) / sizeof(uint64_t) * PAGES_A_WORD;
}

void SampleCache::hold(uint8_t *slot, uint64_t begin, uint64_t end) const
{
    uint8_t *bitmap = slot + sizeof(tier_extent_t);
    for (uint64_t page = begin; page < std::min(end, bitmap_pages()); page++) {
        uint8_t &byte = bitmap[page / 8]; /* words are stored low byte first */
        byte = static_cast<uint8_t>(byte | (1U << (page % 8)));
    }
}

} // namespace tierctl
