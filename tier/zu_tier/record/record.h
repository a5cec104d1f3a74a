#pragma once

#include "common/zutr_utils.h"
#include "zu_tier/format/bits.h"
#include "zu_tier/record/literal.h"
#include "zu_tier/record/text.h"
#include "zu_tier/record/time.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

/* A record is printed from a table of its fields: key, member, form, in output order. The compiler,
 * which sees the table as a constant, works out what is the same in every record. */

enum class zutr_form {
    plain,        /* number: decimal; char[]: text; 16 bytes: UUID */
    hex,          /* "0x1f" */
    time,         /* "2024-05-06 07:08:09" from nanoseconds since the epoch */
    hex_and_time, /* "0x1f(2024-05-06 07:08:09)" */
    swapped_hex8, /* "0a000000": eight digits of the byte-reversed number, no prefix */
    swapped,      /* decimal of the byte-reversed number; for repair keys */
    hex16,        /* "0x000000000000001f": all digits of 64 bits */
};

template <class Record, class Member>
struct zutr_field {
    using member_type = Member;
    std::string_view key;
    Member Record::*member;
    zutr_form form = zutr_form::plain;
};
template <class Record, class Member>
zutr_field(std::string_view, Member Record::*, zutr_form = {}) -> zutr_field<Record, Member>;

/* A number that is shown but not stored. */
template <class Record>
struct zutr_computed {
    using member_type = uint64_t;
    std::string_view key;
    uint64_t (*value)(const void *record);
    static constexpr zutr_form form = zutr_form::plain;
};

/* A bit field of a member. */
template <class Record, class Member>
struct zutr_bits {
    using member_type = uint64_t;
    tier_bits bits;
    Member Record::*member;
    std::string_view key = bits.key;
    static constexpr zutr_form form = zutr_form::plain;
};
template <class Record, class Member>
zutr_bits(tier_bits, Member Record::*) -> zutr_bits<Record, Member>;

/* What stands before and after the value of a field: quotation marks, a prefix. */
template <class Field>
constexpr bool ZUTR_IS_ARRAY = std::is_array_v<typename Field::member_type>;

template <class Field>
constexpr std::string_view zutr_closing(const Field &field)
{
    return ZUTR_IS_ARRAY<Field> || field.form != zutr_form::plain ? "\"" : "";
}

template <class Field>
constexpr std::string_view zutr_opening(const Field &field)
{
    if (field.form == zutr_form::hex || field.form == zutr_form::hex_and_time) {
        return "\"0x";
    }
    return zutr_closing(field);
}

template <const auto &Fields>
constexpr size_t ZUTR_FIELD_COUNT = std::tuple_size_v<std::remove_cvref_t<decltype(Fields)>>;

/* The text between the value before field `I` of a table and its own; after the last field, the
 * text that closes its value. */
template <const auto &Fields, size_t I>
constexpr zutr_literal zutr_between()
{
    zutr_literal literal;
    if constexpr (I > 0) {
        literal << zutr_closing(std::get<I - 1>(Fields));
    }
    if constexpr (I < ZUTR_FIELD_COUNT<Fields>) {
        const auto &field = std::get<I>(Fields);
        literal << (I > 0 ? ",\"" : "\"") << field.key << "\":" << zutr_opening(field);
    }
    return literal;
}
template <const auto &Fields, size_t I>
constexpr zutr_literal ZUTR_BETWEEN = zutr_between<Fields, I>();

