#include "zu_tierctl/entry/mend.h"

#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/entry/fields.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <span>
#include <utility>

namespace tierctl {

namespace {

/* CRC-32 over up to so many bytes has a Hamming distance of 5: no two pairs of turned bits look
 * alike. Over up to a slot the distance is 4, which is enough for single bits only (P. Koopman:
 * 32-Bit Cyclic Redundancy Codes for Internet Applications, DSN 2002). */
constexpr size_t PAIRS_COVER_MAX = 371;

constexpr int BITS_MAX = 2;

/* The syndrome of each bit of a record: what the bit, turned alone, changes in the difference of
 * the stored and the computed checksum. Both are affine, so that the syndromes of several turned
 * bits add up without carry, whatever the record holds. */
class Syndromes {
public:
    Syndromes(const tier_table &row, uint32_t length)
    {
        Block record{};
        const uint32_t plain = row.crc(record.data(), length);
        size_t covered = 0; /* bytes */
        for (uint32_t byte = 0; byte < length; byte++) {
            bool is_covered = false;
            for (uint32_t bit = 0; bit < 8; bit++) {
                record[byte] = static_cast<uint8_t>(1U << bit);
                const uint32_t stored = row.checksum->get(record.data());
                const uint32_t change = row.crc(record.data(), length) ^ plain;
                is_covered = is_covered || change != 0;
                add(stored ^ change, byte * 8 + bit);
            }
            record[byte] = 0;
            covered += is_covered ? 1 : 0;
        }
        std::ranges::sort(sorted_, {}, &Turned::syndrome);
        tells_pairs_ = covered <= PAIRS_COVER_MAX;
    }

    /* The bit or the pair of bits that makes the syndrome; empty: more are wrong. */
    std::vector<size_t> bits_of(uint32_t syndrome) const
    {
        const Turned *one = find(syndrome);
        if (one != nullptr) {
            return {one->bit};
        }
        if (!tells_pairs_) {
            return {};
        }
        for (const Turned &first : sorted_) {
            const Turned *second = find(syndrome ^ first.syndrome);
            if (second != nullptr) {
                return {std::min(first.bit, second->bit), std::max(first.bit, second->bit)};
            }
        }
        return {};
    }

private:
    struct Turned {
        uint32_t syndrome;
        uint32_t bit;
    };

    void add(uint32_t syndrome, uint32_t bit)
    {
        if (syndrome != 0) { /* else the checksum does not cover the bit */
            sorted_.push_back({syndrome, bit});
            begun_.set(syndrome >> BEGIN_SHIFT);
        }
    }

    /* Null: no bit has that syndrome. */
    const Turned *find(uint32_t syndrome) const
    {
        if (!begun_.test(syndrome >> BEGIN_SHIFT)) {
            return nullptr;
        }
        const auto found = std::ranges::lower_bound(sorted_, syndrome, {}, &Turned::syndrome);
        return found != sorted_.end() && found->syndrome == syndrome ? &*found : nullptr;
    }

    static constexpr uint32_t BEGIN_SHIFT = 14;

    std::vector<Turned> sorted_;
    /* The first bits of each: nearly all searches for the second of a pair end here. */
    std::bitset<size_t{1} << (32 - BEGIN_SHIFT)> begun_;
    bool tells_pairs_ = false;
};

/* The syndromes of a table's records. Kept for the last length of each checksum. */
const Syndromes &syndromes_of(const tier_table &row, uint32_t length)
{
    using Checksum = std::pair<decltype(row.crc), const tier_checksum_place *>;
    /* GCOVR_EXCL_BR_START: no other thread */
    static std::map<Checksum, std::pair<uint32_t, Syndromes>> known;
    /* GCOVR_EXCL_BR_STOP */
    const Checksum checksum = {row.crc, row.checksum};
    const auto found = known.find(checksum);
    if (found != known.end() && found->second.first == length) {
        return found->second.second;
    }
    const auto made =
        known.insert_or_assign(checksum, std::pair(length, Syndromes(row, length))).first;
    return made->second.second;
}

void turn(Block &block, size_t bit)
{
    block[bit / 8] = static_cast<uint8_t>(block[bit / 8] ^ 1U << bit % 8);
}

/* One slot to be mended. */
class Patient {
public:
    Patient(const Metadata &metadata, const Table &table, uint64_t no, const Block &slot)
        : metadata_(metadata), table_(table), row_(*table.row), no_(no), slot_(slot)
    {
    }

