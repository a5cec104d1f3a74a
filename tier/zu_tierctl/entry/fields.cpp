#include "zu_tierctl/entry/fields.h"

#include "zu_tier/record/time.h"
#include "zu_tierctl/device/text.h"

#include <array>
#include <bit>
#include <cstring>
#include <fmt/format.h>

namespace tierctl {

namespace {

const char *place(const tier_column &column, const void *record)
{
    return static_cast<const char *>(record) + column.at;
}

/* A time is printed without its fraction of a second, and in a zone whose clock may change. */
zutr_form exact_form(zutr_form form)
{
    return form == zutr_form::time ? zutr_form::hex_and_time : form;
}

std::string text_of(const tier_column &column, zutr_form form, const void *record)
{
    switch (column.type) {
    case tier_column_type::text:
        return json_text(zutr_bounded(place(column, record), column.size));
    case tier_column_type::uuid:
        return json_text(zutr_uuid_utoa(reinterpret_cast<const uint8_t *>(place(column, record))));
    default:
        return number_text(form, column_number(column, record));
    }
}

} // namespace

uint64_t column_number(const tier_column &column, const void *record)
{
    if (column.compute != nullptr) {
        return column.compute(record);
    }
    uint64_t number = 0;
    memcpy(&number, place(column, record), column.size);
    return (number & column.bits) >> std::countr_zero(column.bits);
}

std::string number_text(zutr_form form, uint64_t value)
{
    const uint32_t swapped = __builtin_bswap32(static_cast<uint32_t>(value));
    switch (form) {
    case zutr_form::hex:
        return fmt::format("\"{:#x}\"", value);
    case zutr_form::hex16:
        return fmt::format("\"{:#018x}\"", value);
    case zutr_form::time:
        return fmt::format("\"{}\"", time_text(value));
    case zutr_form::hex_and_time:
        return fmt::format("\"{:#x}({})\"", value, time_text(value));
    case zutr_form::swapped_hex8:
        return fmt::format("\"{:08x}\"", swapped);
    case zutr_form::swapped:
        return std::to_string(swapped);
    default:
        return std::to_string(value);
    }
}

std::string time_text(uint64_t nanoseconds)
{
    std::array<char, ZUTR_TIME_ROOM> text;
    return {text.data(), zutr_put_time(text.data(), nanoseconds)};
}

std::string column_text(const tier_column &column, const void *record)
{
    return text_of(column, column.form, record);
}

std::vector<Field> get_fields(const tier_columns &columns, const void *record, size_t at,
                              size_t stored)
{
    std::vector<Field> fields;
    for (const tier_column &column : columns) {
        const bool is_stored = column.at + column.size <= stored;
        fields.push_back({std::string(column.key), column_text(column, record),
                          text_of(column, exact_form(column.form), record), at + column.at,
                          is_stored ? column.size : 0, column.bits});
    }
    return fields;
}

} // namespace tierctl
