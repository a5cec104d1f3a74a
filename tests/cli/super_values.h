#pragma once

// Super blocks whose fields tell them apart, for the rules that hold in all layouts.

#include "layout.h"

#include <gtest/gtest.h>

namespace tier_test {

using Supers = testing::Types<SuperV1, SuperV2, SuperV3>;

// Those of the layouts in which the geometry follows from the counts.
using HeadSupers = testing::Types<SuperV1, SuperV2>;

// Those whose repair files can name no other version.
using ExactVersionSupers = testing::Types<SuperV1, SuperV3>;

// Names the cases of a typed test after their layouts.
struct SuperNames {
    template <class Super>
    static std::string GetName(int)
    {
        return Layout<Super>::NAME;
    }
};

template <class Super>
using WideFields = std::vector<std::pair<std::string, std::uint64_t Super::*>>;
template <class Super>
using WordFields = std::vector<std::pair<std::string, std::uint32_t Super::*>>;

// The fields that a repair file's numbers fill, by their keys.
WideFields<SuperHead> wide_fields(const SuperHead &);
WideFields<SuperV3> wide_fields(const SuperV3 &);
WordFields<SuperV1> word_fields(const SuperV1 &);
WordFields<SuperV2> word_fields(const SuperV2 &);
WordFields<SuperV3> word_fields(const SuperV3 &);

// What a repair makes of the other fields.
void derive(SuperV1 &sb);
void derive(SuperV2 &sb);
void derive(SuperV3 &sb);

// All fields with all bits set, with none, and each with a value of its own.
template <class Super>
Super largest_super();
template <class Super>
Super smallest_super();
template <class Super>
Super numbered_super();

} // namespace tier_test
