#pragma once

#include "zu_tier/record/record.h"

#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

/* Tables of fields and of repair keys as data, for programs that treat all tables alike. */

enum class tier_column_type { number, text, uuid };

struct tier_column {
    std::string_view key;
    tier_column_type type;
    zutr_form form;

    /* Where it lies: bytes of the record, and which bits of each eight of them. Zeros when it is
     * only computed. */
    uint32_t at;
    uint32_t size;
    uint64_t bits;

    /* A number that is not read from its place: computed from the record; else null. */
    uint64_t (*compute)(const void *record);
};
using tier_columns = std::vector<tier_column>;

/* Byte of a member within its record. */
template <class Record, class Member>
uint32_t tier_offset_of(Member Record::*member)
{
    static constexpr Record AT_ZERO{};
    return static_cast<uint32_t>(reinterpret_cast<const uint8_t *>(&(AT_ZERO.*member)) -
                                 reinterpret_cast<const uint8_t *>(&AT_ZERO));
}

template <class Member>
constexpr tier_column_type TIER_COLUMN_TYPE =
    !std::is_array_v<Member>                             ? tier_column_type::number
    : std::is_same_v<std::remove_extent_t<Member>, char> ? tier_column_type::text
                                                         : tier_column_type::uuid;

/* All bits of a number of `size` bytes. */
constexpr uint64_t tier_all_bits(size_t size)
{
    return size < sizeof(uint64_t) ? (uint64_t{1} << 8 * size) - 1 : ~uint64_t{0};
}

template <class Record, class Member>
tier_column tier_make_column(std::string_view key, Member Record::*member, zutr_form form)
{
    return {key,
            TIER_COLUMN_TYPE<Member>,
            form,
            tier_offset_of(member),
            sizeof(Member),
            tier_all_bits(sizeof(Member)),
            nullptr};
}

/* Of a row of a table of fields or keys. */
template <class Row>
tier_column tier_make_column(const Row &row)
{
    if constexpr (requires { row.value; }) {
        return {row.key, tier_column_type::number, row.form, 0, 0, 0, row.value};
    } else if constexpr (requires { row.bits; }) {
        tier_column column = tier_make_column(row.key, row.member, zutr_form::plain);
        column.bits = row.bits.mask();
        return column;
    } else if constexpr (requires { row.swapped; }) {
        return tier_make_column(row.key, row.member, row.swapped ? zutr_form::swapped : row.form);
    } else {
        return tier_make_column(row.key, row.member, row.form);
    }
}

/* The columns of a table of fields or keys. */
template <class... Rows>
tier_columns tier_make_columns(const std::tuple<Rows...> &rows)
{
    return std::apply([](const auto &...row) { return tier_columns{tier_make_column(row)...}; },
                      rows);
}
