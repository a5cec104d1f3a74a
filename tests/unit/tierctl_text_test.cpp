// Texts as the shell reads them.

#include "zu_tierctl/device/text.h"

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

} // namespace
