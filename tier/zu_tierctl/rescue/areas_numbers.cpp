#include "zu_tierctl/rescue/areas.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>

namespace tierctl {

namespace {

constexpr int64_t AREA_START = TIER_SB_AREA_SIZE + SIZE_4K; /* of the bricks */
constexpr uint64_t SLOTS_A_MIB = SIZE_1M / SIZE_4K;

/* How much a reason for a size of the blocks weighs against others. */
constexpr uint64_t PIECES_WEIGHT = 6; /* offsets of pieces in their files */
constexpr uint64_t FULL_WEIGHT = 4;   /* many extents hold as much, and none holds more */
constexpr uint64_t EXACT_WEIGHT = 4;  /* the blocks fill the device to its last byte */
constexpr uint64_t USUAL_WEIGHT = 2;
constexpr uint64_t LIKELY_WEIGHT = 6;
constexpr uint64_t LIKELY_LEAD = 3;

/* Fewer entries say little. */
constexpr uint64_t FULL_MIN = 3;
constexpr uint64_t FULL_SHARE = 8; /* one in so many */
constexpr uint64_t EXACT_MIN = 16;

/* So many blocks more than the extents that are known may be lost at the end of the table. */
constexpr uint64_t END_LOSS = 8;

/* The last inode of fewer than `most`. What seems to be a damaged one after these is an extent. */
uint64_t last_inode(const Trace &trace, uint64_t most)
{
    return trace.known < most ? trace.known : trace.last;
}

uint64_t round_down(uint64_t value, uint64_t unit) { return value / unit * unit; }

/* The numbers in the making. */
class AreaReader {
public:
    AreaReader(const AreaFacts &facts, const ExtentEvidence &evidence, Readings *to)
        : facts_(facts), evidence_(evidence), to_(*to), inodes_(best_trace(facts.inodes)),
          extents_(best_extents(facts))
    {
    }

    AreaNumbers run()
    {
        read_bricks();
        read_extents();
        count_losses();
        read_inodes();
        read_blocks();
        if (to_.certainty("block_cnt") == Certainty::none &&
            to_.certainty("inode_cnt") == Certainty::likely) {
            to_.limit("inode_cnt", Certainty::none); /* ends of tables may be lost */
        }
        explain();
        return std::move(numbers_);
    }

private:
    /* Of the entries up to the last of each table. */
    void count_losses()
    {
        const auto add = [this](const Trace &trace) {
            entries_ += trace.sound == 0 ? 0 : trace.last + 1;
            sound_ += trace.sound;
        };
        entries_ = numbers_.brick_cnt;
        sound_ = facts_.bricks.sound;
        if (inodes_.best != nullptr) {
            add(inodes_.best->second);
        }
        if (extents_ != nullptr) {
            add(extents_->second);
        }
    }

    Certainty end_of(bool is_clean) const
    {
        return end_certainty(entries_, entries_ - std::min(entries_, sound_), is_clean);
    }

    /* The inodes begin where the bricks end. */
    void read_bricks()
    {
        const uint64_t seen = facts_.bricks.sound == 0 ? 1 : facts_.bricks.last + 1;
        if (inodes_.best == nullptr) {
            std::vector<Values> values = {
                value_of(seen, fmt::format("{} sound bricks, and no inode after them",
                                           facts_.bricks.sound)),
                {seen, TIER_BRICK_CNT_MAX, "what the layout allows"}};
            numbers_.brick_cnt = to_.add("brick_cnt", Certainty::none, std::move(values));
        } else {
            std::vector<Values> values = {bricks_before(*inodes_.best)};
            if (inodes_.next != nullptr) {
                values.push_back(bricks_before(*inodes_.next));
            }
            Certainty certainty = inodes_.certainty;
            const auto referred = facts_.brick_numbers.find(inodes_.best->first);
            const uint64_t count = values.front().first;
            if (facts_.bricks.sound != 0 && seen > count) {
                certainty = Certainty::none;
                values.push_back(value_of(seen, fmt::format("brick {} is sound", seen - 1)));
            } else if (referred != facts_.brick_numbers.end() && referred->second.second >= count) {
                certainty = Certainty::none;
            }
            if (certainty != Certainty::certain) {
                values.push_back({1, TIER_BRICK_CNT_MAX, "what the layout allows"});
            }
            numbers_.brick_cnt = to_.add("brick_cnt", certainty, std::move(values));
        }
        inode_start_ = AREA_START + static_cast<int64_t>(numbers_.brick_cnt * SIZE_4K);
    }

