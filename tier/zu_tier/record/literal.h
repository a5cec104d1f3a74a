#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>

/* Text that the compiler knows, padded so that it is copied in whole steps. */
struct zutr_literal {
    static constexpr size_t STEP = 16;
    static constexpr size_t MAX = 4 * STEP;

    std::array<char, MAX> text{};
    size_t length = 0;

    constexpr zutr_literal() = default;
    constexpr zutr_literal(std::string_view from) { *this << from; }

    /* The bytes that a copy takes. */
    constexpr size_t room() const { return (length + STEP - 1) / STEP * STEP; }

    constexpr zutr_literal &operator<<(std::string_view more)
    {
        for (const char c : more) {
            text.at(length++) = c;
        }
        return *this;
    }
};

/* Writes the literal at `to`, which has the room, and gives its end. */
template <const zutr_literal &Literal>
char *zutr_put_literal(char *to)
{
    memcpy(to, Literal.text.data(), Literal.room());
    return to + Literal.length;
}
