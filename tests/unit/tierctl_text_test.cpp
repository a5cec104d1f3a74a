// Texts as JSON and the shell read them.

#include "zu_tierctl/tierctl_json.h"
#include "zu_tierctl/tierctl_text.h"

#include <gtest/gtest.h>

namespace {

const std::string REPLACED = "\xEF\xBF\xBD";

TEST(JsonString, Plain)
{
    EXPECT_EQ(tierctl_json_text(""), "\"\"");
    EXPECT_EQ(tierctl_json_text("a b/c"), "\"a b/c\"");
}

TEST(JsonString, Escapes)
{
    EXPECT_EQ(tierctl_json_text("\"\\"), R"("\"\\")");
    EXPECT_EQ(tierctl_json_text(std::string_view("\n\x1f\x7f\0", 4)),
              R"("\u000a\u001f\u007f\u0000")");
}

TEST(JsonString, CharactersOfSeveralBytes)
{
    for (const std::string character :
         {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xE2\x82\xAC", "\xED\x9F\xBF", "\xEF\xBF\xBF",
          "\xF0\x90\x80\x80", "\xF3\x80\x80\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_EQ(tierctl_json_text(character + "x"), '"' + character + "x\"");
}

TEST(JsonString, BytesThatAreNone)
{
    for (const std::string byte : {"\x80", "\xBF", "\xC0", "\xC1", "\xF5", "\xFF", "\xC2", "\xE2"})
        EXPECT_EQ(tierctl_json_text(byte + "x"), '"' + REPLACED + "x\"");
    EXPECT_EQ(tierctl_json_text("\xC2"), '"' + REPLACED + '"');
    // Longer than need be, surrogates, behind the last character, cut short.
    EXPECT_EQ(tierctl_json_text("\xE0\x9F\xBF"), '"' + REPLACED + REPLACED + REPLACED + '"');
    EXPECT_EQ(tierctl_json_text("\xED\xA0\x80"), '"' + REPLACED + REPLACED + REPLACED + '"');
    EXPECT_EQ(tierctl_json_text("\xF4\x90\x80\x80"),
              '"' + REPLACED + REPLACED + REPLACED + REPLACED + '"');
    EXPECT_EQ(tierctl_json_text("\xE2\x82x"), '"' + REPLACED + REPLACED + "x\"");
}

TEST(ShellWord, QuotedWhenItHasToBe)
{
    EXPECT_EQ(tierctl_shell_word("/dev/vg-1/a_b.img:0,@%+="), "/dev/vg-1/a_b.img:0,@%+=");
    EXPECT_EQ(tierctl_shell_word(""), "''");
    EXPECT_EQ(tierctl_shell_word("a b"), "'a b'");
    EXPECT_EQ(tierctl_shell_word("$(x)~*"), "'$(x)~*'");
    EXPECT_EQ(tierctl_shell_word("it's"), "'it'\\''s'");
}

} // namespace
