#include "zu_tierctl/rescue/areas.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

namespace {

/* So many entries at least, and so many times as many as for the next, make a size of the blocks
 * likely; a few blocks fill a device by chance. */
constexpr uint64_t SIZE_MIN = 3;
constexpr uint64_t SIZE_TIMES = 4;
constexpr uint64_t FILLING_MIN = 16;

/* So many blocks more than the extents that are known may be lost at the end of the table. */
constexpr uint64_t END_LOSS = 8;

/* The numbers in the making. */
class AreaReader {
public:
    AreaReader(const AreaFacts &facts, const ExtentEvidence &evidence,
               const std::optional<ExpansionFacts> &expansion, Readings *to)
        : facts_(facts), evidence_(evidence), expansion_(expansion), to_(*to),
          inodes_(facts.inodes), extents_(facts.extents)
    {
    }

    AreaNumbers run()
    {
        count_losses();
        read_bricks();
        read_extents();
        read_inodes();
        read_block_size();
        read_block_count();
        return std::move(numbers_);
    }

private:
    /* Of the entries up to the last of each table. */
    void count_losses()
    {
        const auto add = [this](const Trace &trace) {
            entries_ += trace.sound == 0 ? 0 : trace.last + 1;
            explained_ += trace.sound;
        };
        add(facts_.bricks);
        if (inodes_.best != nullptr) {
            inode_end_ = inodes_.best->second.last + 1;
            add(inodes_.best->second);
        }
        numbers_.explained = explained_;
        numbers_.explained_text = fmt::format("{} bricks, {} inodes", facts_.bricks.sound,
                                              numbers_.explained - facts_.bricks.sound);
        if (extents_.best != nullptr) {
            known_ = extents_.best->second.last + 1;
            numbers_.extents = &extents_.best->second;
            numbers_.extent_length = extents_.best->first.second;
            add(extents_.best->second);
        }
    }

    /* How sure the end of a table is after which `from` to `to` should be zero. */
    Certainty end_of(int64_t from, int64_t to) const
    {
        return end_certainty(entries_, entries_ - std::min(entries_, explained_),
                             facts_.blanks.are_blank(from, to));
    }

    /* The inodes begin where the bricks end. */
    void read_bricks()
    {
        const uint64_t seen = facts_.bricks.sound == 0 ? 0 : facts_.bricks.last + 1;
        uint64_t needed = seen;
        std::vector<Candidate> counts;
        for (const auto *inodes : {inodes_.best, inodes_.next}) {
            if (inodes != nullptr) {
                counts.push_back({static_cast<uint64_t>(inodes->first - AREA_START) / SIZE_4K,
                                  fmt::format("{} sound inodes have numbers that begin at {}, "
                                              "where the bricks end",
                                              inodes->second.sound, inodes->first)});
            }
        }
        if (inodes_.best != nullptr) {
            needed = std::max(needed, inodes_.best->second.owner.second + 1);
        }
        Certainty certainty = inodes_.certainty();
        if (counts.empty() || needed > counts.front().value) {
            certainty = Certainty::none;
            counts.push_back({std::clamp<uint64_t>(needed, 1, TIER_BRICK_CNT_MAX),
                              "no brick after these is known or referred to"});
        } else if (inodes_.next == nullptr && seen == counts.front().value &&
                   is_firm(inodes_.best->second)) {
            certainty = Certainty::certain; /* the last brick and the first inode side by side */
        }
        numbers_.brick_cnt =
            to_.add("brick_cnt", certainty, std::move(counts), {1, TIER_BRICK_CNT_MAX});
        inode_start_ = AREA_START + static_cast<int64_t>(numbers_.brick_cnt * SIZE_4K);
        entries_ += numbers_.brick_cnt - std::min(numbers_.brick_cnt, seen);
    }

    /* Whether entries with the first of its table were found where no data can be. */
    static bool is_firm(const Trace &trace) { return trace.firm > 1 && trace.first == 0; }

