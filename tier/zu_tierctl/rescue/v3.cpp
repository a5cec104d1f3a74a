#include "zu_tier/format/v3.h"
#include "zu_tierctl/rescue/rescue.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>

namespace tierctl {

/* The super block of layout V3. Its tables may lie anywhere, so that nothing they say of their
 * places is certain: what looks like a table may be a file that the cache holds. */

namespace {

/* Bytes without an entry after which the tables seem to have ended: before the extents, where the
 * hot table lies. Then a few blocks of each MiB are looked at. */
constexpr int64_t QUIET_BYTES = 64 * MIB;
constexpr int64_t PEEK_END = 4096 * MIB;

/* Blocks that the extents have at most. */
constexpr uint64_t EXTENT_BLOCKS_MAX = TIER_EXTENT_CNT_MAX_V3 / TIER_PACKED_SLOTS_V3;

uint64_t blocks_between(int64_t first, int64_t last)
{
    return static_cast<uint64_t>(last - first) / SIZE_4K + 1;
}

/* The sound blocks of packed entries. */
struct PackedTrace {
    uint64_t blocks = 0;
    int64_t first = 0;
    int64_t last = 0;
    int64_t gap = 0;  /* the last before the first MiB without one; 0: there is no such MiB */
    LargestTwo owner; /* numbers of the entries that those in use belong to */

    bool any() const { return blocks != 0; }

    /* All from the first to the last, damaged ones included. */
    uint64_t span() const { return any() ? blocks_between(first, last) : 0; }

    void add(int64_t at, const uint8_t *block, uint32_t first_word, const tier_bits &in_use,
             const tier_bits &refers_to)
    {
        first = any() ? first : at;
        gap = any() && gap == 0 && at - last > MIB ? last : gap;
        last = at;
        blocks++;
        for (uint32_t k = first_word; k < TIER_PACKED_SLOTS_V3; k++) {
            uint64_t word = 0;
            memcpy(&word, block + k * sizeof(word), sizeof(word));
            if (in_use.get(word) != 0) {
                owner.add(refers_to.get(word));
            }
        }
    }
};

/* The size of blocks with which as many as the extents fill so many bytes; 0: none. */
uint64_t size_that_fills(uint64_t extents, uint64_t bytes)
{
    const uint64_t size = bytes / extents;
    return size * extents == bytes && size % SIZE_4K == 0 && size >= TIER_BLOCK_SIZE_MIN_V3 &&
                   size <= TIER_BLOCK_SIZE_MAX_V3
               ? size
               : 0;
}

struct Facts {
    uint64_t device_size = 0;
    Blanks blanks{};
    Traces bricks{};
    Traces inodes{};
    PackedTrace shards{};
    PackedTrace extents{};
};

/* Reads the tables once, in their order: what looks like one after the extents is data. */
class Survey {
public:
    Survey(const BlockReader &blocks, const tier_layout &layout)
        : blocks_(blocks), brick_(row_of(layout, "brick")), inode_(row_of(layout, "inode")),
          shard_(row_of(layout, "shard")), extent_(row_of(layout, "extent"))
    {
        facts_.device_size = blocks.device().size();
    }

    Facts run()
    {
        int64_t offset = read_on(HEAD_START);
        while (offset < peek_end()) {
            reach_ = offset + PEEK_BYTES;
            offset = std::max(up_to_mib(read_on(offset)), offset + MIB);
        }
        return std::move(facts_);
    }

private:
    /* Reads on, a MiB at a time, while entries are found, and gives where it ended. */
    int64_t read_on(int64_t offset)
    {
        while (offset < std::min(reach_, static_cast<int64_t>(facts_.device_size))) {
            const int64_t end = std::min(reach_, down_to_mib(offset) + MIB);
            blocks_.read(offset, end,
                         [this](int64_t at, const uint8_t *block) { look(at, block); });
            offset = end;
        }
        return offset;
    }