template <zutr_form Form, class Member>
char *zutr_put_value(char *to, const Member &value)
{
    if constexpr (std::is_array_v<Member>) {
        if constexpr (std::is_same_v<std::remove_extent_t<Member>, char>) {
            const size_t length = zutr_bounded(value).size();
            memcpy(to, value, length);
            return to + length;
        } else {
            static_assert(sizeof(Member) == 16);
            memcpy(to, zutr_uuid_utoa(value), ZUTR_UUID_TEXT_LEN);
            return to + ZUTR_UUID_TEXT_LEN;
        }
    } else {
        constexpr uint32_t BITS = 8 * sizeof(Member);
        const auto number = static_cast<std::make_unsigned_t<Member>>(value);
        if constexpr (Form == zutr_form::plain) {
            return zutr_put_decimal<BITS>(to, number);
        } else if constexpr (Form == zutr_form::time) {
            return zutr_put_time(to, number);
        } else if constexpr (Form == zutr_form::swapped_hex8) {
            return zutr_put_hex<32>(to, __builtin_bswap32(number), 8);
        } else {
            to = zutr_put_hex<std::max(BITS, 32U)>(to, number);
            if constexpr (Form == zutr_form::hex_and_time) {
                *to = '(';
                to = zutr_put_time(to + 1, number);
                *to++ = ')';
            }
            return to;
        }
    }
}

template <const auto &Fields, size_t I, class Record>
char *zutr_put_field(char *to, const Record &record)
{
    constexpr const auto &FIELD = std::get<I>(Fields);
    to = zutr_put_literal<ZUTR_BETWEEN<Fields, I>>(to);
    if constexpr (requires { FIELD.bits; }) {
        return zutr_put_decimal<FIELD.bits.width>(to, FIELD.bits.get(record.*FIELD.member));
    } else if constexpr (requires { FIELD.member; }) {
        return zutr_put_value<FIELD.form>(to, record.*FIELD.member);
    } else {
        return zutr_put_value<FIELD.form>(to, FIELD.value(&record));
    }
}

/* The most bytes that a value takes while it is written. */
template <class Field>
constexpr size_t zutr_value_room(const Field &field)
{
    if (ZUTR_IS_ARRAY<Field>) {
        return std::max(sizeof(typename Field::member_type), ZUTR_UUID_TEXT_LEN);
    }
    const bool time = field.form == zutr_form::time || field.form == zutr_form::hex_and_time;
    return ZUTR_DIGITS_ROOM + (time ? ZUTR_TIME_ROOM : 0);
}

/* The most bytes that the fields take while they are written. */
template <const auto &Fields, size_t... I>
constexpr size_t zutr_fields_room(std::index_sequence<I...>)
{
    return ((ZUTR_BETWEEN<Fields, I>.room() + zutr_value_room(std::get<I>(Fields))) + ... +
            ZUTR_BETWEEN<Fields, sizeof...(I)>.room());
}
template <const auto &Fields>
constexpr size_t ZUTR_FIELDS_ROOM =
    zutr_fields_room<Fields>(std::make_index_sequence<ZUTR_FIELD_COUNT<Fields>>());

/* Writes the fields of `record` at `to` as members of a JSON object, with commas between them and
 * without the object's braces; gives the end. */
template <const auto &Fields, class Record>
char *zutr_put_members(char *to, const Record &record)
{
    constexpr size_t COUNT = ZUTR_FIELD_COUNT<Fields>;
    [&]<size_t... I>(std::index_sequence<I...>)
    {
        ((to = zutr_put_field<Fields, I>(to, record)), ...);
    }
    (std::make_index_sequence<COUNT>());
    return zutr_put_literal<ZUTR_BETWEEN<Fields, COUNT>>(to);
}

template <const auto &Fields, class Record>
void zutr_put_fields(zutr_text &out, const Record &record)
{
    static_assert(ZUTR_FIELDS_ROOM<Fields> <= ZUTR_TEXT_ROOM);
    out.advance(zutr_put_members<Fields>(out.room(ZUTR_FIELDS_ROOM<Fields>), record));
}

/* Prints a table entry as a JSON object, its slot's device offset last. */
template <const auto &Fields, class Record>
void zutr_print_entry(const Record &record, int64_t offset, FILE *fp)
{
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields<Fields>(out, record);
    out.put(",\"meta_offset\":");
    out.signed_decimal(offset);
    out.put("}");
}
