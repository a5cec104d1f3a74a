#include "zu_tier/format/v3.h"
#include "zu_tierctl/rescue/rescue.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <cstring>
#include <fmt/format.h>

namespace tierctl {

/* The super block of layout V3. Its tables may lie anywhere. */

namespace {

constexpr int64_t TABLES_START = TIER_SUPER_OFFSET + TIER_SB_AREA_SIZE_V3;
constexpr auto MIB = int64_t{SIZE_1M};

/* Blocks without an entry after which the tables seem to have ended: before the extents, where the
 * hot table lies, and after some of them. */
constexpr uint64_t QUIET_BEFORE_EXTENTS = 16384;
constexpr uint64_t QUIET_AFTER_EXTENTS = 64;

/* Then a few blocks of each MiB are looked at. */
constexpr uint64_t PEEK_BLOCKS = 4;
constexpr int64_t PEEK_BYTES = 4096 * MIB;
constexpr int64_t PEEK_BYTES_MIN = 8 * MIB;

constexpr size_t SHARD_BLOCKS_MAX = TIER_SHARD_CNT_MAX_V3 / TIER_PACKED_SLOTS_V3;
constexpr size_t OWNERS_MAX = TIER_INODE_CNT_MAX_V3;
constexpr uint64_t REFERENCES_TRIED = 4096;
constexpr int64_t REFERENCES_MIN = 64;
constexpr int64_t REFERENCES_TIMES = 4; /* as many as at the next place */

constexpr uint64_t EXTENTS_WEIGHT = 8; /* as many blocks as extents fill the device */
constexpr uint64_t USUAL_WEIGHT = 2;
constexpr uint64_t WHOLE_WEIGHT = 1;

using UsedWords = std::bitset<TIER_PACKED_SLOTS_V3>;

struct Facts {
    uint64_t device_size;
    BlockStates states{TABLES_START};
    Traces bricks;
    Traces inodes;
    std::map<int64_t, std::map<uint64_t, uint64_t>> file_sizes; /* of inodes in use, by number */
    std::map<int64_t, LargestTwo> brick_numbers;                /* that these refer to */
    std::map<int64_t, UsedWords> shards;       /* which words of a sound block are in use */
    std::map<uint64_t, uint64_t> last_indexes; /* of each inode's shards */
    std::vector<bool> references = std::vector<bool>(TIER_SHARD_CNT_MAX_V3); /* to shards */
    uint64_t extent_blocks = 0;
    int64_t first_extents = 0;
    int64_t last_extents = 0;
};

const tier_table &row_of(const tier_layout &layout, std::string_view name)
{
    return **std::ranges::find(layout.tables, name, &tier_table::name);
}

class Survey {
public:
    Survey(const Device &device, const tier_layout &layout)
        : device_(device), brick_(row_of(layout, "brick")), inode_(row_of(layout, "inode")),
          shard_(row_of(layout, "shard")), extent_(row_of(layout, "extent")),
          strangers_(layout), facts_{.device_size = device.size(),
                                     .bricks = {},
                                     .inodes = {},
                                     .file_sizes = {},
                                     .brick_numbers = {},
                                     .shards = {},
                                     .last_indexes = {}}
    {
    }

    Facts run()
    {
        int64_t offset = read_on(TABLES_START);
        while (offset < peek_end() && !is_strange()) {
            quiet_ = 0;
            read_blocks(device_, offset, PEEK_BLOCKS, [this](int64_t at, const uint8_t *block) {
                look(at, block);
                return true;
            });
            const bool found = quiet_ < PEEK_BLOCKS;
            offset = found ? read_on(offset + int64_t{PEEK_BLOCKS} * SIZE_4K) : offset + MIB;
            offset = (offset + MIB - 1) / MIB * MIB;
        }
        return std::move(facts_);
    }

private:
    int64_t read_on(int64_t offset)
    {
        int64_t next = offset;
        quiet_ = 0;
        read_blocks(device_, offset, UINT64_MAX / SIZE_4K, [&](int64_t at, const uint8_t *block) {
            look(at, block);
            next = at + SIZE_4K;
            return !is_strange() && quiet_ < (facts_.extent_blocks == 0 ? QUIET_BEFORE_EXTENTS
                                                                        : QUIET_AFTER_EXTENTS);
        });
        return (next + MIB - 1) / MIB * MIB;
    }

