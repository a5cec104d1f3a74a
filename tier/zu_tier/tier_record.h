#pragma once

#include "common/zutr_utils.h"
#include "zu_tier/tier_text.h"

#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>

/* A record is printed from a table of its fields: key, member, form, in output order. */

enum class zutr_form {
    plain,        /* number: decimal; char[]: text; 16 bytes: UUID */
    hex,          /* "0x1f" */
    time,         /* "2024-05-06 07:08:09" from nanoseconds since the epoch */
    hex_and_time, /* "0x1f(2024-05-06 07:08:09)" */
    swapped_hex8, /* "0a000000": eight digits of the byte-reversed number, no prefix */
};

template <class Record, class Member>
struct zutr_field {
    std::string_view key;
    Member Record::*member;
    zutr_form form = zutr_form::plain;
};
template <class Record, class Member>
zutr_field(std::string_view, Member Record::*, zutr_form = {}) -> zutr_field<Record, Member>;

/* A number that is shown but not stored. */
template <class Record>
struct zutr_computed {
    std::string_view key;
    uint64_t (*value)(const Record &record);
};
template <class Record>
zutr_computed(std::string_view, uint64_t (*)(const Record &)) -> zutr_computed<Record>;

/* CRC-32 over a record from byte 4 to its end; bytes 0..3 hold the stored checksum. */
template <class Record>
uint32_t zutr_record_crc(const Record &record)
{
    return zutr_crc32(reinterpret_cast<const uint8_t *>(&record) + 4, sizeof(Record) - 4);
}

template <class Member>
void zutr_put_value(zutr_text &out, const Member &value, zutr_form form)
{
    if constexpr (std::is_array_v<Member>) {
        out.put("\"");
        if constexpr (std::is_same_v<std::remove_extent_t<Member>, char>) {
            out.put(zutr_bounded(value));
        } else {
            static_assert(sizeof(Member) == 16);
            out.uuid(value);
        }
        out.put("\"");
    } else if (form == zutr_form::plain) {
        out.decimal(static_cast<std::make_unsigned_t<Member>>(value));
    } else {
        out.put("\"");
        if (form == zutr_form::hex || form == zutr_form::hex_and_time) {
            out.hex(value);
        }
        if (form == zutr_form::hex_and_time) {
            out.put("(");
        }
        if (form == zutr_form::time || form == zutr_form::hex_and_time) {
            out.time(value);
        }
        if (form == zutr_form::hex_and_time) {
            out.put(")");
        }
        if (form == zutr_form::swapped_hex8) {
            out.hex_digits(__builtin_bswap32(static_cast<uint32_t>(value)), 8);
        }
        out.put("\"");
    }
}

template <class Record, class Member>
void zutr_put_field(zutr_text &out, const Record &record, const zutr_field<Record, Member> &field)
{
    zutr_put_value(out, record.*field.member, field.form);
}

template <class Record>
void zutr_put_field(zutr_text &out, const Record &record, const zutr_computed<Record> &field)
{
    out.decimal(field.value(record));
}

/* Prints the fields of `record` as members of a JSON object, with commas between them and without
 * the object's braces. */
template <class Record, class... Fields>
void zutr_put_fields(zutr_text &out, const Record &record, const std::tuple<Fields...> &fields)
{
    std::string_view separator = "\"";
    const auto put_member = [&](const auto &field) {
        out.put(separator);
        out.put(field.key);
        out.put("\":");
        zutr_put_field(out, record, field);
        separator = ",\"";
    };
    std::apply([&](const auto &...field) { (put_member(field), ...); }, fields);
}

/* Prints a table entry as a JSON object, its slot's device offset last. */
template <class Record, class Fields>
void zutr_print_entry(const Record &record, const Fields &fields, int64_t offset, FILE *fp)
{
    zutr_text out(fp);
    out.put("{");
    zutr_put_fields(out, record, fields);
    out.put(",\"meta_offset\":");
    out.signed_decimal(offset);
    out.put("}");
}
