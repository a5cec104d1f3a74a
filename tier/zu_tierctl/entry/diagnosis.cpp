#include "zu_tierctl/entry/diagnosis.h"

#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/fields.h"
#include "zu_tierctl/entry/mend.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <optional>

namespace tierctl {

namespace {

/* Of magic and version together: a block with more wrong bits resembles no layout, unless its
 * checksum says so. */
constexpr int WRONG_BITS_MAX = 4;

/* A block taken as a super block of a layout. */
class Suspect {
public:
    Suspect(const tier_layout &layout, const Block &block)
        : layout_(layout), row_(*layout.tables.front()), found_(block), block_(block),
          length_(static_cast<uint32_t>(
              std::clamp<uint64_t>(row_.record_length(block.data()), TIER_CHECKSUM_SIZE, SIZE_4K)))
    {
        row_.magic.put(block_.data(), row_.magic_value);
        layout_.version_number.put(block_.data(), layout_.version_value);
    }

    const tier_layout &layout() const { return layout_; }

    int wrong_bits() const
    {
        return differing_bits(row_.magic) + differing_bits(layout_.version_number);
    }

    /* Whether the checksum is right, with the magic and the version of the layout or with those
     * that were found. */
    bool is_sealed() const { return is_sealed(block_) || is_sealed(found_); }

    /* Whether magic, version and at most two other bits are all that is wrong. */
    bool is_explained() const
    {
        return is_sealed() || std::has_single_bit(stored() ^ computed(block_)) ||
               mended().certainty != Certainty::none;
    }

    std::vector<std::string> reasons() const
    {
        std::vector<std::string> reasons;
        add_number("magic", row_.magic, reasons);
        add_number("version", layout_.version_number, reasons);
        if (!is_sealed(block_)) {
            reasons.push_back(is_sealed(found_) ? "its checksum is that of the block as it is"
                                                : checksum_text());
        }
        return reasons;
    }

private:
    int differing_bits(const tier_number &number) const
    {
        return std::popcount(number.get(found_.data()) ^ number.get(block_.data()));
    }

    void add_number(const char *name, const tier_number &number,
                    std::vector<std::string> &reasons) const
    {
        const int bits = differing_bits(number);
        if (bits != 0) {
            reasons.push_back(fmt::format("its {} is {:#x}, not {:#x}: {} wrong bit{}", name,
                                          number.get(found_.data()), number.get(block_.data()),
                                          bits, bits == 1 ? "" : "s"));
        }
    }

    uint32_t stored() const
    {
        Block copy = found_;
        return row_.checksum->get(copy.data());
    }

    bool is_sealed(const Block &block) const { return computed(block) == stored(); }

    uint32_t computed(Block block) const { return row_.crc(block.data(), length_); }

    Mended mended() const
    {
        const Metadata metadata = {&layout_, block_, {Table(row_, block_.data())}};
        return mend(metadata, metadata.tables.front(), 0, block_);
    }

    std::string checksum_text() const
    {
        const uint32_t expected = computed(block_);
        const std::string both =
            fmt::format("{:#x} is stored, {:#x} belongs to the content", stored(), expected);
        if (std::has_single_bit(stored() ^ expected)) {
            return "one bit of its checksum is wrong: " + both;
        }
        const Mended whole = mended();
        return whole.bits.size() == 1
                   ? bit_text(whole.bits.front(), whole.block)
                   : fmt::format("its checksum does not match its content, in which more than one "
                                 "bit is wrong: {}",
                                 both);
    }

    /* What is wrong with a field when this bit of it is. */
    std::string bit_text(size_t bit, const Block &right) const
    {
        const size_t byte = bit / 8;
        for (const tier_column &column : row_.fields()) {
            const std::string is = valid_utf8(column_text(column, block_.data()));
            const std::string should_be = valid_utf8(column_text(column, right.data()));
            const bool holds_byte = column.at <= byte && byte < column.at + column.size;
            if (column.compute == nullptr && holds_byte && is != should_be) {
                return fmt::format("one bit of {} is wrong: {} should be {}", column.key, is,
                                   should_be);
            }
        }
        return fmt::format("one bit of byte {} is wrong: {:#04x} should be {:#04x}", byte,
                           block_[byte], right[byte]);
    }

    const tier_layout &layout_;
    const tier_table &row_;
    const Block &found_;
    Block block_; /* the same with the magic and the version of the layout */
    uint32_t length_;
};

/* The layout that the block most likely had. */
std::optional<Suspect> find_suspect(const Block &block)
{
    std::optional<Suspect> likely;
    for (const tier_layout *layout : tier_layouts()) {
        Suspect suspect(*layout, block);
        if (suspect.is_sealed()) {
            return suspect;
        }
        const int bits = suspect.wrong_bits();
        if (bits <= WRONG_BITS_MAX && (!likely || bits < likely->wrong_bits())) {
            likely.emplace(suspect);
        }
    }
    return likely;
}

} // namespace

std::vector<std::string> super_flaws(const Block &block)
{
    const std::optional<Suspect> suspect = find_suspect(block);
    return suspect ? suspect->reasons() : std::vector<std::string>();
}

std::string super_ways(const std::string &device)
{
    const std::string path = shell_word(device);
    return fmt::format("zu_tierctl rescue {}, or zu_tierctl revert SAVED {} super 0", path, path);
}

std::string diagnose_super(const std::string &device, const Block &block)
{
    const std::optional<Suspect> suspect = find_suspect(block);
    const std::string ways = super_ways(device);
    if (!suspect) {
        return fmt::format("{} has no super block of a known layout; what helps: {}", device, ways);
    }
    const std::string_view layout = suspect->layout().name;
    const std::string option =
        suspect->wrong_bits() == 0 ? "" : fmt::format(" --layout {}", layout);
    const std::string own_way =
        text_if(/* else its file has the damage */
                suspect->is_explained(),
                fmt::format("zu_tierctl template {} super 0{}, ", shell_word(device), option));
    return fmt::format("{} has a damaged super block of layout {}: {}; what helps: {}{}", device,
                       layout, fmt::join(suspect->reasons(), ", "), own_way, ways);
}

} // namespace tierctl