    Mended mend() const
    {
        const int wrong_names = wrong_name_bits();
        if (row_.crc == nullptr || !table_.fits() || wrong_names > BITS_MAX || is_blank()) {
            return {};
        }
        const uint32_t difference = table_.checksum_difference(slot_.data());
        if (difference == 0) {
            return {};
        }
        const Syndromes &syndromes =
            syndromes_of(row_, static_cast<uint32_t>(table_.record_length));
        Mended mended = {Certainty::likely, slot_, syndromes.bits_of(difference)};
        for (const size_t bit : mended.bits) {
            turn(mended.block, bit);
        }
        if (mended.bits.empty() || !is_sound(mended.block) || is_another_tables()) {
            return {};
        }
        if (mended.bits.size() == 1 && wrong_names == 0) {
            mended.certainty = Certainty::certain;
        }
        return mended;
    }

private:
    /* In what names the entry: its magic and number, of a super block the version too. */
    int wrong_name_bits() const
    {
        const int version = is_super_block() ? wrong_bits(metadata_.layout->version_number,
                                                          metadata_.layout->version_value)
                                             : 0;
        return wrong_bits(row_.magic, row_.magic_value) + wrong_bits(row_.number, no_) + version;
    }

    int wrong_bits(const tier_number &number, uint64_t right) const
    {
        return number ? std::popcount(number.get(slot_.data()) ^ right) : 0;
    }

    /* Whether the record is all zero, whatever lies after it. */
    bool is_blank() const
    {
        return std::ranges::all_of(std::span(slot_).first(table_.record_length),
                                   [](uint8_t byte) { return byte == 0; });
    }

    bool is_super_block() const { return table_.name == SUPER_TABLE; }

    bool is_sound(const Block &block) const
    {
        return is_super_block() ? is_super(*metadata_.layout, block)
                                : table_.flaws(no_, block.data()) == 0;
    }

    /* Whether the slot holds what looks like an entry of another table. */
    bool is_another_tables() const
    {
        return std::ranges::any_of(metadata_.layout->tables, [this](const tier_table *other) {
            if (other == &row_ || other->crc == nullptr) {
                return false;
            }
            if (other->magic) {
                return other->magic.get(slot_.data()) == other->magic_value;
            }
            const Table table(*other, metadata_.super());
            return table.fits() && table.checksum_difference(slot_.data()) == 0;
        });
    }