    static Values bricks_before(const Traces::value_type &inodes)
    {
        const auto count = static_cast<uint64_t>(inodes.first - AREA_START) / SIZE_4K;
        return value_of(count, fmt::format("{} sound inodes have numbers that begin at {}, where "
                                           "the bricks end",
                                           inodes.second.sound, inodes.first));
    }

    void read_extents()
    {
        const auto [low, high] = inode_bounds(facts_, evidence_.expansion.has_value());
        extent_start_ = static_cast<int64_t>(tier_round_up(
            static_cast<uint64_t>(inode_start_) + std::max<uint64_t>(low, 1) * SIZE_4K, SIZE_1M));
        if (extents_ == nullptr) {
            return;
        }
        extent_start_ = extents_->first.first;
        uint64_t next = 0;
        for (const auto &trace : facts_.extents) {
            next = std::max(next, &trace == extents_ ? 0 : trace.second.sound);
        }
        extents_certainty_ = place_certainty(extents_->second.sound, next);
        numbers_.extents = &extents_->second;
        numbers_.extent_length = extents_->first.second;
        numbers_.extents_certainty = extents_certainty_;
    }

    /* The inodes end in the MiB before the extents. */
    void read_inodes()
    {
        auto [low, high] = inode_bounds(facts_, evidence_.expansion.has_value());
        const uint64_t last = inodes_.best == nullptr ? 0 : last_inode(inodes_.best->second, high);
        std::vector<Values> values;
        Certainty certainty = lower(to_.certainty("brick_cnt"), extents_certainty_);
        if (evidence_.expansion && evidence_.expansion->first >= low &&
            evidence_.expansion->first <= high) {
            const uint64_t first = evidence_.expansion->first;
            values.push_back(value_of(
                first, fmt::format("the numbers of the expansion area go on from {}", first)));
            certainty = lower(certainty, first == low ? Certainty::certain : Certainty::likely);
            certainty = first_is_known(first) ? certainty : Certainty::none;
        } else {
            const int64_t end = inode_start_ + static_cast<int64_t>(low * SIZE_4K);
            values.push_back(
                value_of(low, fmt::format("the last known inode is {}, and the extents begin at {}",
                                          low - 1, extent_start_)));
            if (last >= high || last + 1 < low) { /* it lies among the extents, or others follow */
                certainty = Certainty::none;
            } else if (low != high) {
                certainty = lower(certainty, end_of(facts_.states.are_zero(end, extent_start_)));
            }
        }
        if (certainty != Certainty::certain) {
            const uint64_t least = std::max(last + 1, high - std::min(high, SLOTS_A_MIB) + 1);
            values.push_back(
                {std::min(least, high), high, "what ends in the MiB before the extents"});
        }
        if (lower(to_.certainty("brick_cnt"), extents_certainty_) != Certainty::certain) {
            values.push_back({1, TIER_INODE_CNT_MAX, "what the layout allows"});
        }
        numbers_.inode_cnt = to_.add("inode_cnt", certainty, std::move(values));
    }

    /* Whether the inode before the first of the expansion area is known. */
    bool first_is_known(uint64_t first) const
    {
        return inodes_.best != nullptr && inodes_.best->second.last + 1 == first;
    }

    /* Bytes up to which the blocks reach, or may reach. */
    uint64_t data_end() const
    {
        if (!evidence_.expansion) {
            return facts_.device_size;
        }
        const int64_t first = evidence_.expansion->base +
                              static_cast<int64_t>(numbers_.inode_cnt * SIZE_4K) - SIZE_1M;
        return static_cast<uint64_t>(std::max<int64_t>(first, 0));
    }

    uint64_t data_offset(uint64_t blocks) const
    {
        return tier_round_up(
            static_cast<uint64_t>(extent_start_) + blocks * SIZE_4K + TIER_DATA_GAP, SIZE_1M);
    }

    bool fits(uint64_t blocks, uint64_t size) const
    {
        return data_offset(blocks) + blocks * size <= data_end();
    }

    /* The most blocks of that size that have room. */
    uint64_t most_blocks(uint64_t size) const
    {
        const auto start = static_cast<uint64_t>(extent_start_);
        uint64_t blocks = data_end() <= start ? 0 : (data_end() - start) / (size + SIZE_4K);
        while (blocks > 0 && !fits(blocks, size)) {
            blocks--;
        }
        return blocks;
    }

    /* Whether so many blocks of that size end with the last byte, and the extents that are not
     * known may have been lost. */
    bool is_exact(uint64_t blocks, uint64_t size) const
    {
        return blocks >= least_ && blocks <= least_ + END_LOSS + lost_ &&
               data_offset(blocks) + blocks * size == data_end();
    }

