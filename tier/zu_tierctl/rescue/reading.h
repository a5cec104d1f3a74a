#pragma once

#include "zu_tierctl/entry/mend.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* What the tables of a device say of its super block. */

/* Values that a number of the super block may have, from the first to the last, and why. */
struct Values {
    uint64_t first;
    uint64_t last;
    std::string reason;

    bool has(uint64_t value) const { return first <= value && value <= last; }
};

/* A value that follows from a reason. */
inline Values value_of(uint64_t value, std::string reason)
{
    return {value, value, std::move(reason)};
}

/* What is known of a number of the super block, by its key in a repair file. */
struct NumberReading {
    std::string_view key;
    Certainty certainty;
    std::vector<Values> values; /* never empty; the first of the first is the value chosen */

    uint64_t value() const { return values.front().first; }
};

/* A super block that says something of the lost one: what is left of it, or that of a similar
 * device. */
struct Hint {
    const tier_layout *layout;
    Block block;
    std::string source;
    bool own; /* it is what is left of the lost one */
};

/* The lower of two certainties. */
Certainty lower(Certainty a, Certainty b);

/* Readings of the numbers of a super block in the making, which follow hints where the tables leave
 * a choice. */
class Readings {
public:
    Readings(const tier_layout &layout, const std::vector<Hint> &hints)
        : layout_(layout), hints_(hints)
    {
    }

    /* Adds a number and gives the value chosen; `values` has the likeliest first. */
    uint64_t add(std::string_view key, Certainty certainty, std::vector<Values> values);

    /* Adds a number that has a single value. */
    uint64_t add(std::string_view key, Certainty certainty, uint64_t value, std::string reason);

    /* How certain a number is that has been added. */
    Certainty certainty(std::string_view key) const;

    /* Makes a number that has been added no more certain than that. */
    void limit(std::string_view key, Certainty certainty);

    std::vector<NumberReading> take() { return std::move(readings_); }

private:
    void follow(const Hint &hint, NumberReading *reading) const;

    const tier_layout &layout_;
    const std::vector<Hint> &hints_;
    std::vector<NumberReading> readings_;
};

/* The super block that a layout's tables describe. */
struct SuperReading {
    const tier_layout *layout = nullptr;
    Block block{};                         /* without checksum, and without what no table holds */
    uint64_t explained = 0;                /* entries that are sound under it */
    std::string explained_text{};          /* "4 bricks, 64 inodes, 255 extents" */
    Certainty certainty = Certainty::none; /* of the layout */
    std::vector<NumberReading> numbers{};
};

/* The number of that key in a super block; nothing when the layout has none. */
std::optional<uint64_t> super_number(const tier_layout &layout, const Block &block,
                                     std::string_view key);

/* How certain the end of a table is, after whose last known entry `clean_end` tells that nothing
 * but zeros follows: of `entries` so many are lost. */
Certainty end_certainty(uint64_t entries, uint64_t lost, bool clean_end);

} // namespace tierctl
