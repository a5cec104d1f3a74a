#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/mend.h"
#include "zu_tierctl/entry/table.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace tierctl {

/* Looking at the blocks of a device without its super block. */

constexpr auto MIB = int64_t{SIZE_1M};
constexpr int64_t up_to_mib(int64_t offset) { return (offset + MIB - 1) / MIB * MIB; }
constexpr int64_t down_to_mib(int64_t offset) { return offset / MIB * MIB; }

/* The first megabytes, in which every layout has tables. */
constexpr int64_t HEAD_START = TIER_SUPER_OFFSET + MIB;
constexpr int64_t HEAD_END = 5 * MIB;

/* Of each MiB where a table may go on after a gap so many bytes are looked at. */
constexpr int64_t PEEK_BYTES = 4 * int64_t{SIZE_4K};

/* Takes a block, or null when it cannot be read. */
using TakeBlock = std::function<void(int64_t offset, const uint8_t *block)>;

/* The blocks of a device. Those of its head are read once and kept, since each layout looks at
 * them. */
class BlockReader {
public:
    explicit BlockReader(const Device &device);

    const Device &device() const { return device_; }

    /* Gives the blocks from `from` up to `to`, but none after the end of the device. */
    void read(int64_t from, int64_t to, const TakeBlock &take) const;

private:
    struct Kept {
        bool is_read;
        Block block;
    };

    const Device &device_;
    int64_t end_; /* of its last whole block */
    std::vector<Kept> head_;
};

/* Which blocks are zero, as far as they were read in order. */
class Blanks {
public:
    void add(int64_t offset, bool is_blank);

    /* Whether all of these blocks were read and are zero. */
    bool are_blank(int64_t from, int64_t to) const;
    /* Where the last of these blocks ends that was read and is not zero; `from` when there is none.
     */
    int64_t content_end(int64_t from, int64_t to) const;

private:
    enum State : uint8_t { UNREAD, BLANK, FULL };
    State at(int64_t offset) const;

    std::vector<State> states_; /* from the head on */
};

/* The two largest of many numbers: one entry alone is no evidence. */
struct LargestTwo {
    uint64_t first = 0;
    uint64_t second = 0;

    void add(uint64_t value);
};

/* The sound entries of a table that all begin at the same offset, if their numbers are right. */
struct Trace {
    uint64_t sound = 0;
    uint64_t firm = 0; /* found where the device cannot have data */
    uint64_t first = UINT64_MAX;
    uint64_t last = 0; /* highest number */
    LargestTwo owner;  /* numbers of the entries that those in use belong to */

    void add(uint64_t no, bool is_firm);
};

/* The trace that belongs to `key`, made when there is none. A map that is full loses its smallest
 * one: a hostile device may have any number of them. */
template <class Traces>
auto &trace_at(Traces *traces, const typename Traces::key_type &key)
{
    constexpr size_t TRACES_MAX = 64;
    if (traces->size() >= TRACES_MAX && !traces->contains(key)) {
        traces->erase(std::ranges::min_element(
            *traces, {}, [](const auto &trace) { return trace.second.sound; }));
    }
    return (*traces)[key];
}

using Traces = std::map<int64_t, Trace>; /* by offset of entry 0 */

/* Those with the most entries that cannot be data, then with the most entries. */
template <class Traces>
struct Best {
    const typename Traces::value_type *best = nullptr; /* null: there is none */
    const typename Traces::value_type *next = nullptr;

    explicit Best(const Traces &traces)
    {
        for (const auto &trace : traces) {
            if (best == nullptr || rank(trace) > rank(*best)) {
                next = best;
                best = &trace;
            } else if (next == nullptr || rank(trace) > rank(*next)) {
                next = &trace;
            }
        }
    }

    /* One entry may be a stray. A place is likely that many more name, unless more than strays name
     * another: those may be what is left of an older cache. */
    Certainty certainty() const
    {
        constexpr uint64_t SOUND_MIN = 2;
        constexpr uint64_t STRAYS_MAX = 2;
        constexpr uint64_t TIMES = 4;
        const uint64_t rival = next == nullptr ? 0 : next->second.sound;
        return best != nullptr && best->second.sound >= SOUND_MIN && rival <= STRAYS_MAX &&
                       best->second.sound > TIMES * rival
                   ? Certainty::likely
                   : Certainty::none;
    }

private:
    static std::pair<uint64_t, uint64_t> rank(const typename Traces::value_type &trace)
    {
        return {trace.second.firm, trace.second.sound};
    }
};

/* The row of a table that the layout has. */
const tier_table &row_of(const tier_layout &layout, std::string_view name);

/* Whether the magic and the checksum of a record with a fixed length are right. */
bool is_sound(const tier_table &row, const uint8_t *block, uint32_t length);

/* The blocks in the head of a device that are sound entries of the layout, of those with a magic.
 */
uint64_t count_head(const BlockReader &blocks, const tier_layout &layout);

} // namespace tierctl