    /* Whether all that was found is of other layouts. */
    bool is_strange() const
    {
        return strangers_.are_many() && facts_.bricks.empty() && facts_.inodes.empty() &&
               facts_.shards.empty() && facts_.extent_blocks == 0;
    }

    int64_t peek_end() const
    {
        const int64_t length = facts_.last_extents - facts_.first_extents;
        const int64_t end = facts_.extent_blocks == 0
                                ? TABLES_START + PEEK_BYTES
                                : facts_.last_extents + std::max(length, PEEK_BYTES_MIN);
        return std::min(end, static_cast<int64_t>(facts_.device_size));
    }

    void look(int64_t at, const uint8_t *block)
    {
        quiet_++;
        const BlockState state = state_of(at, block);
        facts_.states.set(at, state);
        if (state >= BlockState::brick) {
            quiet_ = 0;
        }
    }

    BlockState state_of(int64_t at, const uint8_t *block)
    {
        if (block == nullptr) {
            return BlockState::unreadable;
        }
        if (is_zero(block)) {
            return BlockState::zero;
        }
        if (is_sound(brick_, block, sizeof(tier_brick_info_t))) {
            add(brick_, at, block, TIER_BRICK_CNT_MAX_V3, &facts_.bricks);
            return BlockState::brick;
        }
        if (is_sound(inode_, block, sizeof(tier_inode_t))) {
            add_inode(at, block);
            return BlockState::inode;
        }
        if (is_sound(shard_, block, SIZE_4K)) {
            add_shards(at, block);
            return BlockState::shard;
        }
        if (is_sound(extent_, block, SIZE_4K)) {
            add_extents(at, block);
            return BlockState::extent;
        }
        strangers_.look(block);
        return BlockState::other;
    }

    static bool add(const tier_table &row, int64_t at, const uint8_t *block, uint64_t max,
                    Traces *to)
    {
        const uint64_t no = row.number.get(block);
        const int64_t start = at - static_cast<int64_t>(no * SIZE_4K);
        if (no >= max || start < TABLES_START) {
            return false;
        }
        (*to)[start].add(no);
        return true;
    }

    void add_inode(int64_t at, const uint8_t *block)
    {
        const auto *inode = reinterpret_cast<const tier_inode_t *>(block);
        if (add(inode_, at, block, TIER_INODE_CNT_MAX_V3, &facts_.inodes) && inode->i_use != 0) {
            const int64_t start = at - static_cast<int64_t>(uint64_t{inode->i_no} * SIZE_4K);
            facts_.file_sizes[start][inode->i_no] = inode->i_size;
            facts_.brick_numbers[start].add(inode->i_brick_no);
        }
    }

    void add_shards(int64_t at, const uint8_t *block)
    {
        if (facts_.shards.size() >= 2 * SHARD_BLOCKS_MAX) {
            return;
        }
        UsedWords &used = facts_.shards[at];
        for (uint32_t k = 1; k < TIER_PACKED_SLOTS_V3; k++) {
            uint64_t word = 0;
            memcpy(&word, block + k * sizeof(word), sizeof(word));
            if (SHARD_IN_USE_V3.get(word) != 0) {
                used.set(k);
                uint64_t &index = facts_.last_indexes[SHARD_INO_V3.get(word)];
                index = std::max(index, SHARD_INDEX_V3.get(word));
            }
        }
    }

    void add_extents(int64_t at, const uint8_t *block)
    {
        facts_.first_extents = facts_.extent_blocks == 0 ? at : facts_.first_extents;
        facts_.last_extents = at;
        facts_.extent_blocks++;
        for (uint32_t k = 0; k < TIER_PACKED_SLOTS_V3; k++) {
            uint64_t word = 0;
            memcpy(&word, block + k * sizeof(word), sizeof(word));
            if (EXTENT_IN_USE_V3.get(word) != 0) {
                facts_.references[EXTENT_SHARD_V3.get(word)] = true;
            }
        }
    }

    const Device &device_;
    const tier_table &brick_;
    const tier_table &inode_;
    const tier_table &shard_;
    const tier_table &extent_;
    Strangers strangers_;
    Facts facts_;
    uint64_t quiet_ = 0;
};

/* The numbers in the making. */
class Reader {
public:
    Reader(const Facts &facts, Readings *to)
        : facts_(facts), to_(*to), bricks_(best_trace(facts.bricks)),
          inodes_(best_trace(facts.inodes))
    {
    }