    const Metadata &metadata_;
    const Table &table_;
    const tier_table &row_;
    uint64_t no_;
    const Block &slot_;
};

std::string turned_text(std::string_view name, std::string_view before, std::string_view after,
                        size_t bit)
{
    return fmt::format("{}: {} is {} with bit {} turned", name, before, after, bit);
}

std::string byte_text(uint8_t byte) { return fmt::format("{:#04x}", byte); }

std::string character_text(uint8_t byte)
{
    return byte < ' ' || byte > '~' ? byte_text(byte) : fmt::format("'{:c}'", byte);
}

/* A turned bit of a number, which is counted as people see the number. */
std::string number_bit_text(std::string_view name, const tier_column &column, const void *before,
                            const void *after)
{
    const auto shown = [&column](const void *record) {
        std::string text = get_fields({column}, record, 0, 0).front().exact;
        std::erase(text, '"');
        return text;
    };
    const uint64_t changed = column_number(column, before) ^ column_number(column, after);
    const bool is_swapped =
        column.form == zutr_form::swapped || column.form == zutr_form::swapped_hex8;
    const uint64_t bits = is_swapped ? __builtin_bswap32(static_cast<uint32_t>(changed)) : changed;
    return turned_text(name, shown(before), shown(after),
                       static_cast<size_t>(std::countr_zero(bits)));
}

/* Whether bit `bit` of a record is one of the column's. */
bool holds(const tier_column &column, size_t bit)
{
    const size_t byte = bit / 8;
    if (byte < column.at || byte >= column.at + column.size) {
        return false;
    }
    const size_t place = (byte - column.at) % sizeof(column.bits) * 8 + bit % 8;
    return (column.bits >> place & 1) != 0;
}

/* About the column that holds bit `bit` of a record; empty when none does. */
std::string column_bit_text(const std::string &prefix, const tier_columns &columns,
                            const uint8_t *before, const uint8_t *after, size_t bit)
{
    const auto column = std::ranges::find_if(
        columns, [bit](const tier_column &known) { return holds(known, bit); });
    if (column == columns.end()) {
        return "";
    }
    const std::string name =
        prefix + text_if(!prefix.empty() && !column->key.empty(), ".") + std::string(column->key);
    if (column->type == tier_column_type::number) {
        return number_bit_text(name, *column, before, after);
    }
    const size_t byte = bit / 8;
    const auto show = column->type == tier_column_type::text ? character_text : byte_text;
    return turned_text(fmt::format("{}[{}]", name, byte - column->at), show(before[byte]),
                       show(after[byte]), bit % 8);
}

/* The part of an entry that holds the bit, in its record; empty when none does. */
std::string part_bit_text(const Entry &entry, size_t bit)
{
    const tier_parts &parts = *entry.table.row->parts;
    const tier_columns columns = parts.fields();
    std::string text;
    each_part(entry, [&](uint32_t k, const void *record) {
        const size_t at = part_offset(entry, k) * 8;
        if (bit < at || bit >= at + size_t{parts.size} * 8) {
            return;
        }
        Block before{};
        memcpy(before.data(), record, parts.size);
        Block after = before;
        turn(after, bit - at);
        text = column_bit_text(part_name(entry, k), columns, before.data(), after.data(), bit - at);
    });
    return text;
}

/* About a bit by which the slot of an entry differs from `after`. */
std::string bit_text(const Entry &entry, const Block &after, size_t bit)
{
    const tier_table &row = *entry.table.row;
    std::string text;
    if (row.fields != nullptr) {
        text = column_bit_text("", row.fields(), entry.slot, after.data(), bit);
    }
    if (text.empty() && row.parts != nullptr) {
        text = part_bit_text(entry, bit);
    }
    const size_t byte = bit / 8;
    return !text.empty()
               ? text
               : turned_text(
                     fmt::format("byte {}{}", byte, stretch_text(entry.metadata, row, byte)),
                     byte_text(entry.slot[byte]), byte_text(after[byte]), bit % 8);
}

} // namespace

std::string_view certainty_name(Certainty certainty)
{
    constexpr std::string_view NAMES[] = {"certain", "likely", "none"};
    return NAMES[static_cast<size_t>(certainty)];
}

Mended mend(const Metadata &metadata, const Table &table, uint64_t no, const Block &slot)
{
    return Patient(metadata, table, no, slot).mend();
}

std::vector<std::string> mend_texts(const Metadata &metadata, const Table &table, uint64_t no,
                                    const Block &slot, const Mended &mended)
{
    std::vector<std::string> texts;
    Block before = slot;
    for (const size_t bit : mended.bits) {
        Block after = before;
        turn(after, bit);
        texts.push_back(bit_text({metadata, table, no, before.data()}, after, bit));
        before = after;
    }
    return texts;
}

std::string explained_text(size_t bits, std::string_view what)
{
    return fmt::format("{} {}", bits == 1 ? "one flipped bit explains" : "two flipped bits explain",
                       what);
}

} // namespace tierctl
