#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/mend.h"
#include "zu_tierctl/entry/table.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tierctl {

/* Looking at the blocks of a device without its super block. */

/* What a block of 4096 bytes holds, as far as can be told. */
enum class BlockState : uint8_t {
    unread, /* it was not looked at */
    zero,
    unreadable,
    other, /* none of the layout's entries, or a damaged one */
    brick,
    inode,
    shard,
    extent,
};

/* The states of the blocks from an offset on, in their order. */
class BlockStates {
public:
    explicit BlockStates(int64_t start) : start_(start) {}

    void set(int64_t offset, BlockState state);
    BlockState at(int64_t offset) const;

    /* Those of blocks from `from` up to, but not at, `to`. */
    uint64_t count(int64_t from, int64_t to, BlockState state) const;
    /* Whether all of them are zero. */
    bool are_zero(int64_t from, int64_t to) const;

    int64_t start() const { return start_; }
    int64_t end() const { return start_ + static_cast<int64_t>(states_.size()) * SIZE_4K; }

private:
    int64_t start_;
    std::vector<BlockState> states_;
};

/* Calls `take` with each block from `offset` on: with null when it cannot be read. Blocks after the
 * end of the device are not given. `take` gives whether to go on. */
void read_blocks(const Device &device, int64_t offset, uint64_t count,
                 const std::function<bool(int64_t offset, const uint8_t *block)> &take);

/* The entries of a table that all begin at the same offset, if their numbers are right. */
struct Trace {
    uint64_t sound = 0;
    uint64_t last = 0;  /* highest number */
    uint64_t known = 0; /* the same, that of damaged entries included */

    void add(uint64_t no);       /* a sound entry */
    void add_known(uint64_t no); /* a damaged one that still has its number */
};

/* Traces by the offset of entry 0. */
using Traces = std::map<int64_t, Trace>;

/* The trace with the most sound entries, null when there is none, and how sure it is: against the
 * next. */
struct BestTrace {
    const Traces::value_type *best = nullptr;
    const Traces::value_type *next = nullptr;
    Certainty certainty = Certainty::none;
};
BestTrace best_trace(const Traces &traces);

/* How sure the place with the most sound entries is: one entry may be a stray. */
Certainty place_certainty(uint64_t most, uint64_t next);

/* The record of an entry with a fixed length is sound but for its number. */
bool is_sound(const tier_table &row, const uint8_t *block, uint32_t length);

/* Entries of layouts with other magics. A survey that finds some of them and none of its own ends:
 * it would only read their data. */
class Strangers {
public:
    explicit Strangers(const tier_layout &own);

    void look(const uint8_t *block);
    bool are_many() const;

private:
    struct Kind {
        const tier_table *row;
        uint32_t length;
    };

    std::vector<Kind> kinds_;
    uint64_t found_ = 0;
};

} // namespace tierctl