    tier_super_block_v3_t run()
    {
        find_grid();
        count_losses();
        read_super_area();
        read_bricks();
        read_inodes();
        read_shards();
        read_extents();
        read_hot_table();
        read_data();
        return super_;
    }

    uint64_t explained() const
    {
        return sound(bricks_) + sound(inodes_) + facts_.shards.size() + facts_.extent_blocks;
    }
    std::string explained_text() const
    {
        return fmt::format("{} bricks, {} inodes, {} blocks of shards, {} of extents",
                           sound(bricks_), sound(inodes_), facts_.shards.size(),
                           facts_.extent_blocks);
    }

private:
    static uint64_t sound(const BestTrace &trace)
    {
        return trace.best == nullptr ? 0 : trace.best->second.sound;
    }

    static int64_t as_offset(uint64_t value) { return static_cast<int64_t>(value); }

    /* Whether all tables seem to begin at multiples of 1 MiB. */
    void find_grid()
    {
        grid_ = (bricks_.best != nullptr || inodes_.best != nullptr) &&
                (bricks_.best == nullptr || bricks_.best->first % MIB == 0) &&
                (inodes_.best == nullptr || inodes_.best->first % MIB == 0);
    }

    /* Of all blocks from the first entry of a kind to the last. */
    void count_losses()
    {
        for (const BestTrace &trace : {bricks_, inodes_}) {
            if (trace.best != nullptr) {
                entries_ += trace.best->second.last + 1;
            }
        }
        if (!facts_.shards.empty()) {
            entries_ += blocks_between(facts_.shards.begin()->first, facts_.shards.rbegin()->first);
        }
        if (facts_.extent_blocks != 0) {
            entries_ += blocks_between(facts_.first_extents, facts_.last_extents);
        }
        lost_ = entries_ - std::min(entries_, explained());
    }

    static uint64_t blocks_between(int64_t first, int64_t last)
    {
        return static_cast<uint64_t>(last - first) / SIZE_4K + 1;
    }

    /* Where an area begins that follows one that ends there. */
    uint64_t after(uint64_t end) const { return grid_ ? tier_round_up(end, SIZE_1M) : end; }

    /* The first entry of a later table after an offset, or the end of the device. */
    int64_t next_table(int64_t offset) const
    {
        int64_t next = as_offset(facts_.device_size);
        const auto take = [&](int64_t start) {
            if (start > offset && start < next) {
                next = start;
            }
        };
        if (bricks_.best != nullptr) {
            take(bricks_.best->first);
        }
        if (inodes_.best != nullptr) {
            take(inodes_.best->first);
        }
        if (!facts_.shards.empty()) {
            take(facts_.shards.begin()->first);
        }
        if (facts_.extent_blocks != 0) {
            take(facts_.first_extents);
        }
        return next;
    }

    /* Whether nothing but zeros follows a table up to the next MiB. */
    bool is_clean_after(int64_t end) const
    {
        return facts_.states.are_zero(end, std::min(next_table(end), end / MIB * MIB + MIB));
    }

    Certainty end_of(int64_t end) const
    {
        return end_certainty(entries_, lost_, is_clean_after(end));
    }

    void read_super_area()
    {
        super_.sb_sb_offset = to_.add("sb_offset", Certainty::likely, uint64_t{TIER_SUPER_OFFSET},
                                      "where the super block lies");
        super_.sb_sb_size = to_.add("super block size", Certainty::certain,
                                    uint64_t{TIER_SB_AREA_SIZE_V3}, "the layout has no other");
        const int64_t first = next_table(0);
        super_.sb_reserved_offset = to_.add("reserved_offset", Certainty::none,
                                            {value_of(TABLES_START, "after the super block area"),
                                             {0, facts_.device_size, "no table says"}});
        super_.sb_reserved_size =
            to_.add("reserved_size", Certainty::none,
                    {value_of(static_cast<uint64_t>(first - TABLES_START), "up to the first table"),
                     {0, facts_.device_size, "no table says"}});
        super_.sb_reserved = static_cast<uint32_t>(
            to_.add("reserved", Certainty::likely,
                    {value_of(0, "usual"), {0, UINT32_MAX, "no table says"}}));
    }

