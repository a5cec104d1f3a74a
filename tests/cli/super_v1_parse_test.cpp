// The keys of a V1 super block's repair file that are not read.

#include "super_parse.h"

using namespace tier_test;

namespace {

using SuperV1Parse = SuperParseFixture<SuperV1>;

TEST_F(SuperV1Parse, ReservedOfADumpedLineBecomesZero)
{
    SuperV1 dumped = super;
    dumped.reserved = 99;
    expect_accepted(json(dumped), super);
}

} // namespace