    /* Those of a table that begins in the MiB where the inodes end, and the only ones, are
     * certain. */
    void read_extents()
    {
        const uint64_t end = tier_round_up(static_cast<uint64_t>(inode_start_) +
                                               std::max<uint64_t>(inode_end_, 1) * SIZE_4K,
                                           SIZE_1M);
        extent_start_ = static_cast<int64_t>(end);
        if (extents_.best == nullptr) {
            return;
        }
        const bool is_adjacent = extents_.best->first.first == extent_start_;
        extent_start_ = extents_.best->first.first;
        numbers_.extents_certainty = is_adjacent && extents_.next == nullptr &&
                                             is_firm(extents_.best->second) && inode_end_ != 0
                                         ? Certainty::certain
                                         : extents_.certainty();
    }

    Certainty places() const
    {
        return lower(to_.certainty("brick_cnt"), numbers_.extents_certainty);
    }

    /* The inodes end in the MiB before the extents; whether the last is the last of the table
     * nothing says but the numbers of another area, and what follows. */
    void read_inodes()
    {
        const auto [least, most] = inode_bounds(inode_start_, extent_start_);
        std::vector<Candidate> counts;
        Certainty certainty = places();
        if (expansion_) {
            const uint64_t first = expansion_->first;
            counts.push_back(
                {first, fmt::format("the numbers of the expansion area go on from {}", first)});
            certainty = lower(certainty, first == inode_end_ ? Certainty::likely : Certainty::none);
        } else {
            uint64_t referred =
                numbers_.extents == nullptr ? 0 : numbers_.extents->owner.second + 1;
            referred = referred <= most ? referred : 0;
            const uint64_t count = std::clamp(std::max(inode_end_, referred), least, most);
            counts.push_back(
                {count,
                 fmt::format("the last {} inode is {}, and the extents begin at {}",
                             count == inode_end_ ? "known" : "needed", count - 1, extent_start_)});
            const int64_t end = inode_start_ + static_cast<int64_t>(count * SIZE_4K);
            certainty = lower(certainty,
                              count == inode_end_ ? end_of(end, extent_start_) : Certainty::none);
        }
        const bool is_bounded = places() == Certainty::certain;
        Range range = {1, TIER_INODE_CNT_MAX};
        if (is_bounded) {
            range = {least, most, "what ends in the MiB before the extents"};
        }
        numbers_.inode_cnt = to_.add("inode_cnt", certainty, std::move(counts), range);
    }

    DataArea area() const
    {
        return {extent_start_, expansion_ ? expansion_->data_end() : facts_.device_size};
    }

    /* A size, and the entries that say so: those that hold just as much and none holds more, pieces
     * that lie in their files as if, and all when the blocks then end with the last byte. */
    struct Size {
        uint64_t size;
        uint64_t entries = 0;
        std::string reason{};

        void add(uint64_t count, const std::string &why)
        {
            entries += count;
            if (count != 0) {
                reason += (reason.empty() ? "" : ", ") + why;
            }
        }
    };

    uint64_t least_size() const
    {
        const uint64_t held =
            numbers_.extents == nullptr ? TIER_BLOCK_SIZE_MIN : least_block_size(*numbers_.extents);
        return std::min<uint64_t>(std::max(held, evidence_.least_block), TIER_BLOCK_SIZE_MAX);
    }