    /* Where a table of numbered entries begins: `guess` if it has none. */
    uint64_t read_offset(std::string_view key, const BestTrace &trace, uint64_t guess)
    {
        if (trace.best == nullptr) {
            return to_.add(key, Certainty::none,
                           {value_of(guess, "no sound entry was found"),
                            {0, facts_.device_size, "no table says"}});
        }
        std::vector<Values> values;
        for (const auto *one : {trace.best, trace.next}) {
            if (one != nullptr) {
                values.push_back(value_of(
                    static_cast<uint64_t>(one->first),
                    fmt::format("{} sound entries have numbers from there on", one->second.sound)));
            }
        }
        if (trace.certainty != Certainty::certain) {
            values.push_back({0, facts_.device_size, "they may be strays"});
        }
        return to_.add(key, trace.certainty, std::move(values));
    }

    /* How many entries it has: at least as many as are known, and referred to. */
    uint64_t read_count(std::string_view key, uint64_t start, const BestTrace &trace,
                        uint64_t referred, uint64_t max)
    {
        const uint64_t known = trace.best == nullptr ? 1 : trace.best->second.last + 1;
        const auto next = static_cast<uint64_t>(next_table(as_offset(start)));
        const uint64_t room = next - std::min(next, start);
        const uint64_t most = std::max<uint64_t>(std::min(max, room / SIZE_4K), 1);
        const uint64_t least = std::min(std::max(known, referred), most);
        std::vector<Values> values = {value_of(
            least, referred > known ? fmt::format("entry {} is referred to", least - 1)
                                    : fmt::format("the last known entry is {}", least - 1))};
        Certainty certainty = Certainty::none;
        if (referred <= known && known <= most && trace.best != nullptr) {
            certainty = known == most
                            ? trace.certainty
                            : lower(trace.certainty, end_of(as_offset(start + known * SIZE_4K)));
        }
        if (known != most || least != most) {
            const bool is_placed = trace.certainty == Certainty::certain;
            values.push_back({is_placed ? std::min(known, most) : 1, is_placed ? most : max,
                              "what has room before the next table"});
        }
        return to_.add(key, certainty, std::move(values));
    }

    void read_bricks()
    {
        super_.sb_brick_table_offset =
            read_offset("brick_table_offset", bricks_, after(TABLES_START));
        uint64_t referred = 0;
        if (inodes_.best != nullptr && facts_.brick_numbers.contains(inodes_.best->first)) {
            referred = facts_.brick_numbers.at(inodes_.best->first).second + 1;
        }
        super_.sb_brick_table_cnt = read_count("brick_cnt", super_.sb_brick_table_offset, bricks_,
                                               referred, TIER_BRICK_CNT_MAX_V3);
        const uint64_t size = super_.sb_brick_table_cnt * SIZE_4K;
        const auto start = as_offset(super_.sb_brick_table_offset);
        super_.sb_brick_table_size =
            to_.add("brick_table_size", lower(Certainty::likely, to_.certainty("brick_cnt")),
                    {value_of(size, "4096 for each of brick_cnt"),
                     {size, static_cast<uint64_t>(next_table(start) - start), "it may be larger"}});
    }

    void read_inodes()
    {
        const uint64_t bricks_end = super_.sb_brick_table_offset + super_.sb_brick_table_size;
        super_.sb_inode_table_offset =
            read_offset("inode_table_offset", inodes_, after(bricks_end));
        LargestTwo owners;
        for (const auto &[owner, index] : facts_.last_indexes) {
            owners.add(owner);
        }
        const uint64_t referred = owners.second + 1;
        super_.sb_inode_table_cnt = read_count("inode_cnt", super_.sb_inode_table_offset, inodes_,
                                               referred, TIER_INODE_CNT_MAX_V3);
        super_.sb_inode_table_size =
            to_.add("inode_table_size", to_.certainty("inode_cnt"),
                    super_.sb_inode_table_cnt * SIZE_4K, "4096 for each of inode_cnt");
    }

    /* The shards that extents refer to, a part of them if there are many. */
    std::vector<uint64_t> referred_shards() const
    {
        std::vector<uint64_t> all;
        for (uint64_t no = 0; no < facts_.references.size(); no++) {
            if (facts_.references[no]) {
                all.push_back(no);
            }
        }
        const uint64_t step = all.size() / REFERENCES_TRIED + 1;
        std::vector<uint64_t> some;
        for (uint64_t i = 0; i < all.size(); i += step) {
            some.push_back(all[i]);
        }
        return some;
    }