    /* Where a table may go on: behind the end of a MiB, and after a gap to where the smallest
     * blocks, as many as extents, fill the device; not when those that are known fill it. */
    int64_t peek_end() const
    {
        const PackedTrace &extents = facts_.extents;
        int64_t end = PEEK_END;
        if (extents.any()) {
            const int64_t start = down_to_mib(extents.first);
            const auto data = static_cast<uint64_t>(up_to_mib(extents.last + SIZE_4K));
            const uint64_t count = blocks_between(start, extents.last) * TIER_PACKED_SLOTS_V3;
            const uint64_t bytes = facts_.device_size - std::min(facts_.device_size, data);
            const uint64_t most = bytes / (TIER_PACKED_SLOTS_V3 * TIER_BLOCK_SIZE_MIN_V3);
            if (size_that_fills(count, bytes) != 0) {
                return 0;
            }
            end =
                std::max(extents.last + 2 * int64_t{SIZE_4K},
                         start + static_cast<int64_t>(std::min(most, EXTENT_BLOCKS_MAX) * SIZE_4K));
        }
        return std::min(end, static_cast<int64_t>(facts_.device_size));
    }

    void look(int64_t at, const uint8_t *block)
    {
        const bool is_blank = block != nullptr && is_zero(block);
        facts_.blanks.add(at, is_blank);
        if (block == nullptr || is_blank) {
            return;
        }
        if (is_sound(extent_, block, SIZE_4K)) {
            facts_.extents.add(at, block, 0, EXTENT_IN_USE_V3, EXTENT_SHARD_V3);
            reach_ = up_to_mib(at + SIZE_4K);
        } else if (!facts_.extents.any() && is_entry(at, block)) {
            reach_ = at + QUIET_BYTES;
        }
    }

    bool is_entry(int64_t at, const uint8_t *block)
    {
        if (is_sound(brick_, block, sizeof(tier_brick_info_t))) {
            return trace(brick_, at, block, TIER_BRICK_CNT_MAX_V3, &facts_.bricks) != nullptr;
        }
        if (is_sound(inode_, block, sizeof(tier_inode_t))) {
            Trace *inodes = trace(inode_, at, block, TIER_INODE_CNT_MAX_V3, &facts_.inodes);
            const auto *inode = reinterpret_cast<const tier_inode_t *>(block);
            if (inodes != nullptr && inode->i_use != 0) {
                inodes->owner.add(inode->i_brick_no);
            }
            return inodes != nullptr;
        }
        if (is_sound(shard_, block, SIZE_4K)) {
            facts_.shards.add(at, block, 1, SHARD_IN_USE_V3, SHARD_INO_V3);
            return true;
        }
        return false;
    }

    /* The trace that the entry belongs to; null when its table would begin too early. */
    static Trace *trace(const tier_table &row, int64_t at, const uint8_t *block, uint64_t max,
                        Traces *to)
    {
        const uint64_t no = row.number.get(block);
        const int64_t start = at - static_cast<int64_t>(no * SIZE_4K);
        if (no >= max || start < HEAD_START) {
            return nullptr;
        }
        Trace &found = trace_at(to, start);
        found.add(no, false);
        return &found;
    }

    const BlockReader &blocks_;
    const tier_table &brick_;
    const tier_table &inode_;
    const tier_table &shard_;
    const tier_table &extent_;
    Facts facts_;
    int64_t reach_ = HEAD_START + QUIET_BYTES;
};

/* The numbers in the making. */
class Reader {
public:
    Reader(const Facts &facts, Readings *to)
        : facts_(facts), to_(*to), bricks_(facts.bricks), inodes_(facts.inodes)
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
        return sound(bricks_) + sound(inodes_) + facts_.shards.blocks + facts_.extents.blocks;
    }
    std::string explained_text() const
    {
        return fmt::format("{} bricks, {} inodes, {} blocks of shards, {} of extents",
                           sound(bricks_), sound(inodes_), facts_.shards.blocks,
                           facts_.extents.blocks);
    }

private:
    static uint64_t sound(const Best<Traces> &traces)
    {
        return traces.best == nullptr ? 0 : traces.best->second.sound;
    }
    static uint64_t entries(const Best<Traces> &traces)
    {
        return traces.best == nullptr ? 0 : traces.best->second.last + 1;
    }
    static bool is_on_grid(const Best<Traces> &traces)
    {
        return traces.best == nullptr || traces.best->first % MIB == 0;
    }
    static int64_t as_offset(uint64_t value) { return static_cast<int64_t>(value); }

