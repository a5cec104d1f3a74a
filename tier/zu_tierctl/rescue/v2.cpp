#include "zu_tier/format/v2.h"
#include "zu_tier/layout/v2/map.h"
#include "zu_tierctl/rescue/rescue.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

/* The super block of layout V2. */

namespace {

constexpr uint32_t PIECE_SIZE = sizeof(tier_mapped_meta_v2_t);
constexpr uint64_t EXPANSION_BYTES_MIN = uint64_t{TIER_EXP_CNT_MIN_V2} * SIZE_4K;
constexpr uint64_t EXPANSION_UNITS_MAX = UINT8_MAX;
constexpr uint64_t LOOKS_A_UNIT = 16;
constexpr uint64_t SAMPLES_FOR_A_SPLIT = 4;

/* Where the pieces of an extent begin, and how many there are. */
struct Split {
    uint32_t extent_size = 0;
    uint32_t map_cnt = 0;
};

/* An extent whose pieces, under a split, hold what it says it holds. */
bool is_explained(const Block &block, const Split &split)
{
    uint64_t held = 0;
    for (uint32_t mapno = 0; mapno < split.map_cnt; mapno++) {
        tier_mapped_meta_v2_t piece;
        memcpy(&piece, block.data() + split.extent_size + mapno * PIECE_SIZE, sizeof(piece));
        if (piece.orig_len() == 0) {
            continue;
        }
        const uint64_t pages = tier_round_up(piece.orig_len(), SIZE_4K) / SIZE_4K;
        if (piece.cnt != pages ||
            (uint64_t{piece.begin} + piece.cnt) * SIZE_4K > TIER_BLOCK_SIZE_MAX) {
            return false;
        }
        held += piece.orig_len();
    }
    const auto *extent = reinterpret_cast<const tier_extent_t *>(block.data());
    return held != 0 && held == extent->te_size;
}

uint64_t count_explained(const ExtentTrace &extents, const Split &split)
{
    return static_cast<uint64_t>(std::ranges::count_if(
        extents.samples, [&split](const Block &block) { return is_explained(block, split); }));
}

/* The splits of a record that explain the most samples. */
struct Splits {
    std::vector<Split> best;
    uint64_t explained = 0;
};

Splits find_splits(const AreaNumbers &numbers)
{
    Splits splits;
    for (uint32_t map_cnt = 1; map_cnt <= EXTENT_HOT_LEN; map_cnt++) {
        const uint32_t rest = map_cnt * PIECE_SIZE + TIER_HOT_SIZE_V2;
        if (numbers.extent_length < rest + TIER_EXTENT_SIZE_MIN) {
            break;
        }
        const Split split = {numbers.extent_length - rest, map_cnt};
        const uint64_t explained = count_explained(*numbers.extents, split);
        if (explained > splits.explained) {
            splits = {{}, explained};
        }
        if (explained == splits.explained) {
            splits.best.push_back(split);
        }
    }
    return splits;
}

/* Bytes of a piece by the rule of the conversion; nothing when it has too many for a block. */
std::optional<uint32_t> map_size(uint64_t block_cnt, uint64_t block_size)
{
    const uint32_t size =
        tier_map_size_v2(static_cast<uint32_t>(block_cnt), static_cast<uint32_t>(block_size));
    return block_size / size <= EXTENT_HOT_LEN ? std::optional(size) : std::nullopt;
}

/* What the pieces say of the blocks. */
void read_pieces(const AreaNumbers &numbers, const Split &split, ExtentEvidence *evidence)
{
    LargestTwo end;
    for (const Block &block : numbers.extents->samples) {
        if (!is_explained(block, split)) {
            continue;
        }
        const auto *extent = reinterpret_cast<const tier_extent_t *>(block.data());
        uint64_t last = 0;
        for (uint32_t mapno = 0; mapno < split.map_cnt; mapno++) {
            tier_mapped_meta_v2_t piece;
            memcpy(&piece, block.data() + split.extent_size + mapno * PIECE_SIZE, sizeof(piece));
            const uint64_t begin = uint64_t{piece.begin} * SIZE_4K;
            if (piece.orig_len() == 0) {
                continue;
            }
            last = std::max(last, (uint64_t{piece.begin} + piece.cnt) * SIZE_4K);
            if (extent->te_block != 0 && piece.offset >= begin &&
                (piece.offset - begin) % extent->te_block == 0) {
                evidence->blocks[(piece.offset - begin) / extent->te_block]++;
            }
        }
        end.add(last);
    }
    evidence->least_block = end.second;
}

/* Looks for the expansion area, of which one entry says where all of them are. */
class ExpansionSearch {
public:
    ExpansionSearch(const Device &device, const tier_layout &layout, const AreaFacts &facts)
        : device_(device), facts_(facts),
          row_(**std::ranges::find(layout.tables, "inode", &tier_table::name)),
          end_(static_cast<int64_t>(device.size() / SIZE_4K * SIZE_4K)),
          start_(std::min(least_data_end(), end_))
    {
        std::tie(low_, high_) = inode_bounds(facts, true);
    }

