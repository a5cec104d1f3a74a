#include "zu_tier/format/v2.h"
#include "zu_tier/layout/v2/map.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/rescue/areas.h"
#include "zu_tierctl/rescue/rescue.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

/* The super block of layout V2. */

namespace {

constexpr uint32_t PIECE_SIZE = sizeof(tier_mapped_meta_v2_t);
constexpr uint64_t EXPANSION_MAX = uint64_t{UINT8_MAX} * TIER_EXP_UNIT_V2;
constexpr uint64_t SAMPLES_FOR_A_SPLIT = 4;

/* Where the pieces of an extent begin, and how many there are. */
struct Split {
    uint32_t extent_size = 0;
    uint32_t map_cnt = 0;
};

using Pieces = std::vector<tier_mapped_meta_v2_t>;

/* The pieces of an extent that are not empty. */
Pieces pieces_of(const Block &block, const Split &split)
{
    Pieces pieces;
    for (uint32_t mapno = 0; mapno < split.map_cnt; mapno++) {
        tier_mapped_meta_v2_t piece;
        memcpy(&piece, block.data() + split.extent_size + mapno * PIECE_SIZE, sizeof(piece));
        if (piece.orig_len() != 0) {
            pieces.push_back(piece);
        }
    }
    return pieces;
}

/* Whether the pieces hold what the extent says it holds. */
bool is_explained(const Block &block, const Pieces &pieces)
{
    uint64_t held = 0;
    for (const tier_mapped_meta_v2_t &piece : pieces) {
        held += piece.orig_len();
        if (piece.cnt != tier_round_up(piece.orig_len(), SIZE_4K) / SIZE_4K) {
            return false;
        }
    }
    return held != 0 && held == reinterpret_cast<const tier_extent_t *>(block.data())->te_size;
}

/* The splits of a record that explain the most of the extents in use that were kept. */
struct Splits {
    std::vector<Split> best{};
    uint64_t explained = 0;
    uint64_t extents = 0; /* that are free, or explained as those that were kept */