    /* Whether all tables seem to begin at multiples of 1 MiB. */
    void find_grid()
    {
        grid_ = sound(bricks_) + sound(inodes_) != 0 && is_on_grid(bricks_) && is_on_grid(inodes_);
    }

    /* Of all blocks from the first entry of a kind to the last. */
    void count_losses()
    {
        entries_ =
            entries(bricks_) + entries(inodes_) + facts_.shards.span() + facts_.extents.span();
        lost_ = entries_ - std::min(entries_, explained());
    }

    /* Where an area begins that follows one that ends there. */
    uint64_t after(uint64_t end) const { return grid_ ? tier_round_up(end, SIZE_1M) : end; }

    /* The first entry of a later table after an offset, or the end of the device. */
    int64_t next_table(int64_t offset) const
    {
        int64_t next = as_offset(facts_.device_size);
        const auto take = [&](bool any, int64_t start) {
            if (any && start > offset) {
                next = std::min(next, start);
            }
        };
        for (const Best<Traces> *traces : {&bricks_, &inodes_}) {
            take(traces->best != nullptr, traces->best == nullptr ? 0 : traces->best->first);
        }
        take(facts_.shards.any(), facts_.shards.first);
        take(facts_.extents.any(), facts_.extents.first);
        return next;
    }

    /* How sure it is that a table ends there, after which nothing but zeros should follow up to the
     * next MiB. */
    Certainty end_of(uint64_t end) const
    {
        const int64_t from = as_offset(end);
        const int64_t to = std::min(next_table(from), up_to_mib(from));
        return end_certainty(entries_, lost_, facts_.blanks.are_blank(from, to));
    }

    void read_super_area()
    {
        const auto start = static_cast<uint64_t>(HEAD_START);
        super_.sb_sb_offset = to_.add("sb_offset", Certainty::likely, uint64_t{TIER_SUPER_OFFSET},
                                      "where the super block lies", ANY_NUMBER);
        super_.sb_sb_size = to_.add("super block size", Certainty::certain, TIER_SB_AREA_SIZE_V3,
                                    "the layout has no other");
        super_.sb_reserved_offset = to_.add("reserved_offset", Certainty::none, start,
                                            "after the super block area", ANY_NUMBER);
        super_.sb_reserved_size =
            to_.add("reserved_size", Certainty::none, static_cast<uint64_t>(next_table(0)) - start,
                    "up to the first table", ANY_NUMBER);
        super_.sb_reserved = static_cast<uint32_t>(
            to_.add("reserved", Certainty::likely, uint64_t{0}, "usual", ANY_NUMBER));
    }

    /* Where a table of numbered entries begins: `guess` if it has none. */
    uint64_t read_offset(std::string_view key, const Best<Traces> &traces, uint64_t guess)
    {
        std::vector<Candidate> starts;
        for (const auto *trace : {traces.best, traces.next}) {
            if (trace != nullptr) {
                starts.push_back({static_cast<uint64_t>(trace->first),
                                  fmt::format("{} sound entries have numbers from there on",
                                              trace->second.sound)});
            }
        }
        if (starts.empty()) {
            starts.push_back({guess, "no sound entry was found"});
        }
        return to_.add(key, traces.certainty(), std::move(starts), ANY_NUMBER);
    }

    /* How many entries it has: at least as many as are known, and referred to. */
    uint64_t read_count(std::string_view key, uint64_t start, const Best<Traces> &traces,
                        const LargestTwo &referred, uint64_t max)
    {
        const uint64_t known = std::max<uint64_t>(entries(traces), 1);
        const bool is_known = referred.second < known;
        const uint64_t count = is_known ? known : std::min(max, referred.second + 1);
        const Certainty certainty = is_known ? end_of(start + known * SIZE_4K) : Certainty::none;
        return to_.add(
            key, lower(traces.certainty(), certainty), count,
            fmt::format("{} {}",
                        is_known ? "the last known entry is" : "the last that is referred to is",
                        count - 1),
            {1, max});
    }