    void read_blocks()
    {
        if (extents_ != nullptr) {
            const auto numbered = facts_.numbered_extents.find(extent_start_);
            least_ = 1 + std::max(extents_->second.last, numbered == facts_.numbered_extents.end()
                                                             ? 0
                                                             : numbered->second.known);
            lost_ = least_ - std::min(least_, extents_->second.sound);
        }
        read_block_size();
        read_block_count();
    }

    void read_block_size()
    {
        low_ = std::max<uint64_t>(TIER_BLOCK_SIZE_MIN, evidence_.least_block);
        if (extents_ != nullptr) {
            low_ = std::max(low_, tier_round_up(extents_->second.size.second, SIZE_4K));
        }
        low_ = std::min<uint64_t>(low_, TIER_BLOCK_SIZE_MAX);
        high_ = std::min<uint64_t>(TIER_BLOCK_SIZE_MAX, most_bytes_in_files());
        if (extents_ != nullptr && data_offset(least_) < data_end()) {
            high_ = std::min(high_, (data_end() - data_offset(least_)) / least_);
        }
        high_ = round_down(high_, SIZE_4K);
        const bool agree = extents_ != nullptr && low_ <= high_;
        if (!agree) {
            high_ = TIER_BLOCK_SIZE_MAX;
        }
        weigh_sizes();
        std::vector<Values> values = sizes_by_weight();
        Certainty certainty = size_certainty();
        if (agree && low_ == high_) {
            certainty = extents_certainty_;
            values.front().reason = "extents hold as much, and more has no room";
        } else if (!agree) {
            certainty = Certainty::none;
        }
        values.push_back({low_, high_, "in steps of 4096: what extents hold, and what has room"});
        numbers_.block_size = to_.add("block_size", certainty, std::move(values));
    }

    /* A block of a file begins before its end. */
    uint64_t most_bytes_in_files() const
    {
        const auto files = facts_.file_sizes.find(inode_start_);
        if (extents_ == nullptr || files == facts_.file_sizes.end()) {
            return UINT64_MAX;
        }
        LargestTwo negative; /* the two smallest */
        for (const auto &[owner, block] : extents_->second.blocks) {
            const auto file = files->second.find(owner);
            if (block != 0 && file != files->second.end() && file->second != 0) {
                negative.add(UINT64_MAX - (file->second - 1) / block);
            }
        }
        return UINT64_MAX - negative.second;
    }

    void weigh(uint64_t size, uint64_t weight, const std::string &reason)
    {
        if (size < low_ || size > high_ || size % SIZE_4K != 0) {
            return;
        }
        auto &[sum, reasons] = weights_[size];
        sum += weight;
        reasons += (reasons.empty() ? "" : ", ") + reason;
    }

    void weigh_sizes()
    {
        weigh(low_, 1, "extents hold as much");
        weigh(std::bit_ceil(low_), USUAL_WEIGHT, "a usual size");
        if (extents_ != nullptr) {
            weigh_full_extents();
            if (least_ >= EXACT_MIN && data_offset(least_) < data_end() &&
                (data_end() - data_offset(least_)) % least_ == 0) {
                weigh((data_end() - data_offset(least_)) / least_, 0, "it fills the device");
            }
        }
        weigh_pieces();
        for (auto &[size, weight] : weights_) {
            if (is_exact(most_blocks(size), size)) {
                weight.first += least_ >= EXACT_MIN ? EXACT_WEIGHT : 1;
                weight.second += ", the blocks end with the last byte";
            }
        }
    }

    void weigh_full_extents()
    {
        const ExtentTrace &extents = extents_->second;
        for (auto size = extents.sizes.rbegin(); size != extents.sizes.rend(); ++size) {
            if (size->second >= FULL_MIN && size->second * FULL_SHARE >= extents.in_use) {
                weigh(size->first, FULL_WEIGHT,
                      fmt::format("{} of {} extents in use hold as much", size->second,
                                  extents.in_use));
                return;
            }
        }
    }

    void weigh_pieces()
    {
        uint64_t sum = 0;
        for (const auto &[size, count] : evidence_.blocks) {
            sum += count;
        }
        for (const auto &[size, count] : evidence_.blocks) {
            if (count >= FULL_MIN && count * 10 >= sum * 9) {
                weigh(
                    size, PIECES_WEIGHT,
                    fmt::format("{} pieces lie in their files as if blocks were so large", count));
            }
        }
    }

    /* The heaviest first. */
    std::vector<Values> sizes_by_weight()
    {
        std::vector<std::pair<uint64_t, uint64_t>> order; /* weight, size */
        for (const auto &[size, weight] : weights_) {
            order.emplace_back(weight.first, size);
        }
        std::ranges::sort(order, std::greater<>());
        std::vector<Values> values(order.size());
        std::ranges::transform(order, values.begin(), [this](const auto &choice) {
            return value_of(choice.second, weights_[choice.second].second);
        });
        lead_ = order.front().first - (order.size() > 1 ? order[1].first : 0);
        weight_ = order.front().first;
        return values;
    }

