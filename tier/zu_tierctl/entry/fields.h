#pragma once

#include "zu_tier/record/record.h"
#include "zu_tierctl/device/json.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace tierctl {

/* The fields of a record, by the table after which the tool prints it. */

/* A field of an entry. */
struct Field {
    std::string key;
    std::string value; /* JSON, as the tool prints it */
    std::string
        exact; /* JSON from which the stored bits follow, but for what is no text in a text */

    /* Where it is stored: bytes of the slot, and which bits of each word of them. */
    size_t at;
    size_t length;
    uint64_t bits = ~uint64_t{0};
};

/* What the tool's punctuation depends on. */
template <class Value>
struct Shown {
    using member_type = Value;
    zutr_form form;
};

/* The value as JSON, printed in `Form`. */
template <zutr_form Form, class Value>
std::string value_text(const Value &value)
{
    if constexpr (std::is_same_v<std::remove_extent_t<Value>, char>) {
        return json_text(zutr_bounded(value));
    } else {
        constexpr Shown<Value> SHOWN = {Form};
        std::array<char, ZUTR_DIGITS_ROOM + ZUTR_TIME_ROOM> text;
        char *end = zutr_put_value<Form>(text.data(), value);
        std::string json(zutr_opening(SHOWN));
        json.append(text.data(), end).append(zutr_closing(SHOWN));
        return json;
    }
}

/* A time is printed without its fraction of a second, and in a zone that sets its clock. */
constexpr zutr_form exact_form(zutr_form form)
{
    return form == zutr_form::time ? zutr_form::hex_and_time : form;
}

/* The field `I` of a record that lies at byte `at` of its slot. */
template <const auto &Fields, size_t I, class Record>
Field get_field(const Record &record, size_t at)
{
    constexpr const auto &FIELD = std::get<I>(Fields);
    const std::string key(FIELD.key);
    if constexpr (requires { FIELD.member; }) {
        const auto &member = record.*FIELD.member;
        const auto place = static_cast<size_t>(reinterpret_cast<const uint8_t *>(&member) -
                                               reinterpret_cast<const uint8_t *>(&record));
        return {key, value_text<FIELD.form>(member), value_text<exact_form(FIELD.form)>(member),
                at + place, sizeof(member)};
    } else if constexpr (requires { FIELD.bits; }) {
        const std::string value = std::to_string(FIELD.bits.get(record.word));
        return {key, value, value, at, sizeof(record.word), FIELD.bits.mask()};
    } else {
        const std::string value = std::to_string(FIELD.value(record));
        return {key, value, value, at, 0};
    }
}

template <const auto &Fields, class Record>
std::vector<Field> get_fields(const Record &record, size_t at)
{
    std::vector<Field> fields;
    [&]<size_t... I>(std::index_sequence<I...>)
    {
        (fields.push_back(get_field<Fields, I>(record, at)), ...);
    }
    (std::make_index_sequence<ZUTR_FIELD_COUNT<Fields>>());
    return fields;
}

} // namespace tierctl