    std::vector<Size> sizes() const
    {
        const uint64_t least = least_size();
        std::vector<Size> all;
        all.push_back({least});
        const auto add = [&](uint64_t size, uint64_t count, const std::string &why) {
            if (size >= least && is_block_size(size)) {
                auto found = std::ranges::find(all, size, &Size::size);
                if (found == all.end()) {
                    found = all.insert(all.end(), Size{size});
                }
                found->add(count, why);
            }
        };
        for (const auto &[size, count] : evidence_.blocks) {
            add(size, count,
                fmt::format("{} pieces lie in their files as if blocks were so large", count));
        }
        if (numbers_.extents != nullptr) {
            for (const auto &[size, count] : numbers_.extents->sizes) {
                add(size, count,
                    fmt::format("{} of {} extents in use hold as much", count,
                                numbers_.extents->in_use));
            }
        }
        if (known_ >= FILLING_MIN) {
            add(area().size_that_fills(known_).value_or(0), 0, "");
            for (Size &size : all) {
                size.add(fills(size.size) ? numbers_.extents->sound : 0,
                         "the blocks end with the last byte");
            }
        }
        std::ranges::stable_sort(all, std::greater<>(), &Size::entries);
        return all;
    }

    /* Whether blocks of that size end with the last byte, and the extents that are not known may
     * have been lost. */
    bool fills(uint64_t size) const
    {
        const uint64_t blocks = area().most_blocks(size);
        const uint64_t lost = known_ - numbers_.extents->sound;
        return blocks >= known_ && blocks <= known_ + END_LOSS + lost &&
               area().size_that_fills(blocks) == size;
    }

    void read_block_size()
    {
        std::vector<Size> all = sizes();
        all.front().reason += all.front().reason.empty() ? "extents hold no more" : "";
        const uint64_t next = all.size() < 2 ? 0 : all[1].entries;
        const bool is_likely =
            all.front().entries >= SIZE_MIN && all.front().entries >= SIZE_TIMES * next;
        std::vector<Candidate> candidates;
        candidates.reserve(all.size());
        for (Size &size : all) {
            candidates.push_back({size.size, std::move(size.reason)});
        }
        numbers_.block_size = to_.add(
            "block_size",
            is_likely ? lower(Certainty::likely, numbers_.extents_certainty) : Certainty::none,
            std::move(candidates),
            {TIER_BLOCK_SIZE_MIN, TIER_BLOCK_SIZE_MAX, "in steps of 4096: what the layout allows"});
    }

    void read_block_count()
    {
        const uint64_t room = std::max<uint64_t>(area().most_blocks(numbers_.block_size), 1);
        std::vector<Candidate> counts;
        Certainty certainty = Certainty::none;
        if (numbers_.extents == nullptr) {
            counts.push_back({room, "blocks that have room"});
        } else {
            counts.push_back({known_, fmt::format("the last known extent is {}", known_ - 1)});
            const int64_t end = extent_start_ + static_cast<int64_t>(known_ * SIZE_4K);
            if (room / 2 <= known_) { /* or half of the table has been zeroed */
                certainty = end_of(end, end + MIB);
            }
            if (fills(numbers_.block_size)) {
                certainty = to_.certainty("block_size");
                counts.insert(counts.begin(), {room, "as many blocks end with the last byte"});
            }
        }
        numbers_.block_cnt = to_.add(
            "block_cnt", lower(Certainty::likely, lower(certainty, numbers_.extents_certainty)),
            std::move(counts), {1, UINT32_MAX});
    }

    const AreaFacts &facts_;
    const ExtentEvidence &evidence_;
    const std::optional<ExpansionFacts> &expansion_;
    Readings &to_;
    Best<Traces> inodes_;
    Best<ExtentTraces> extents_;
    AreaNumbers numbers_;
    uint64_t entries_ = 0; /* up to the last of each table, and how many are sound */
    uint64_t explained_ = 0;
    uint64_t inode_end_ = 0; /* after the last known one */
    uint64_t known_ = 1;     /* extents, up to the last known one */
    int64_t inode_start_ = 0;
    int64_t extent_start_ = 0;
};

} // namespace

AreaNumbers read_areas(const AreaFacts &facts, const ExtentEvidence &evidence,
                       const std::optional<ExpansionFacts> &expansion, Readings *to)
{
    return AreaReader(facts, evidence, expansion, to).run();
}

} // namespace tierctl