    Certainty size_certainty() const
    {
        return weight_ >= LIKELY_WEIGHT && lead_ >= LIKELY_LEAD
                   ? lower(Certainty::likely, extents_certainty_)
                   : Certainty::none;
    }

    void read_block_count()
    {
        const uint64_t size = numbers_.block_size;
        const uint64_t most = std::max(least_, most_blocks(low_));
        const uint64_t fill = most_blocks(size);
        std::vector<Values> values;
        Certainty certainty = Certainty::none;
        if (extents_ == nullptr) {
            values.push_back(value_of(std::max<uint64_t>(fill, 1), "blocks that have room"));
        } else if (fill > least_ && is_exact(fill, size)) {
            certainty = lower(Certainty::likely, to_.certainty("block_size"));
            values.push_back(value_of(fill, "as many blocks end with the last byte"));
        } else {
            certainty = count_certainty(most, fill);
        }
        if (extents_ != nullptr) {
            values.push_back(value_of(
                least_, fmt::format("the last known extent is {}{}", least_ - 1,
                                    fill == least_ ? ", and no further block has room" : "")));
        }
        if (most != least_) {
            values.push_back({least_, most, "blocks that have room"});
        }
        numbers_.block_cnt =
            to_.add("block_cnt", lower(certainty, extents_certainty_), std::move(values));
    }

    Certainty count_certainty(uint64_t most, uint64_t fill) const
    {
        if (most == least_ && fill == least_) {
            return Certainty::certain;
        }
        if (fill == least_) {
            return lower(Certainty::likely, to_.certainty("block_size"));
        }
        const int64_t end = extent_start_ + static_cast<int64_t>(least_ * SIZE_4K);
        return end_of(facts_.states.are_zero(end, end + int64_t{SLOTS_A_MIB} * SIZE_4K));
    }

    void explain()
    {
        const auto inodes = facts_.inodes.find(inode_start_);
        const uint64_t inode_cnt = inodes == facts_.inodes.end() ? 0 : inodes->second.sound;
        numbers_.explained = facts_.bricks.sound + inode_cnt;
        numbers_.explained_text =
            fmt::format("{} bricks, {} inodes", facts_.bricks.sound, inode_cnt);
    }

    const AreaFacts &facts_;
    const ExtentEvidence &evidence_;
    Readings &to_;
    BestTrace inodes_;
    const ExtentTraces::value_type *extents_;
    AreaNumbers numbers_;
    Certainty extents_certainty_ = Certainty::none;
    int64_t inode_start_ = 0;
    int64_t extent_start_ = 0;
    uint64_t entries_ = 0; /* up to the last of each table, and how many are sound */
    uint64_t sound_ = 0;
    uint64_t least_ = 1; /* blocks */
    uint64_t lost_ = 0;  /* of their extents */
    uint64_t low_ = 0;   /* bounds of the block size */
    uint64_t high_ = 0;
    std::map<uint64_t, std::pair<uint64_t, std::string>> weights_; /* by block size */
    uint64_t weight_ = 0; /* of the heaviest, and how far it leads */
    uint64_t lead_ = 0;
};

} // namespace

std::pair<uint64_t, uint64_t> inode_bounds(const AreaFacts &facts, bool has_expansion)
{
    const BestTrace inodes = best_trace(facts.inodes);
    const auto *extents = best_extents(facts);
    uint64_t high = TIER_INODE_CNT_MAX;
    uint64_t low = 1;
    if (extents != nullptr) {
        const int64_t start =
            inodes.best != nullptr
                ? inodes.best->first
                : AREA_START + static_cast<int64_t>((facts.bricks.last + 1) * SIZE_4K);
        const auto room = static_cast<uint64_t>(
            std::max<int64_t>((extents->first.first - start) / int64_t{SIZE_4K}, 1));
        high = std::min(high, room);
        low = room - std::min(room, SLOTS_A_MIB) + 1;
        if (!has_expansion && extents->second.inode.second < high) {
            low = std::max(low, extents->second.inode.second + 1);
        }
    }
    if (inodes.best != nullptr) {
        low = std::max(low, last_inode(inodes.best->second, high) + 1);
    }
    return {std::min(low, high), high};
}

AreaNumbers read_areas(const AreaFacts &facts, const ExtentEvidence &evidence, Readings *to)
{
    return AreaReader(facts, evidence, to).run();
}

} // namespace tierctl
