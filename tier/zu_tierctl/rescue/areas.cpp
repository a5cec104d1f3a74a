#include "zu_tierctl/rescue/areas.h"

#include "common/zutr_crc32.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fmt/format.h>

namespace tierctl {

namespace {

constexpr int64_t AREA_START = TIER_SB_AREA_SIZE + SIZE_4K; /* of the bricks */
constexpr int64_t INODES_FIRST = AREA_START + SIZE_4K;
constexpr int64_t INODES_LAST = AREA_START + int64_t{TIER_BRICK_CNT_MAX} * SIZE_4K;

/* The extents begin before this offset. */
constexpr int64_t HEAD_END = INODES_LAST + int64_t{TIER_INODE_CNT_MAX} * SIZE_4K + SIZE_1M;

constexpr uint64_t BLOCKS_A_MIB = SIZE_1M / SIZE_4K;
constexpr uint64_t QUIET_BLOCKS = 2 * BLOCKS_A_MIB; /* without an extent: the table has ended */
constexpr uint64_t PEEK_BLOCKS = 4; /* of each MiB where nothing is expected any more */
constexpr uint64_t PEEKS_MAX = 65536;

/* Bounds for what a hostile device may make us keep. */
constexpr size_t TRACES_MAX = 64;
constexpr size_t NUMBERED_MAX = 1024;
constexpr size_t SIZES_MAX = 4096;
constexpr size_t OWNERS_MAX = 500000;
constexpr size_t SAMPLES_MAX = 1024;

/* All lengths of a slot are tried up to so many times, and no more once so many extents of one
 * length have been found at its place. */
constexpr uint64_t LENGTH_SEARCHES_MAX = 20000;
constexpr uint64_t LENGTH_KNOWN = 64;

const tier_table &row_of(const tier_layout &layout, std::string_view name)
{
    return **std::ranges::find(layout.tables, name, &tier_table::name);
}

/* Reads the tables block by block. */
class AreaSurvey {
public:
    AreaSurvey(const Device &device, const tier_layout &layout)
        : device_(device), brick_(row_of(layout, "brick")), inode_(row_of(layout, "inode")),
          strangers_(layout), facts_(device)
    {
    }

    AreaFacts run()
    {
        int64_t offset = read_on(AREA_START);
        const auto mib = int64_t{SIZE_1M};
        offset = (offset + mib - 1) / mib * mib;
        for (uint64_t peeks = 0; offset < peek_end() && peeks < PEEKS_MAX && !is_strange();
             peeks++) {
            if (peek(offset)) {
                offset = read_on(offset + int64_t{PEEK_BLOCKS} * SIZE_4K);
                offset = (offset + mib - 1) / mib * mib;
            } else {
                offset += mib;
            }
        }
        return std::move(facts_);
    }

private:
    /* Reads on until the tables seem to have ended, and gives where. */
    int64_t read_on(int64_t offset)
    {
        int64_t next = offset;
        quiet_ = 0;
        read_blocks(device_, offset, UINT64_MAX / SIZE_4K, [&](int64_t at, const uint8_t *block) {
            look(at, block);
            next = at + SIZE_4K;
            return next < read_end() && !is_strange() &&
                   (facts_.extents.empty() || quiet_ < QUIET_BLOCKS);
        });
        return next;
    }

    /* Whether an extent lies in the first blocks of a MiB. */
    bool peek(int64_t offset)
    {
        quiet_ = 0;
        read_blocks(device_, offset, PEEK_BLOCKS, [&](int64_t at, const uint8_t *block) {
            look(at, block);
            return true;
        });
        return quiet_ < PEEK_BLOCKS && offset < static_cast<int64_t>(device_.size());
    }

    /* Whether all that was found is of other layouts. */
    bool is_strange() const
    {
        return strangers_.are_many() && facts_.bricks.sound == 0 && facts_.inodes.empty() &&
               facts_.extents.empty();
    }

    int64_t read_end() const { return facts_.extents.empty() ? HEAD_END : peek_end(); }

