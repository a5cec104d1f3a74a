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

/* A value that a number of the super block may have, and why. */
struct Candidate {
    uint64_t value;
    std::string reason;
};

/* Everything that a number may be, whatever the candidates say. */
struct Range {
    uint64_t first;
    uint64_t last;
    std::string_view reason = "what the layout allows";
};
/* Of an offset or a size, of which the tables give no bound; more lies on no device. */
constexpr Range ANY_NUMBER = {0, uint64_t{1} << 62, "no table says"};

/* What is known of a number of the super block, by its key in a repair file. */
struct NumberReading {
    std::string_view key;
    Certainty certainty;
    std::vector<Candidate> candidates{}; /* never empty; the likeliest first, each once */
    std::optional<Range> range{};        /* none: it follows from other numbers, or is certain */

    uint64_t value() const { return candidates.front().value; }

    /* Whether it is one of the candidates or in the range. */
    bool may_be(uint64_t value) const;
};

/* A super block that says something of the lost one: what is left of it, or that of a similar
 * device. */
struct Hint {
    const tier_layout *layout;
    Block block;
    std::string source;
    bool is_proof;            /* it is what is left of the lost one, and all that the tables say */
    bool is_doubtful = false; /* some of what the tables make likely it says otherwise */
    bool is_denied = false;   /* its checksum says that it is wrong in what no table tells */
};

/* The lower of two certainties. */
Certainty lower(Certainty a, Certainty b);

/* "certain", "likely", "not certain" */
std::string_view certainty_text(Certainty certainty);

/* Readings of the numbers of a super block in the making, which follow hints where the tables leave
 * a choice. */
class Readings {
public:
    Readings(const tier_layout &layout, const std::vector<Hint> &hints)
        : layout_(layout), hints_(hints)
    {
    }

    /* Adds a number and gives the value chosen. */
    uint64_t add(std::string_view key, Certainty certainty, std::vector<Candidate> candidates,
                 const Range &range);

    /* Adds a number with a single candidate. */
    uint64_t add(std::string_view key, Certainty certainty, uint64_t value, std::string reason,
                 const Range &range);

    /* Adds a number that follows from others, or from the layout. */
    uint64_t add(std::string_view key, Certainty certainty, uint64_t value, std::string reason);

    /* How certain a number is that has been added. */
    Certainty certainty(std::string_view key) const;

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
    bool is_contested = false;             /* other entries may be sound, those of an older cache */
    Certainty certainty = Certainty::none; /* of the layout */
    std::vector<NumberReading> numbers{};
};

/* The number of that key in a super block; nothing when the layout has none. */
std::optional<uint64_t> super_number(const tier_layout &layout, const Block &block,
                                     std::string_view key);

/* The block with its checksum. */
Block sealed(const tier_layout &layout, Block block);

/* How sure the end of a table is when `lost` of all `entries` are damaged. `clean_end`: nothing but
 * zeros follows its last entry. */
Certainty end_certainty(uint64_t entries, uint64_t lost, bool clean_end);

} // namespace tierctl