    /* The table begins where the shards that extents refer to are in use. */
    void read_shards()
    {
        const uint64_t inodes_end =
            super_.sb_inode_table_offset +
            (inodes_.best == nullptr ? 1 : inodes_.best->second.last + 1) * SIZE_4K;
        const std::vector<uint64_t> referred = referred_shards();
        int64_t start = 0;
        if (facts_.shards.empty()) {
            start = as_offset(
                to_.add("shard_table_offset", Certainty::none,
                        {value_of(after(inodes_end), "no sound block of shards was found"),
                         {0, facts_.device_size, "no table says"}}));
        } else {
            start = read_shard_start(inodes_end, referred);
        }
        const int64_t last = facts_.shards.empty() ? start : facts_.shards.rbegin()->first;
        uint64_t blocks = last < start ? 1 : blocks_between(start, last);
        const uint64_t needed =
            referred.size() < 2 ? 0 : referred.end()[-2] / TIER_PACKED_SLOTS_V3 + 1;
        Certainty certainty = needed > blocks || facts_.shards.empty()
                                  ? Certainty::none
                                  : end_of(start + as_offset(blocks * SIZE_4K));
        const uint64_t known = blocks;
        const bool is_certain = to_.certainty("shard_table_offset") == Certainty::certain;
        blocks = std::clamp<uint64_t>(std::max(blocks, needed), 1, SHARD_BLOCKS_MAX);
        certainty = lower(certainty, to_.certainty("shard_table_offset"));
        super_.sb_shard_table_offset = static_cast<uint64_t>(start);
        const uint64_t count = blocks * TIER_PACKED_SLOTS_V3;
        super_.sb_shard_table_cnt = to_.add(
            "shard_table_cnt", certainty,
            {value_of(count, fmt::format("the last known block of shards is {}", blocks - 1)),
             {is_certain ? (known - 1) * TIER_PACKED_SLOTS_V3 + 1 : 1, TIER_SHARD_CNT_MAX_V3,
              "what the layout allows"}});
        super_.sb_shard_table_size =
            to_.add("shard_table_size", to_.certainty("shard_table_cnt"),
                    super_.sb_shard_table_cnt * TIER_PACKED_SIZE_V3, "8 for each of them");
    }

    int64_t read_shard_start(uint64_t inodes_end, const std::vector<uint64_t> &referred)
    {
        const int64_t first = facts_.shards.begin()->first;
        const int64_t lowest = std::max(TABLES_START, std::min(as_offset(inodes_end), first));
        const auto shifts = std::min<uint64_t>(blocks_between(lowest, first), SHARD_BLOCKS_MAX);
        References best;
        References next;
        for (uint64_t shift = 0; shift < shifts; shift++) {
            const References found = count_references(first - as_offset(shift * SIZE_4K), referred);
            if (found.score() > best.score()) {
                next = std::exchange(best, found);
            } else if (found.score() > next.score()) {
                next = found;
            }
        }
        const bool on_grid = grid_ && first / MIB * MIB >= lowest;
        std::vector<Values> values = {
            on_grid ? value_of(static_cast<uint64_t>(first / MIB * MIB),
                               "a multiple of 1 MiB, as the others")
                    : value_of(static_cast<uint64_t>(first), "the first sound block of shards"),
            {static_cast<uint64_t>(lowest), static_cast<uint64_t>(first),
             "from the inodes to the first sound block"}};
        Certainty certainty = on_grid ? Certainty::likely : Certainty::none;
        if (best.score() >= REFERENCES_MIN && best.score() >= REFERENCES_TIMES * next.score()) {
            certainty = best.free == 0 && best.blocks > 1 ? Certainty::certain : Certainty::likely;
            values.insert(values.begin(),
                          value_of(static_cast<uint64_t>(best.start),
                                   fmt::format("of {} shards that extents refer to {} are in use "
                                               "then",
                                               best.used + best.free, best.used)));
        }
        return as_offset(to_.add("shard_table_offset", certainty, std::move(values)));
    }

    /* The shards that extents refer to and that lie in sound blocks, when the table begins at
     * `start`. */
    struct References {
        int64_t start = 0;
        int64_t used = 0;
        int64_t free = 0;
        uint64_t blocks = 0; /* in which they lie */

        /* Of the shards at a wrong place so many are in use that this is hardly above 0. */
        int64_t score() const { return used - 3 * free; }
    };

