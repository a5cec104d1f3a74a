#include "zu_tierctl/rescue/areas.h"

#include "common/zutr_crc32.h"
#include "zu_tierctl/rescue/expansion.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace tierctl {

namespace {

constexpr int64_t INODES_FIRST = AREA_START + SIZE_4K;
constexpr int64_t INODES_LAST = AREA_START + int64_t{TIER_BRICK_CNT_MAX} * SIZE_4K;

/* The extents do not begin after this offset. */
constexpr int64_t EXTENTS_LAST = INODES_LAST + int64_t{TIER_INODE_CNT_MAX} * SIZE_4K + SIZE_1M;

/* After a gap so many MiB are looked at. */
constexpr int64_t PEEKS_MAX = 65536;

constexpr size_t SAMPLES_MAX = 128; /* of the extents of a trace */

/* All lengths of a record are tried until so many extents of one length have been found. */
constexpr uint64_t LENGTH_KNOWN = 64;

/* Reads the tables block by block. */
class AreaSurvey {
public:
    AreaSurvey(const BlockReader &blocks, const tier_layout &layout)
        : blocks_(blocks), brick_(row_of(layout, "brick")), inode_(row_of(layout, "inode")),
          end_(tables_end(blocks.device().size()))
    {
        facts_.device_size = blocks.device().size();
    }

    AreaFacts run()
    {
        int64_t offset = read_on(AREA_START);
        is_firm_ = false;
        const int64_t end = std::min({look_further(), end_, offset + PEEKS_MAX * MIB});
        while (offset < end) {
            reach_ = offset + PEEK_BYTES;
            offset = std::max(up_to_mib(read_on(offset)), offset + MIB);
        }
        return std::move(facts_);
    }

private:
    /* No table goes on after it, whatever the blocks have. */
    static int64_t tables_end(uint64_t device_size)
    {
        const uint64_t blocks = device_size / (TIER_BLOCK_SIZE_MIN + SIZE_4K);
        return std::min(EXTENTS_LAST + static_cast<int64_t>(blocks * SIZE_4K),
                        static_cast<int64_t>(device_size));
    }

    /* Reads on to where the data may begin, by what is found on the way, and gives where. */
    int64_t read_on(int64_t offset)
    {
        while (offset < std::min(reach_, end_)) {
            const int64_t end = std::min(reach_, end_);
            blocks_.read(offset, end,
                         [this](int64_t at, const uint8_t *block) { look(at, block); });
            offset = end;
        }
        return offset;
    }

    void look(int64_t at, const uint8_t *block)
    {
        const bool is_blank = block != nullptr && is_zero(block);
        facts_.blanks.add(at, is_blank);
        if (block == nullptr || is_blank) {
            return;
        }
        if (is_brick(at, block) || is_inode(at, block) || is_extent(at, block)) {
            reach_ = std::max(reach_, up_to_mib(at + SIZE_4K + int64_t{TIER_DATA_GAP}));
        }
    }

    bool is_brick(int64_t at, const uint8_t *block)
    {
        const auto no = static_cast<uint64_t>(at - AREA_START) / SIZE_4K;
        if (no >= TIER_BRICK_CNT_MAX || brick_.number.get(block) != no ||
            !is_sound(brick_, block, sizeof(tier_brick_info_t))) {
            return false;
        }
        facts_.bricks.add(no, is_firm_);
        return true;
    }

    bool is_inode(int64_t at, const uint8_t *block)
    {
        const uint64_t no = inode_.number.get(block);
        const int64_t start = at - static_cast<int64_t>(no * SIZE_4K);
        if (start < INODES_FIRST || start > INODES_LAST ||
            !is_sound(inode_, block, sizeof(tier_inode_t))) {
            return false;
        }
        Trace &trace = trace_at(&facts_.inodes, start);
        trace.add(no, is_firm_);
        const auto *inode = reinterpret_cast<const tier_inode_t *>(block);
        if (inode->i_use != 0) {
            trace.owner.add(inode->i_brick_no);
        }
        return true;
    }

    bool is_extent(int64_t at, const uint8_t *block)
    {
        const auto *extent = reinterpret_cast<const tier_extent_t *>(block);
        const uint64_t no = extent->te_reserved1;
        const auto place = static_cast<uint64_t>(at) / SIZE_4K;
        const int64_t start = at - static_cast<int64_t>(no * SIZE_4K);
        if (no > place || start % MIB != 0 || start < INODES_FIRST) {
            return false;
        }
        const uint32_t length = length_of(block);
        if (length == 0) {
            return false;
        }
        add_extent(&trace_at(&facts_.extents, {start, length}), *extent, block);
        return true;
    }

