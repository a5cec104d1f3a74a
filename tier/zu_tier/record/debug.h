#pragma once

#include "zu_tier/record/digits.h"
#include "zu_tier/record/literal.h"
#include "zu_tier/record/log.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

/* DEBUG lines written by the million: the compiler splits the message. */

namespace zutr_message {

/* The text before the conversion `index` of a message, or after the last. Conversions are "%d" and
 * "%s". */
constexpr std::string_view piece(std::string_view message, size_t index)
{
    for (size_t i = 0; i < index; i++) {
        message.remove_prefix(message.find('%') + 2);
    }
    return message.substr(0, message.find('%'));
}

template <const auto &Message, size_t Index>
constexpr zutr_literal PIECE = zutr_literal(piece(Message, Index));

inline char *put(char *to, int32_t value) { return zutr_put_signed_decimal(to, value); }

inline char *put(char *to, std::string_view text) { return to + text.copy(to, zutr_literal::MAX); }

} // namespace zutr_message

/* Writes one line as zutr_debug does; of texts the first 64 bytes. Formats nothing when there is
 * nowhere to write to. */
template <const auto &Message, class... Args>
void zutr_debug_line(zutr_log_site site, const Args &...args)
{
    const zutr_log_sinks sinks = zutr_debug_sinks();
    if (!sinks) {
        return;
    }
    constexpr size_t ROOM = (sizeof...(Args) + 1) * 2 * zutr_literal::MAX;
    std::array<char, ZUTR_LOG_PREFIX_ROOM + ROOM> line;
    char *to = zutr_put_log_prefix(line.data(), "DEBUG", site);
    [&]<size_t... I>(std::index_sequence<I...>)
    {
        using namespace zutr_message;
        ((to = put(zutr_put_literal<PIECE<Message, I>>(to), args)), ...);
        to = zutr_put_literal<PIECE<Message, sizeof...(I)>>(to);
    }
    (std::make_index_sequence<sizeof...(Args)>());
    *to++ = '\n';
    sinks.write({line.data(), static_cast<size_t>(to - line.data())});
}
