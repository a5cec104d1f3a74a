// Texts as the shell reads them, as parts of lines, and what several have in common.

#include "zu_tierctl/device/text.h"

#include <cstdint>
#include <gtest/gtest.h>

using namespace tierctl;

namespace {

TEST(ShellWord, QuotedWhenItHasToBe)
{
    EXPECT_EQ(shell_word("/dev/vg-1/a_b.img:0,@%+="), "/dev/vg-1/a_b.img:0,@%+=");
    EXPECT_EQ(shell_word(""), "''");
    EXPECT_EQ(shell_word("a b"), "'a b'");
    EXPECT_EQ(shell_word("$(x)~*"), "'$(x)~*'");
    EXPECT_EQ(shell_word("it's"), "'it'\\''s'");
}

TEST(ShellWord, HasNoControlCharacter)
{
    EXPECT_EQ(shell_word("a\nb"), "$'a\\012b'");
    EXPECT_EQ(shell_word("it's\t1\\"), "$'it\\'s\\0111\\\\'");
    EXPECT_EQ(shell_word("\x7F\xFF"), "$'\\177\\377'");
    EXPECT_EQ(shell_word("\xC3\xA4"), "'\xC3\xA4'");
}

TEST(OneLine, KeepsWhatCanBeShown)
{
    EXPECT_EQ(one_line(""), "");
    EXPECT_EQ(one_line("plain ~ \"text\" \\ \xC3\xA4 \xE2\x82\xAC \xC2\xA0"),
              "plain ~ \"text\" \\ \xC3\xA4 \xE2\x82\xAC \xC2\xA0");
}

TEST(OneLine, EscapesControlCharactersAndWhatIsNoText)
{
    EXPECT_EQ(one_line("a\nb\r\t\x1B[2J\x7F"), "a\\x0ab\\x0d\\x09\\x1b[2J\\x7f");
    EXPECT_EQ(one_line(std::string_view("\0x", 2)), "\\x00x");
    EXPECT_EQ(one_line("\xC2\x80\xC2\x9B\xC2\x9F"), "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f");
    EXPECT_EQ(one_line("\xFF\xC3"), "\\xff\\xc3");
}

TEST(TextShape, IsTheSameForOtherNumbersAndNames)
{
    EXPECT_EQ(text_shape("it refers to inode 7, which is free"),
              "it refers to inode #, which is free");
    EXPECT_EQ(text_shape("its magic is 0x0, not 0x494e4f44"), "its magic is #, not #");
    EXPECT_EQ(text_shape("identity 7432e81f-a095-424c-875e-eaee798c5d13 is"), "identity # is");
    EXPECT_EQ(text_shape("path \"/a/7\\\"b\" of \"x"), "path # of #");
    EXPECT_EQ(text_shape("te_mapped_meta[3].begin"), "te_mapped_meta[#].begin");
    EXPECT_EQ(text_shape("\"a\\"), "#");
    EXPECT_EQ(text_shape(""), "");
}

TEST(RangeText, OfOneAndOfMany)
{
    EXPECT_EQ(range_text(7, 7), "7");
    EXPECT_EQ(range_text(0, UINT64_MAX), "0..18446744073709551615");
}

} // namespace
