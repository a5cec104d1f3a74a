// Texts of any bytes as JSON.

#include "zu_tierctl/device/text.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>

using namespace tierctl;

namespace {

// UTF-8 of a character.
std::string utf8(std::uint32_t c)
{
    const auto byte = [](std::uint32_t value) { return static_cast<char>(value); };
    if (c < 0x80)
        return {byte(c)};
    if (c < 0x800)
        return {byte(0xC0 | c >> 6), byte(0x80 | (c & 63))};
    if (c < 0x10000)
        return {byte(0xE0 | c >> 12), byte(0x80 | (c >> 6 & 63)), byte(0x80 | (c & 63))};
    return {byte(0xF0 | c >> 18), byte(0x80 | (c >> 12 & 63)), byte(0x80 | (c >> 6 & 63)),
            byte(0x80 | (c & 63))};
}

// What a reader makes of it.
std::string parsed(const std::string &json) { return nlohmann::json::parse(json); }

// Nothing that a terminal would take for a command.
TEST(TierctlJson, HasNoControlCharacters)
{
    EXPECT_EQ(json_text("a\x1B[2J\x7F\xC2\x9B\xC2\xA0\xC3\x9B"),
              "\"a\\u001b[2J\\u007f\\u009b\xC2\xA0\xC3\x9B\"");
    for (std::uint32_t c = 0; c < 0xA0; ++c) {
        const std::string json = json_text(utf8(c));
        EXPECT_EQ(parsed(json), utf8(c)) << c;
        EXPECT_EQ(one_line(json), json) << c;
    }
}

TEST(TierctlJson, PlainTextStaysAsItIs)
{
    EXPECT_EQ(json_text(""), "\"\"");
    for (char c = ' '; c <= '~'; ++c) {
        if (c != '"' && c != '\\') {
            EXPECT_EQ(json_text({&c, 1}), std::string("\"") + c + '"');
        }
    }
}

TEST(TierctlJson, WhatJsonDoesNotTakeIsEscaped)
{
    EXPECT_EQ(json_text("\""), R"("\"")");
    EXPECT_EQ(json_text("\\"), R"("\\")");
    EXPECT_EQ(json_text({"\0", 1}), R"("\u0000")");
    EXPECT_EQ(json_text("\x1F\x7F"), R"("\u001f\u007f")");
    for (char c = 0; c < ' '; ++c) {
        const std::string json = json_text({&c, 1});
        EXPECT_EQ(json.size(), 8U);
        EXPECT_EQ(parsed(json), std::string(1, c));
    }
}

TEST(TierctlJson, EveryCharacterIsKept)
{
    for (std::uint32_t c = 0xA0; c < 0x110000; c += c < 0x3000 ? 1 : 61) {
        const bool is_surrogate = c >= 0xD800 && c < 0xE000;
        const std::string text = 'a' + utf8(c) + 'b';
        const std::string json = json_text(text);
        if (is_surrogate) {
            EXPECT_EQ(json, "\"a\ufffd\ufffd\ufffdb\"") << c;
        } else {
            EXPECT_EQ(json, '"' + text + '"') << c;
        }
    }
    for (const std::uint32_t c : {0xD7FFU, 0xE000U, 0xFFFFU, 0x10000U, 0x10FFFFU})
        EXPECT_EQ(json_text(utf8(c)), '"' + utf8(c) + '"') << c;
}

TEST(TierctlJson, WhatIsNoCharacterIsReplacedByteByByte)
{
    const std::string one = "\ufffd";
    const std::pair<std::string, int> cases[] = {
        {"\x80", 1},
        {"\xBF", 1},
        {"\xC0\xAF", 2},
        {"\xC1\xBF", 2},
        {"\xC2", 1},
        {"\xE0\x9F\xBF", 3},
        {"\xE1\x80", 2},
        {"\xED\xA0\x80", 3},
        {"\xF0\x8F\xBF\xBF", 4},
        {"\xF0\x90\x80", 3},
        {"\xF4\x90\x80\x80", 4},
        {"\xF5\x80\x80\x80", 4},
        {"\xFF", 1},
        {"\xFE", 1},
    };
    for (const auto &[text, count] : cases) {
        std::string expected = "\"";
        for (int i = 0; i < count; ++i)
            expected += one;
        EXPECT_EQ(json_text(text), expected + '"');
        EXPECT_EQ(json_text(text + "x"), expected + "x\"");
    }
    EXPECT_EQ(json_text("\xC2x"), '"' + one + "x\"");
    EXPECT_EQ(json_text("\xE1\x80x"), '"' + one + one + "x\"");
}

} // namespace