    /* The length of the record by its checksum; 0: there is none. */
    uint32_t length_of(const uint8_t *block)
    {
        uint32_t crc = 0;
        memcpy(&crc, block, sizeof(crc));
        uint64_t known = 0;
        for (const auto &[key, trace] : facts_.extents) {
            if (crc == tier_crc(block, key.second)) {
                return key.second;
            }
            known = std::max(known, trace.sound);
        }
        return known >= LENGTH_KNOWN ? 0 : search_length(block, ~crc);
    }

    /* The shortest length under which the checksum is right. */
    static uint32_t search_length(const uint8_t *block, uint32_t wanted)
    {
        const auto &way = ZUTR_CRC32_WAYS.back();
        uint32_t state = way.update(UINT32_MAX, block + TIER_CHECKSUM_SIZE,
                                    TIER_EXTENT_SIZE_MIN - TIER_CHECKSUM_SIZE);
        uint32_t length = TIER_EXTENT_SIZE_MIN;
        while (state != wanted && length < TIER_EXTENT_SIZE_MAX) {
            state = way.update(state, block + length++, 1);
        }
        return state == wanted ? length : 0;
    }

    void add_extent(ExtentTrace *to, const tier_extent_t &extent, const uint8_t *block) const
    {
        to->add(extent.te_reserved1, is_firm_);
        if (extent.te_use == 0) {
            return;
        }
        to->in_use++;
        to->owner.add(extent.te_inode_no);
        to->size.add(extent.te_size);
        if (is_block_size(extent.te_size)) {
            to->sizes[extent.te_size]++;
        }
        if (to->samples.size() < SAMPLES_MAX) {
            memcpy(to->samples.emplace_back().data(), block, SIZE_4K);
        }
    }

    /* Looks for inodes after the data when these do not fill the device, and gives where a table
     * ends whose blocks fill what is left. */
    int64_t look_further()
    {
        const auto *extents = Best(facts_.extents).best;
        if (extents == nullptr) {
            return EXTENTS_LAST;
        }
        DataArea area = {extents->first.first, facts_.device_size};
        const uint64_t known = extents->second.last + 1;
        const uint64_t held = least_block_size(extents->second);
        if (area.size_that_fills(known).value_or(0) >= held) {
            facts_.has_room = false;
            return 0;
        }
        const uint64_t end = area.offset(known) + known * held + SIZE_1M;
        facts_.has_room = end + TIER_EXP_CNT_MIN_V2 * uint64_t{SIZE_4K} <= area.end;
        if (facts_.has_room) {
            facts_.expansion = find_expansion(blocks_.device(), inode_, facts_, *extents,
                                              static_cast<int64_t>(end));
        }
        if (facts_.expansion) {
            area.end = facts_.expansion->data_end();
        }
        return area.start + static_cast<int64_t>(area.most_blocks(held) * SIZE_4K);
    }

    const BlockReader &blocks_;
    const tier_table &brick_;
    const tier_table &inode_;
    AreaFacts facts_;
    int64_t end_;
    int64_t reach_ = HEAD_END; /* the tables, or what follows them, go on up to there */
    bool is_firm_ = true;      /* so far nothing that was read can be data */
};

} // namespace

AreaFacts survey_areas(const BlockReader &blocks, const tier_layout &layout)
{
    return AreaSurvey(blocks, layout).run();
}

std::pair<uint64_t, uint64_t> inode_bounds(int64_t inodes, int64_t extents)
{
    const auto room = static_cast<uint64_t>(std::max(extents - inodes, int64_t{SIZE_4K})) / SIZE_4K;
    return {room - std::min(room, SLOTS_A_MIB) + 1, room};
}

uint64_t least_block_size(const ExtentTrace &extents)
{
    return tier_round_up(
        std::clamp<uint64_t>(extents.size.second, TIER_BLOCK_SIZE_MIN, TIER_BLOCK_SIZE_MAX),
        SIZE_4K);
}

uint64_t DataArea::offset(uint64_t blocks) const
{
    return tier_round_up(static_cast<uint64_t>(start) + blocks * SIZE_4K + TIER_DATA_GAP, SIZE_1M);
}

uint64_t DataArea::most_blocks(uint64_t size) const
{
    const auto from = static_cast<uint64_t>(start);
    uint64_t blocks = end <= from ? 0 : (end - from) / (size + SIZE_4K);
    while (blocks > 0 && offset(blocks) + blocks * size > end) {
        blocks--;
    }
    return blocks;
}

std::optional<uint64_t> DataArea::size_that_fills(uint64_t blocks) const
{
    const uint64_t rest = end - std::min(end, offset(blocks));
    const uint64_t size = rest / blocks;
    return rest % blocks == 0 && is_block_size(size) ? std::optional(size) : std::nullopt;
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

} // namespace tierctl