    void read_bricks()
    {
        super_.sb_brick_table_offset =
            read_offset("brick_table_offset", bricks_, after(HEAD_START));
        super_.sb_brick_table_cnt =
            read_count("brick_cnt", super_.sb_brick_table_offset, bricks_,
                       inodes_.best == nullptr ? LargestTwo{} : inodes_.best->second.owner,
                       TIER_BRICK_CNT_MAX_V3);
        super_.sb_brick_table_size =
            to_.add("brick_table_size", to_.certainty("brick_cnt"),
                    super_.sb_brick_table_cnt * SIZE_4K, "4096 for each of brick_cnt", ANY_NUMBER);
    }

    void read_inodes()
    {
        super_.sb_inode_table_offset =
            read_offset("inode_table_offset", inodes_,
                        after(super_.sb_brick_table_offset + super_.sb_brick_table_size));
        super_.sb_inode_table_cnt = read_count("inode_cnt", super_.sb_inode_table_offset, inodes_,
                                               facts_.shards.owner, TIER_INODE_CNT_MAX_V3);
        super_.sb_inode_table_size =
            to_.add("inode_table_size", to_.certainty("inode_cnt"),
                    super_.sb_inode_table_cnt * SIZE_4K, "4096 for each of inode_cnt");
    }

    /* Where a table of packed entries begins: its blocks have no numbers. `lowest`: the table
     * before it ends there. */
    uint64_t read_packed_offset(std::string_view key, const PackedTrace &table, uint64_t lowest)
    {
        const auto first = static_cast<uint64_t>(table.first);
        const uint64_t on_grid = first / SIZE_1M * SIZE_1M;
        if (!table.any()) {
            return to_.add(key, Certainty::none, after(lowest), "no sound block of it was found",
                           ANY_NUMBER);
        }
        std::vector<Candidate> starts;
        Certainty certainty = end_certainty(entries_, lost_, true);
        if (grid_ && on_grid >= lowest) {
            starts.push_back({on_grid, "a multiple of 1 MiB, as the others"});
            certainty = Certainty::likely;
        }
        starts.push_back({first, "the first sound block"});
        return to_.add(key, certainty, std::move(starts), ANY_NUMBER);
    }

    /* How many entries it has: those of the blocks up to the last sound one, or that are referred
     * to. */
    uint64_t read_packed_count(std::string_view key, std::string_view offset_key, uint64_t start,
                               const PackedTrace &table, uint64_t referred, uint64_t max)
    {
        const auto blocks_to = [start](int64_t last) {
            return last < as_offset(start) ? 1 : blocks_between(as_offset(start), last);
        };
        const uint64_t blocks = blocks_to(table.last);
        const uint64_t needed = referred / TIER_PACKED_SLOTS_V3 + 1;
        std::vector<Candidate> counts;
        counts.push_back({std::min(max, std::max(blocks, needed) * TIER_PACKED_SLOTS_V3),
                          needed > blocks
                              ? fmt::format("entry {} is referred to", referred)
                              : fmt::format("{} blocks up to the last sound one", blocks)});
        Certainty certainty = end_of(start + blocks * SIZE_4K);
        if (table.gap != 0) {
            certainty = Certainty::none;
            counts.push_back(
                {blocks_to(table.gap) * TIER_PACKED_SLOTS_V3, "up to a gap of more than 1 MiB"});
        } else if (needed > blocks) {
            certainty = Certainty::none;
        }
        return to_.add(key, lower(certainty, to_.certainty(offset_key)), std::move(counts),
                       {1, max});
    }

    void read_shards()
    {
        const uint64_t inodes_end =
            super_.sb_inode_table_offset + std::max<uint64_t>(entries(inodes_), 1) * SIZE_4K;
        super_.sb_shard_table_offset =
            read_packed_offset("shard_table_offset", facts_.shards, inodes_end);
        super_.sb_shard_table_cnt =
            read_packed_count("shard_table_cnt", "shard_table_offset", super_.sb_shard_table_offset,
                              facts_.shards, facts_.extents.owner.second, TIER_SHARD_CNT_MAX_V3);
        super_.sb_shard_table_size =
            to_.add("shard_table_size", to_.certainty("shard_table_cnt"),
                    super_.sb_shard_table_cnt * TIER_PACKED_SIZE_V3, "8 for each of them");
    }