    /* Where the extents must end for their blocks to lie on the device. */
    int64_t peek_end() const
    {
        const auto *best = best_extents(facts_);
        const auto size = static_cast<int64_t>(facts_.device_size);
        const int64_t start = best == nullptr ? HEAD_END : best->first.first;
        uint64_t block = TIER_BLOCK_SIZE_MIN;
        if (best != nullptr) {
            block = std::clamp<uint64_t>(best->second.size.second, block, TIER_BLOCK_SIZE_MAX);
        }
        return start >= size
                   ? size
                   : start + (size - start) / (static_cast<int64_t>(block) + SIZE_4K) * SIZE_4K;
    }

    void look(int64_t at, const uint8_t *block)
    {
        quiet_++;
        facts_.states.set(at, state_of(at, block));
    }

    BlockState state_of(int64_t at, const uint8_t *block)
    {
        if (block == nullptr) {
            return BlockState::unreadable;
        }
        if (is_zero(block)) {
            return BlockState::zero;
        }
        if (is_brick(at, block)) {
            return BlockState::brick;
        }
        if (is_inode(at, block)) {
            return BlockState::inode;
        }
        if (is_extent(at, block)) {
            return BlockState::extent;
        }
        strangers_.look(block);
        return BlockState::other;
    }

    bool is_brick(int64_t at, const uint8_t *block)
    {
        const auto no = static_cast<uint64_t>(at - AREA_START) / SIZE_4K;
        if (no >= TIER_BRICK_CNT_MAX || brick_.number.get(block) != no ||
            !is_sound(brick_, block, sizeof(tier_brick_info_t))) {
            return false;
        }
        facts_.bricks.add(no);
        return true;
    }

    bool is_inode(int64_t at, const uint8_t *block)
    {
        const uint64_t no = inode_.number.get(block);
        const int64_t start = at - static_cast<int64_t>(no * SIZE_4K);
        if (start < INODES_FIRST || start > INODES_LAST || no >= TIER_INODE_CNT_MAX) {
            return false;
        }
        if (!is_sound(inode_, block, sizeof(tier_inode_t))) {
            if (no != 0 || inode_.magic.get(block) == inode_.magic_value) {
                facts_.inodes[start].add_known(no);
            }
            return false;
        }
        facts_.inodes[start].add(no);
        const auto *inode = reinterpret_cast<const tier_inode_t *>(block);
        if (inode->i_use != 0) {
            facts_.file_sizes[start][inode->i_no] = inode->i_size;
            facts_.brick_numbers[start].add(inode->i_brick_no);
        }
        return true;
    }

    bool is_extent(int64_t at, const uint8_t *block)
    {
        const auto *extent = reinterpret_cast<const tier_extent_t *>(block);
        const uint64_t no = extent->te_reserved1;
        if (no > static_cast<uint64_t>(at) / SIZE_4K || is_entry_elsewhere(block)) {
            return false;
        }
        const int64_t start = at - static_cast<int64_t>(no * SIZE_4K);
        if (start % SIZE_1M != 0 || start <= INODES_FIRST || start > HEAD_END) {
            return false;
        }
        const uint32_t length = length_of(start, block);
        if (length == 0) {
            add_numbered(start, no);
            return false;
        }
        quiet_ = 0;
        add_extent(&facts_.extents[{start, length}], *extent, length, block);
        return true;
    }

    /* A brick or inode at a place where it does not belong. */
    bool is_entry_elsewhere(const uint8_t *block) const
    {
        return brick_.magic.get(block) == brick_.magic_value ||
               inode_.magic.get(block) == inode_.magic_value;
    }

    /* A number of 0 is in many blocks that are no extent 0. */
    void add_numbered(int64_t start, uint64_t no)
    {
        if (no == 0) {
            return;
        }
        if (facts_.numbered_extents.size() < NUMBERED_MAX ||
            facts_.numbered_extents.contains(start)) {
            facts_.numbered_extents[start].add_known(no);
            quiet_ = 0;
        }
    }

