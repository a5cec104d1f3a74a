#include "zu_tierctl/rescue/expansion.h"

namespace tierctl {

namespace {

constexpr int64_t BYTES_MIN = int64_t{TIER_EXP_CNT_MIN_V2} * SIZE_4K;
constexpr int64_t LOOKS_AT_END = 64;
constexpr uint64_t LOOKS_A_UNIT = 16;

class ExpansionSearch {
public:
    ExpansionSearch(const Device &device, const tier_table &inode, const AreaFacts &facts,
                    const ExtentTraces::value_type &extents, int64_t start)
        : device_(device), inode_(inode), start_(start), blocks_(extents.second.last + 1),
          data_(DataArea{extents.first.first, facts.device_size}.offset(blocks_))
    {
        const auto *inodes = Best(facts.inodes).best;
        const int64_t inode_start = inodes == nullptr ? AREA_START + SIZE_4K : inodes->first;
        std::tie(low_, high_) = inode_bounds(inode_start, extents.first.first);
        if (inodes != nullptr) {
            low_ = std::max(low_, std::min(high_, inodes->second.last + 1));
        }
    }

    std::optional<ExpansionFacts> run()
    {
        look_at_end();
        const auto *base = Best(bases_).best;
        if (base == nullptr) {
            return std::nullopt;
        }
        found_.base = static_cast<uint64_t>(base->first);
        find_first();
        count();
        return found_;
    }

private:
    /* The area is the last of the device, or almost so. */
    void look_at_end()
    {
        const auto end = static_cast<int64_t>(device_.size() / SIZE_4K * SIZE_4K);
        for (int64_t distance = SIZE_4K; distance < BYTES_MIN; distance *= 2) {
            look(end - distance);
        }
        for (int64_t i = 1; i < LOOKS_AT_END; i++) {
            look(end - i * (BYTES_MIN / LOOKS_AT_END));
        }
    }

    /* The number of the inode at an offset; nothing when it is not sound. */
    std::optional<uint64_t> number_at(int64_t at)
    {
        if (!device_.read(at, block_.data(), SIZE_4K) ||
            !is_sound(inode_, block_.data(), sizeof(tier_inode_t))) {
            return std::nullopt;
        }
        return inode_.number.get(block_.data());
    }

    /* A sound inode counts as one of the area that its number and place make. */
    void look(int64_t at)
    {
        const std::optional<uint64_t> no = number_at(at);
        if (no && *no >= low_ && *no < TIER_INODE_NO_BOUND_V2) {
            const int64_t base = at - static_cast<int64_t>(*no * SIZE_4K);
            if (base + static_cast<int64_t>(low_ * SIZE_4K) >= start_) {
                trace_at(&bases_, base).add(*no, false);
            }
        }
    }

    /* Whether the area has a sound inode of that number. */
    bool has(uint64_t no)
    {
        if (number_at(static_cast<int64_t>(found_.base + no * SIZE_4K)) != no) {
            return false;
        }
        found_.found++;
        found_.in_use = found_.in_use || inode_.in_use.get(block_.data()) != 0;
        return true;
    }

    /* The lowest number found among those that the regular table may leave; the blocks before the
     * area tell whether a lower one was lost. */
    void find_first()
    {
        found_.first = low_;
        while (found_.first < high_ && !has(found_.first)) {
            found_.first++;
        }
        const uint64_t lowest = found_.first;
        while (found_.first > low_ && !blocks_end_before(found_.first)) {
            found_.first--;
        }
        if (!blocks_end_before(found_.first)) {
            found_.first = lowest;
        }
    }

    /* Whether the known blocks have whole sizes when the area begins with inode `no`. */
    bool blocks_end_before(uint64_t no) const
    {
        const uint64_t end = found_.base + no * SIZE_4K - SIZE_1M;
        const uint64_t size = (end - data_) / blocks_;
        return size * blocks_ == end - data_ && is_block_size(size);
    }

    void count()
    {
        constexpr uint64_t STEP = TIER_EXP_UNIT_V2 / LOOKS_A_UNIT;
        found_.count = TIER_EXP_CNT_MIN_V2;
        for (uint64_t end = STEP; found_.first + end <= TIER_INODE_NO_BOUND_V2; end += STEP) {
            if (has(found_.first + end - 1)) {
                found_.count = std::max(found_.count, tier_round_up(end, TIER_EXP_UNIT_V2));
            }
        }
    }

    const Device &device_;
    const tier_table &inode_;
    int64_t start_;
    uint64_t blocks_; /* that are known, and where they begin */
    uint64_t data_;
    uint64_t low_ = 0; /* bounds of its first number */
    uint64_t high_ = 0;
    Traces bases_; /* by the offset of inode 0, if the area went back to it */
    ExpansionFacts found_;
    alignas(SIZE_4K) Block block_{};
};

} // namespace

std::optional<ExpansionFacts> find_expansion(const Device &device, const tier_table &inode,
                                             const AreaFacts &facts,
                                             const ExtentTraces::value_type &extents, int64_t start)
{
    return ExpansionSearch(device, inode, facts, extents, start).run();
}

} // namespace tierctl