    References count_references(int64_t start, const std::vector<uint64_t> &referred) const
    {
        References found{.start = start};
        uint64_t last = UINT64_MAX;
        for (const uint64_t no : referred) {
            const uint64_t block_no = no / TIER_PACKED_SLOTS_V3;
            const auto block = facts_.shards.find(start + as_offset(block_no * SIZE_4K));
            if (block == facts_.shards.end()) {
                continue;
            }
            (block->second.test(no % TIER_PACKED_SLOTS_V3) ? found.used : found.free)++;
            found.blocks += std::exchange(last, block_no) == block_no ? 0 : 1;
        }
        return found;
    }

    uint64_t shards_end() const
    {
        return super_.sb_shard_table_offset + super_.sb_shard_table_size;
    }

    void read_extents()
    {
        const uint64_t lowest = shards_end();
        if (facts_.extent_blocks == 0) {
            super_.sb_extent_table_offset =
                to_.add("extent_table_offset", Certainty::none,
                        {value_of(after(lowest), "no sound block of extents was found"),
                         {0, facts_.device_size, "no table says"}});
            super_.sb_extent_table_cnt =
                to_.add("extent_table_cnt", Certainty::none,
                        {value_of(TIER_PACKED_SLOTS_V3, "no sound block of extents was found"),
                         {1, TIER_EXTENT_CNT_MAX_V3, "what the layout allows"}});
        } else {
            const auto first = static_cast<uint64_t>(facts_.first_extents);
            const uint64_t on_grid = first / SIZE_1M * SIZE_1M;
            const bool moved = grid_ && on_grid >= lowest;
            super_.sb_extent_table_offset = to_.add(
                "extent_table_offset", moved ? Certainty::likely : Certainty::none,
                {value_of(moved ? on_grid : first, moved ? "a multiple of 1 MiB, as the others"
                                                         : "the first sound block of extents"),
                 {std::min(lowest, first), first, "from the shards to the first sound block"}});
            const uint64_t blocks =
                blocks_between(as_offset(super_.sb_extent_table_offset), facts_.last_extents);
            const uint64_t count = blocks * TIER_PACKED_SLOTS_V3;
            super_.sb_extent_table_cnt =
                to_.add("extent_table_cnt",
                        lower(to_.certainty("extent_table_offset"),
                              end_of(facts_.last_extents + int64_t{SIZE_4K})),
                        {value_of(count, fmt::format("{} blocks up to the last sound one", blocks)),
                         {count - TIER_PACKED_SLOTS_V3 + 1, TIER_EXTENT_CNT_MAX_V3,
                          "what the layout allows"}});
        }
        super_.sb_extent_table_size =
            to_.add("extent_table_size", to_.certainty("extent_table_cnt"),
                    super_.sb_extent_table_cnt * TIER_PACKED_SIZE_V3, "8 for each of them");
    }

    /* Its blocks say nothing. It lies between the shards and the extents. */
    void read_hot_table()
    {
        const uint64_t end = super_.sb_extent_table_offset;
        const uint64_t start = std::min(after(shards_end()), std::max(shards_end(), end));
        super_.sb_hot_table_offset = to_.add("hot_table_offset", Certainty::none,
                                             {value_of(start, "where the shards end"),
                                              {std::min(shards_end(), start), std::max(start, end),
                                               "from the shards to the extents"}});
        uint64_t last = super_.sb_hot_table_offset;
        for (uint64_t at = last; at < end; at += SIZE_4K) {
            const BlockState state = facts_.states.at(as_offset(at));
            last = state == BlockState::zero || state == BlockState::unread ? last : at + SIZE_4K;
        }
        const uint64_t room =
            std::max(end, super_.sb_hot_table_offset) - super_.sb_hot_table_offset;
        super_.sb_hot_table_size =
            to_.add("hot_table_size", Certainty::none,
                    {value_of(last - super_.sb_hot_table_offset, "up to the last that is not zero"),
                     {0, room, "up to the extents"}});
    }

    void read_data()
    {
        const uint64_t end = super_.sb_extent_table_offset + super_.sb_extent_table_size;
        const uint64_t size = facts_.device_size;
        super_.sb_block_area_offset = to_.add(
            "data_offset",
            grid_ ? lower(Certainty::likely, to_.certainty("extent_table_cnt")) : Certainty::none,
            {value_of(after(end), "where the extents end"),
             {std::min(end, size), size, "after the extents"}});
        space_ = size - std::min(size, super_.sb_block_area_offset);
        read_blocks();
        super_.sb_block_area_size = to_.add(
            "data_table_size", lower(to_.certainty("block_size"), to_.certainty("block_cnt")),
            super_.sb_block_size * super_.sb_block_cnt, "block_size times block_cnt");
    }