    /* The length of the record by its checksum; 0: there is none. */
    uint32_t length_of(int64_t start, const uint8_t *block)
    {
        uint64_t known = 0;
        for (const auto &[key, trace] : facts_.extents) {
            if (stored_crc(block) == tier_crc(block, key.second)) {
                return facts_.extents.size() < TRACES_MAX ||
                               facts_.extents.contains({start, key.second})
                           ? key.second
                           : 0;
            }
            known = std::max(known, key.first == start ? trace.sound : 0);
        }
        if (known >= LENGTH_KNOWN || facts_.extents.size() >= TRACES_MAX ||
            searches_++ >= LENGTH_SEARCHES_MAX) {
            return 0;
        }
        return search_length(block);
    }

    static uint32_t stored_crc(const uint8_t *block)
    {
        uint32_t crc = 0;
        memcpy(&crc, block, sizeof(crc));
        return crc;
    }

    /* The shortest length under which the checksum is right. */
    static uint32_t search_length(const uint8_t *block)
    {
        const auto &way = ZUTR_CRC32_WAYS.back();
        const uint32_t wanted = ~stored_crc(block);
        uint32_t state = way.update(UINT32_MAX, block + TIER_CHECKSUM_SIZE,
                                    TIER_EXTENT_SIZE_MIN - TIER_CHECKSUM_SIZE);
        for (uint32_t length = TIER_EXTENT_SIZE_MIN; length < TIER_EXTENT_SIZE_MAX; length++) {
            if (state == wanted) {
                return length;
            }
            state = way.update(state, block + length, 1);
        }
        return state == wanted ? TIER_EXTENT_SIZE_MAX : 0;
    }

    static void add_extent(ExtentTrace *to, const tier_extent_t &extent, uint32_t length,
                           const uint8_t *block)
    {
        to->add(extent.te_reserved1);
        if (extent.te_use == 0) {
            return;
        }
        to->in_use++;
        to->size.add(extent.te_size);
        to->inode.add(extent.te_inode_no);
        to->pages.add(bitmap_end(block, length));
        if (to->sizes.size() < SIZES_MAX || to->sizes.contains(extent.te_size)) {
            to->sizes[extent.te_size]++;
        }
        if (to->blocks.size() < OWNERS_MAX || to->blocks.contains(extent.te_inode_no)) {
            uint32_t &last = to->blocks[extent.te_inode_no];
            last = std::max(last, extent.te_block);
        }
        if (to->samples.size() < SAMPLES_MAX) {
            memcpy(to->samples.emplace_back().data(), block, SIZE_4K);
        }
    }

    const Device &device_;
    const tier_table &brick_;
    const tier_table &inode_;
    Strangers strangers_;
    AreaFacts facts_;
    uint64_t quiet_ = 0; /* blocks since the last that may be an extent */
    uint64_t searches_ = 0;
};

} // namespace

void LargestTwo::add(uint64_t value)
{
    if (value > first) {
        second = std::exchange(first, value);
    } else {
        second = std::max(second, value);
    }
}

AreaFacts::AreaFacts(const Device &device) : device_size(device.size()), states(AREA_START) {}

AreaFacts survey_areas(const Device &device, const tier_layout &layout)
{
    return AreaSurvey(device, layout).run();
}

uint64_t bitmap_end(const uint8_t *block, uint32_t length)
{
    for (uint32_t word = (length - TIER_EXTENT_SIZE_MIN) / 8; word > 0; word--) {
        uint64_t bits = 0;
        memcpy(&bits, block + TIER_EXTENT_SIZE_MIN + (word - 1) * 8, sizeof(bits));
        if (bits != 0) {
            return uint64_t{word} * 64 - static_cast<uint64_t>(std::countl_zero(bits));
        }
    }
    return 0;
}

const ExtentTraces::value_type *best_extents(const AreaFacts &facts)
{
    const auto best = std::ranges::max_element(
        facts.extents, {}, [](const auto &trace) { return trace.second.sound; });
    return best == facts.extents.end() ? nullptr : &*best;
}

} // namespace tierctl