    /* Whether the device has room for one after the blocks that are known. */
    bool has_room() const { return static_cast<uint64_t>(end_ - start_) > EXPANSION_BYTES_MIN; }

    /* `place`: where it may begin. */
    std::optional<ExpansionFacts> run(int64_t place)
    {
        if (start_ >= end_ || !has_room()) {
            return std::nullopt;
        }
        look_near(place);
        look_at_end();
        const BestTrace bases = best_trace(bases_);
        if (bases.best == nullptr) {
            return std::nullopt;
        }
        found_.base = bases.best->first;
        find_first();
        count();
        return found_;
    }

private:
    /* Where the known blocks end at least. */
    int64_t least_data_end() const
    {
        const auto *extents = best_extents(facts_);
        if (extents == nullptr) {
            return facts_.states.end();
        }
        const uint64_t size = std::clamp<uint64_t>(extents->second.size.second, TIER_BLOCK_SIZE_MIN,
                                                   TIER_BLOCK_SIZE_MAX);
        const uint64_t blocks = extents->second.last + 1;
        return extents->first.first + static_cast<int64_t>(blocks * (SIZE_4K + size));
    }

    void look_near(int64_t place)
    {
        for (uint64_t i = 0; i < LOOKS_A_UNIT; i++) {
            look(place + static_cast<int64_t>(i * SIZE_4K));
        }
    }

    void look_at_end()
    {
        for (int64_t distance = SIZE_4K; distance < end_ - start_; distance *= 2) {
            look(end_ - distance);
            look(end_ - distance - SIZE_4K);
        }
        const int64_t step = static_cast<int64_t>(EXPANSION_BYTES_MIN) / 64;
        for (int64_t i = 1; i < 64; i++) {
            look(end_ - i * step);
        }
    }

    /* A sound inode counts as one of the area that its number and place make. */
    void look(int64_t at)
    {
        alignas(SIZE_4K) Block block;
        if (at <= start_ || at % SIZE_4K != 0 || !device_.read(at, block.data(), SIZE_4K)) {
            return;
        }
        const uint64_t no = row_.number.get(block.data());
        if (no >= low_ && no < TIER_INODE_NO_BOUND_V2 &&
            is_sound(row_, block.data(), sizeof(tier_inode_t))) {
            bases_[at - static_cast<int64_t>(no * SIZE_4K)].add(no);
        }
    }

    /* Whether the area has a sound inode of that number. */
    bool has(uint64_t no)
    {
        alignas(SIZE_4K) Block block;
        const int64_t at = found_.base + static_cast<int64_t>(no * SIZE_4K);
        if (!device_.read(at, block.data(), SIZE_4K) || row_.number.get(block.data()) != no ||
            !is_sound(row_, block.data(), sizeof(tier_inode_t))) {
            return false;
        }
        found_.found++;
        found_.in_use = found_.in_use || row_.in_use.get(block.data()) != 0;
        return true;
    }

    /* The lowest number found among those that the regular table may leave; the blocks before the
     * area tell whether a lower one was lost. */
    void find_first()
    {
        for (uint64_t no = low_; no <= high_ && found_.first == 0; no++) {
            found_.first = has(no) ? no : 0;
        }
        for (uint64_t no = found_.first; no >= low_ && no > 0; no--) {
            if (blocks_end_before(no)) {
                found_.first = no;
                return;
            }
        }
    }

    /* Whether the known blocks have whole sizes when the area begins with inode `no`. */
    bool blocks_end_before(uint64_t no) const
    {
        const auto *extents = best_extents(facts_);
        if (extents == nullptr) {
            return false;
        }
        const uint64_t blocks = extents->second.last + 1;
        const auto end = static_cast<uint64_t>(found_.base) + no * SIZE_4K - SIZE_1M;
        const uint64_t data = tier_round_up(static_cast<uint64_t>(extents->first.first) +
                                                blocks * SIZE_4K + TIER_DATA_GAP,
                                            SIZE_1M);
        const uint64_t size = end > data ? (end - data) / blocks : 0;
        return size % SIZE_4K == 0 && size * blocks == end - data && size >= TIER_BLOCK_SIZE_MIN &&
               size <= TIER_BLOCK_SIZE_MAX;
    }

