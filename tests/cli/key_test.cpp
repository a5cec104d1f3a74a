// Repair files with all keys and with one missing, of every table. The result of each file is
// computed from the model. What else a key may be, the tests of functions try.

#include "key_sweep.h"

using namespace tier_test;

namespace {

using Keys = KeySweep;

TEST_P(Keys, AllOfThem)
{
    const Parsed expected = sample.parsed();
    ASSERT_TRUE(expected.block);
    expect(sample.members);
}

TEST_P(Keys, Missing) { expect_missing_keys(); }

INSTANTIATE_TEST_SUITE_P(All, Keys, testing::ValuesIn(all_samples()), sample_name);

} // namespace