    uint64_t shards_end() const
    {
        return super_.sb_shard_table_offset + super_.sb_shard_table_size;
    }

    void read_extents()
    {
        super_.sb_extent_table_offset =
            read_packed_offset("extent_table_offset", facts_.extents, shards_end());
        super_.sb_extent_table_cnt = read_packed_count("extent_table_cnt", "extent_table_offset",
                                                       super_.sb_extent_table_offset,
                                                       facts_.extents, 0, TIER_EXTENT_CNT_MAX_V3);
        super_.sb_extent_table_size =
            to_.add("extent_table_size", to_.certainty("extent_table_cnt"),
                    super_.sb_extent_table_cnt * TIER_PACKED_SIZE_V3, "8 for each of them");
    }

    /* Its blocks say nothing. It lies between the shards and the extents. */
    void read_hot_table()
    {
        const int64_t end = as_offset(super_.sb_extent_table_offset);
        const auto start = static_cast<int64_t>(after(shards_end()));
        super_.sb_hot_table_offset =
            to_.add("hot_table_offset", Certainty::none, static_cast<uint64_t>(start),
                    "where the shards end", ANY_NUMBER);
        super_.sb_hot_table_size =
            to_.add("hot_table_size", Certainty::none,
                    static_cast<uint64_t>(facts_.blanks.content_end(start, end) - start),
                    "up to the last block that is not zero", ANY_NUMBER);
    }

    void read_data()
    {
        const uint64_t end = super_.sb_extent_table_offset + super_.sb_extent_table_size;
        super_.sb_block_area_offset = to_.add(
            "data_offset",
            grid_ ? lower(Certainty::likely, to_.certainty("extent_table_cnt")) : Certainty::none,
            after(end), "where the extents end", ANY_NUMBER);
        read_blocks(facts_.device_size - std::min(facts_.device_size, super_.sb_block_area_offset));
        super_.sb_block_area_size = to_.add(
            "data_table_size", lower(to_.certainty("block_size"), to_.certainty("block_cnt")),
            super_.sb_block_size * super_.sb_block_cnt, "block_size times block_cnt");
    }

    /* Usually there is a block for each extent. */
    void read_blocks(uint64_t bytes)
    {
        const uint64_t extents = super_.sb_extent_table_cnt;
        const uint64_t filling = size_that_fills(extents, bytes);
        std::vector<Candidate> sizes;
        Certainty certainty = Certainty::none;
        if (filling != 0) {
            sizes.push_back({filling, "as many as extents fill the device to its last byte"});
            certainty = lower(Certainty::likely, to_.certainty("extent_table_cnt"));
        }
        const uint64_t room =
            std::clamp<uint64_t>(bytes / extents, TIER_BLOCK_SIZE_MIN_V3, TIER_BLOCK_SIZE_MAX_V3);
        sizes.push_back({std::bit_floor(room), "a usual size: as many as extents have room"});
        super_.sb_block_size = to_.add("block_size", certainty, std::move(sizes),
                                       {TIER_BLOCK_SIZE_MIN_V3, TIER_BLOCK_SIZE_MAX_V3,
                                        "in steps of 4096: what the layout allows"});
        std::vector<Candidate> counts;
        counts.push_back({bytes / super_.sb_block_size, "so many have room"});
        counts.push_back({extents, "one for each extent"});
        super_.sb_block_cnt = to_.add("block_cnt", certainty, std::move(counts), ANY_NUMBER);
    }

    const Facts &facts_;
    Readings &to_;
    Best<Traces> bricks_;
    Best<Traces> inodes_;
    tier_super_block_v3_t super_{};
    bool grid_ = false;
    uint64_t entries_ = 0; /* blocks of entries, and how many of them are lost */
    uint64_t lost_ = 0;
};

SuperReading read_v3(const tier_layout &layout, Remains &remains, const std::vector<Hint> &hints)
{
    const Facts &facts =
        remains.facts("v3", [&] { return Survey(remains.blocks(), layout).run(); });
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

constexpr RescueLayout RESCUE_V3 = {"v3", read_v3};

[[gnu::constructor]] void register_v3() { register_rescue(&RESCUE_V3); }

} // namespace

} // namespace tierctl