    /* A shard holds a block or more of its file, and begins before its end. */
    uint64_t largest_block() const
    {
        LargestTwo negative; /* the two smallest */
        const auto files = facts_.file_sizes.find(as_offset(super_.sb_inode_table_offset));
        if (files != facts_.file_sizes.end()) {
            for (const auto &[owner, index] : facts_.last_indexes) {
                const auto file = files->second.find(owner);
                if (index != 0 && file != files->second.end() && file->second != 0) {
                    negative.add(UINT64_MAX - (file->second - 1) / index);
                }
            }
        }
        return std::max<uint64_t>(
            TIER_BLOCK_SIZE_MIN_V3,
            std::min<uint64_t>(TIER_BLOCK_SIZE_MAX_V3, UINT64_MAX - negative.second));
    }

    void read_blocks()
    {
        struct Choice {
            uint64_t weight;
            uint64_t size;
            uint64_t count;
            std::string reason;
        };
        const uint64_t extents = super_.sb_extent_table_cnt;
        std::vector<Choice> choices;
        for (uint64_t size = TIER_BLOCK_SIZE_MIN_V3; size <= largest_block(); size += SIZE_4K) {
            Choice choice{0, size, space_ / size, "so many have room"};
            choice.weight += std::has_single_bit(size) ? USUAL_WEIGHT : 0;
            choice.weight += space_ % size == 0 ? WHOLE_WEIGHT : 0;
            if (extents * size == space_) {
                choice.weight += EXTENTS_WEIGHT;
                choice.reason = "as many as extents fill the device to its last byte";
            }
            choices.push_back(std::move(choice));
        }
        std::ranges::sort(choices, [](const Choice &a, const Choice &b) {
            return std::pair(a.weight, a.size) > std::pair(b.weight, b.size);
        });
        const Certainty certainty =
            choices.front().weight >= EXTENTS_WEIGHT
                ? lower(Certainty::likely, to_.certainty("extent_table_cnt"))
                : Certainty::none;
        std::vector<Values> sizes(choices.size());
        std::ranges::transform(choices, sizes.begin(), [](const Choice &choice) {
            return value_of(choice.size, choice.reason);
        });
        sizes.push_back({TIER_BLOCK_SIZE_MIN_V3, TIER_BLOCK_SIZE_MAX_V3,
                         "in steps of 4096: what the layout allows"});
        super_.sb_block_size = to_.add("block_size", certainty, std::move(sizes));
        const auto chosen = std::ranges::find(choices, super_.sb_block_size, &Choice::size);
        const uint64_t count =
            chosen == choices.end() ? space_ / super_.sb_block_size : chosen->count;
        super_.sb_block_cnt = to_.add("block_cnt", certainty,
                                      {value_of(count, choices.front().reason),
                                       {0, space_ / TIER_BLOCK_SIZE_MIN_V3, "what has room"}});
    }

    const Facts &facts_;
    Readings &to_;
    BestTrace bricks_;
    BestTrace inodes_;
    tier_super_block_v3_t super_{};
    bool grid_ = false;
    uint64_t entries_ = 0; /* blocks of entries, and how many of them are lost */
    uint64_t lost_ = 0;
    uint64_t space_ = 0; /* bytes for the data */
};

SuperReading read_v3(const tier_layout &layout, Remains &remains, const std::vector<Hint> &hints)
{
    const Facts &facts =
        remains.facts("v3", [&] { return Survey(remains.device(), layout).run(); });
    Readings readings(layout, hints);
    Reader reader(facts, &readings);
    tier_super_block_v3_t super = reader.run();
    super.sb_magic = TIER_SB_MAGIC_V3;
    super.sb_version = TIER_SB_VERSION_V3;
    SuperReading reading{.layout = &layout};
    reading.explained = reader.explained();
    reading.explained_text = reader.explained_text();
    memcpy(reading.block.data(), &super, sizeof(super));
    reading.numbers = readings.take();
    return reading;
}

} // namespace

constinit const RescueLayout RESCUE_LAYOUT_V3 = {"v3", read_v3};

} // namespace tierctl