    Splits() = default;
    explicit Splits(const ExtentTrace &trace, uint32_t length)
    {
        for (uint32_t map_cnt = 1; map_cnt <= EXTENT_HOT_LEN; map_cnt++) {
            const uint32_t rest = map_cnt * PIECE_SIZE + TIER_HOT_SIZE_V2;
            if (length >= rest + TIER_EXTENT_SIZE_MIN) {
                try_split(trace, {length - rest, map_cnt});
            }
        }
        if (!best.empty()) {
            const uint64_t samples = std::max<uint64_t>(trace.samples.size(), 1);
            extents = trace.sound - trace.in_use + trace.in_use * explained / samples;
        }
    }

private:
    void try_split(const ExtentTrace &trace, const Split &split)
    {
        const auto count = static_cast<uint64_t>(
            std::ranges::count_if(trace.samples, [&split](const Block &block) {
                return is_explained(block, pieces_of(block, split));
            }));
        if (count > explained) {
            best.clear();
            explained = count;
        }
        if (count == explained) {
            best.push_back(split);
        }
    }
};

/* What the pieces say of the blocks. */
ExtentEvidence read_pieces(const ExtentTrace &extents, const Split &split)
{
    ExtentEvidence evidence;
    LargestTwo end;
    for (const Block &block : extents.samples) {
        const Pieces pieces = pieces_of(block, split);
        if (!is_explained(block, pieces)) {
            continue;
        }
        const auto *extent = reinterpret_cast<const tier_extent_t *>(block.data());
        for (const tier_mapped_meta_v2_t &piece : pieces) {
            const uint64_t begin = uint64_t{piece.begin} * SIZE_4K;
            end.add(begin + uint64_t{piece.cnt} * SIZE_4K);
            if (extent->te_block != 0 && (piece.offset - begin) % extent->te_block == 0) {
                evidence.blocks[(piece.offset - begin) / extent->te_block]++;
            }
        }
    }
    evidence.least_block = end.second;
    return evidence;
}

void add_expansion(const AreaFacts &facts, Readings *to, tier_super_block_v2_t *super)
{
    const ExpansionFacts found = facts.expansion.value_or(ExpansionFacts{});
    std::string reason = facts.has_room ? "no inode of an expansion area was found after the data"
                                        : "the device has no room for an expansion area";
    Certainty certainty = facts.has_room ? Certainty::none : Certainty::likely;
    if (facts.expansion) {
        reason = fmt::format("{} sound inodes of it, whose numbers begin at {}", found.found,
                             found.first);
        certainty = Certainty::likely;
    }
    super->sb_inode_exp_area = static_cast<uint8_t>(
        to->add("exp_inode_cnt", certainty, found.count, reason, {0, EXPANSION_MAX}) /
        TIER_EXP_UNIT_V2);
    super->sb_inode_exp_magic = static_cast<uint16_t>(
        to->add("exp_inode_magic", certainty, facts.expansion ? TIER_EXP_MAGIC_V2 : 0U, reason,
                {0, UINT16_MAX}));
    if (facts.expansion) {
        reason =
            found.in_use ? "inodes of it are in use" : "none of its inodes is known to be in use";
        certainty = found.in_use ? Certainty::likely : Certainty::none;
    }
    super->sb_inode_exp_inuse = static_cast<uint8_t>(to->add("exp_inode_inuse", certainty,
                                                             found.in_use ? TIER_EXP_INUSE_V2 : 0U,
                                                             reason, {0, UINT8_MAX}));
}

/* The parts of an extent. */
void add_parts(const AreaNumbers &numbers, const Splits &splits, Readings *to,
               tier_super_block_v2_t *super)
{
    /* By the rule of the conversion. */
    const uint32_t map_size = tier_map_size_v2(static_cast<uint32_t>(numbers.block_cnt),
                                               static_cast<uint32_t>(numbers.block_size));
    const uint64_t usual_cnt = tier_round_up(numbers.block_size, map_size) / map_size;

    std::vector<Split> order = splits.best;
    std::ranges::stable_sort(order, std::greater<>(), [usual_cnt](const Split &split) {
        return split.map_cnt == usual_cnt;
    });
    const bool explains = splits.explained >= SAMPLES_FOR_A_SPLIT &&
                          splits.explained * 10 >= numbers.extents->samples.size() * 9;
    std::vector<Candidate> sizes;
    std::vector<Candidate> counts;
    for (const Split &split : order) {
        const std::string reason =
            fmt::format("{} extents in use hold what their pieces hold then", splits.explained) +
            text_if(split.map_cnt == usual_cnt, ", and a block has as many pieces");
        sizes.push_back({split.extent_size, reason});
        counts.push_back({split.map_cnt, reason});
    }
    if (order.empty()) {
        sizes.push_back({TIER_EXTENT_SIZE_MIN, "no extent was found"});
        counts.push_back({std::min<uint64_t>(usual_cnt, EXTENT_HOT_LEN), "no extent was found"});
    }
    const Certainty certainty =
        explains && (order.size() == 1 || order.front().map_cnt == usual_cnt)
            ? lower(Certainty::likely, numbers.extents_certainty)
            : Certainty::none;
    super->sb_extent_size = static_cast<uint32_t>(to->add(
        "extent_size", certainty, std::move(sizes), {TIER_EXTENT_SIZE_MIN, TIER_EXTENT_SIZE_MAX}));
    super->sb_map_cnt = static_cast<uint32_t>(
        to->add("map_cnt", certainty, std::move(counts), {0, EXTENT_HOT_LEN}));
    const Certainty blocks = lower(to->certainty("block_size"), to->certainty("block_cnt"));
    super->sb_min_alloc_size = static_cast<uint32_t>(
        to->add("min_alloc_size", lower(Certainty::likely, blocks), map_size,
                "what a conversion chooses for such blocks", {0, TIER_BLOCK_SIZE_MAX}));
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

SuperReading read_v2(const tier_layout &layout, Remains &remains, const std::vector<Hint> &hints)
{
    const AreaFacts &facts = area_facts(remains, layout);
    Splits splits;
    ExtentEvidence evidence;
    if (const auto *extents = Best(facts.extents).best) {
        splits = Splits(extents->second, extents->first.second);
        if (splits.explained != 0) {
            evidence = read_pieces(extents->second, splits.best.front());
        }
    }
    Readings readings(layout, hints);
    const AreaNumbers numbers = read_areas(facts, evidence, facts.expansion, &readings);
    tier_super_block_v2_t super{};
    put_areas(numbers, &super);
    super.sb_magic = TIER_SB_MAGIC_V2;
    super.sb_version = TIER_SB_VERSION_V2;
    add_expansion(facts, &readings, &super);
    add_parts(numbers, splits, &readings, &super);
    add_area_sizes(numbers, super, &readings);

    SuperReading reading{.layout = &layout};
    reading.is_contested = numbers.extents_certainty != Certainty::certain ||
                           splits.explained < numbers.extents->samples.size();
    const uint64_t expansion = facts.expansion ? facts.expansion->found : 0;
    reading.explained = numbers.explained + splits.extents + expansion;
    reading.explained_text =
        fmt::format("{}, {} extents", numbers.explained_text, splits.extents) +
        text_if(expansion != 0, fmt::format(", {} inodes of the expansion area", expansion));
    memcpy(reading.block.data(), &super, sizeof(super));
    reading.numbers = readings.take();
    return reading;
}

constexpr RescueLayout RESCUE_V2 = {"v2", read_v2};

[[gnu::constructor]] void register_v2() { register_rescue(&RESCUE_V2); }

} // namespace

} // namespace tierctl