    void count()
    {
        constexpr uint64_t STEP = TIER_EXP_UNIT_V2 / LOOKS_A_UNIT;
        for (uint64_t unit = 0; unit < EXPANSION_UNITS_MAX; unit++) {
            const uint64_t first = found_.first + unit * TIER_EXP_UNIT_V2;
            bool any = false;
            for (uint64_t look = 1; look <= LOOKS_A_UNIT; look++) {
                any = has(first + look * STEP - 1) || any;
            }
            found_.count = any ? (unit + 1) * TIER_EXP_UNIT_V2 : found_.count;
        }
        found_.count = std::max<uint64_t>(found_.count, TIER_EXP_CNT_MIN_V2);
    }

    const Device &device_;
    const AreaFacts &facts_;
    const tier_table &row_;
    uint64_t low_ = 0;
    uint64_t high_ = 0;
    int64_t end_;   /* of the device */
    int64_t start_; /* where an area may begin at the earliest */
    Traces bases_;
    ExpansionFacts found_;
};

/* No inode of an area was found. */
void add_no_expansion(bool has_room, Readings *to, tier_super_block_v2_t *super)
{
    const Certainty certainty = has_room ? Certainty::none : Certainty::certain;
    const std::string reason = has_room ? "no inode of an expansion area was found after the data"
                                        : "the device has no room for an expansion area";
    const auto values = [&](uint64_t least, uint64_t most) {
        std::vector<Values> all = {value_of(0, reason)};
        if (has_room) {
            all.push_back({least, most, "what the layout allows"});
        }
        return all;
    };
    super->sb_inode_exp_area = static_cast<uint8_t>(
        to->add("exp_inode_cnt", certainty,
                values(TIER_EXP_CNT_MIN_V2, EXPANSION_UNITS_MAX * TIER_EXP_UNIT_V2)) /
        TIER_EXP_UNIT_V2);
    super->sb_inode_exp_magic = static_cast<uint16_t>(
        to->add("exp_inode_magic", certainty, values(TIER_EXP_MAGIC_V2, TIER_EXP_MAGIC_V2)));
    super->sb_inode_exp_inuse = static_cast<uint8_t>(
        to->add("exp_inode_inuse", certainty, values(TIER_EXP_INUSE_V2, TIER_EXP_INUSE_V2)));
}

void add_expansion(const ExpansionFacts &found, Readings *to, tier_super_block_v2_t *super)
{
    const std::string reason =
        fmt::format("{} sound inodes of it, whose numbers begin at {}", found.found, found.first);
    super->sb_inode_exp_area = static_cast<uint8_t>(
        to->add("exp_inode_cnt", Certainty::likely, found.count, reason) / TIER_EXP_UNIT_V2);
    super->sb_inode_exp_magic = TIER_EXP_MAGIC_V2;
    to->add("exp_inode_magic", Certainty::certain, TIER_EXP_MAGIC_V2, reason);
    std::vector<Values> uses = {value_of(TIER_EXP_INUSE_V2, "inodes of it are in use"),
                                value_of(0, "none of its inodes is known to be in use")};
    if (!found.in_use) {
        std::swap(uses[0], uses[1]);
    }
    super->sb_inode_exp_inuse = static_cast<uint8_t>(to->add(
        "exp_inode_inuse", found.in_use ? Certainty::likely : Certainty::none, std::move(uses)));
}

/* The parts of an extent. */
void add_parts(const AreaNumbers &numbers, const Splits &splits, Readings *to,
               tier_super_block_v2_t *super)
{
    const Certainty blocks = lower(to->certainty("block_size"), to->certainty("block_cnt"));
    const std::optional<uint32_t> by_rule = map_size(numbers.block_cnt, numbers.block_size);
    const uint32_t usual_map = by_rule.value_or(TIER_BLOCK_SIZE_MAX / EXTENT_HOT_LEN);
    const auto usual_cnt =
        static_cast<uint32_t>(tier_round_up(numbers.block_size, usual_map) / usual_map);

    std::vector<Split> order = splits.best;
    std::ranges::stable_sort(
        order, {}, [usual_cnt](const Split &split) { return split.map_cnt == usual_cnt ? 0 : 1; });
    if (order.empty()) {
        order.push_back({TIER_EXTENT_SIZE_MIN, usual_cnt});
    }
    const bool explains = splits.explained >= SAMPLES_FOR_A_SPLIT &&
                          splits.explained * 10 >= numbers.extents->samples.size() * 9;
    const bool one = order.size() == 1 || order.front().map_cnt == usual_cnt;
    const Certainty certainty = explains && one ? Certainty::likely : Certainty::none;
    std::vector<Values> sizes;
    std::vector<Values> counts;
    for (const Split &split : order) {
        const std::string reason =
            fmt::format("{} extents in use hold what their pieces hold then{}", splits.explained,
                        split.map_cnt == usual_cnt ? ", and a block has as many pieces" : "");
        sizes.push_back(value_of(split.extent_size, reason));
        counts.push_back(value_of(split.map_cnt, reason));
    }
    if (certainty == Certainty::none) {
        sizes.push_back({TIER_EXTENT_SIZE_MIN, TIER_EXTENT_SIZE_MAX, "what the layout allows"});
        counts.push_back({0, EXTENT_HOT_LEN, "what the layout allows"});
    }
    super->sb_extent_size =
        static_cast<uint32_t>(to->add("extent_size", certainty, std::move(sizes)));
    super->sb_map_cnt = static_cast<uint32_t>(to->add("map_cnt", certainty, std::move(counts)));
    super->sb_min_alloc_size = static_cast<uint32_t>(
        to->add("min_alloc_size", by_rule ? lower(Certainty::likely, blocks) : Certainty::none,
                {value_of(usual_map, "what a conversion chooses for such blocks"),
                 {1, numbers.block_size, "what the layout allows"}}));
    super->sb_size_mapped_meta = PIECE_SIZE;
    super->sb_total_map_size = super->sb_map_cnt * PIECE_SIZE;
    super->sb_hot_size = TIER_HOT_SIZE_V2;
    super->sb_total_extent_size =
        super->sb_extent_size + super->sb_total_map_size + super->sb_hot_size;
    to->add("size_mapped_meta", Certainty::likely, PIECE_SIZE,
            "of no device it is known otherwise");
    to->add("total_map_size", certainty, super->sb_total_map_size, "16 for each of map_cnt");
    to->add("hot_size", certainty, super->sb_hot_size, "what a conversion chooses");
}

/* The extents that the splits explain, and those that are free. */
uint64_t explained_extents(const AreaNumbers &numbers, const Splits &splits)
{
    if (numbers.extents == nullptr || splits.best.empty()) {
        return 0;
    }
    const ExtentTrace &extents = *numbers.extents;
    const uint64_t samples = std::max<uint64_t>(extents.samples.size(), 1);
    return extents.sound - extents.in_use + extents.in_use * splits.explained / samples;
}

SuperReading read_v2(const tier_layout &layout, Remains &remains, const std::vector<Hint> &hints)
{
    const AreaFacts &facts = area_facts(remains, layout);
    ExtentEvidence evidence;
    Readings first(layout, hints);
    AreaNumbers numbers = read_areas(facts, evidence, &first);
    Splits splits;
    if (numbers.extents != nullptr) {
        splits = find_splits(numbers);
        if (splits.explained != 0) {
            read_pieces(numbers, splits.best.front(), &evidence);
        }
    }
    tier_super_block_v2_t super{};
    put_areas(numbers, &super);
    ExpansionSearch search(remains.device(), layout, facts);
    evidence.expansion = search.run(tier_exp_inodes_v2(super).start);

    Readings readings(layout, hints);
    numbers = read_areas(facts, evidence, &readings);
    put_areas(numbers, &super);
    super.sb_magic = TIER_SB_MAGIC_V2;
    super.sb_version = TIER_SB_VERSION_V2;
    if (evidence.expansion) {
        add_expansion(*evidence.expansion, &readings, &super);
    } else {
        add_no_expansion(search.has_room(), &readings, &super);
    }
    add_parts(numbers, splits, &readings, &super);
    add_area_sizes(numbers, super, &readings);

    SuperReading reading{.layout = &layout};
    const uint64_t extents = explained_extents(numbers, splits);
    const uint64_t expansion = evidence.expansion ? evidence.expansion->found : 0;
    reading.explained = numbers.explained + extents + expansion;
    reading.explained_text =
        fmt::format("{}, {} extents", numbers.explained_text, extents) +
        (expansion == 0 ? "" : fmt::format(", {} inodes of the expansion area", expansion));
    memcpy(reading.block.data(), &super, sizeof(super));
    reading.numbers = readings.take();
    return reading;
}

} // namespace

constinit const RescueLayout RESCUE_LAYOUT_V2 = {"v2", read_v2};

} // namespace tierctl
