#pragma once

// Super blocks whose fields tell them apart, for the rules that hold in all layouts.

#include "layout.h"

#include <gtest/gtest.h>

namespace tier_test {

using Supers = testing::Types<SuperV1, SuperV2, SuperV3>;

// Those of the layouts in which the geometry follows from the counts.
using HeadSupers = testing::Types<SuperV1, SuperV2>;

// Names the cases of a typed test after their layouts.
struct SuperNames {
    template <class Super>
    static std::string GetName(int)
    {
        return Layout<Super>::NAME;
    }
};

// What a repair makes of the fields that no key fills.
inline void derive(SuperV1 &sb) { sb.reserved = 0; }
inline void derive(SuperV2 &sb)
{
    sb.total_extent_size = sb.extent_size + sb.total_map_size + sb.hot_size; // in 32 bits
}
inline void derive(SuperV3 &) {}

// Every number but magic and version is what `next` gives for it.
template <class Super, class Next>
Super filled_super(const Next &next)
{
    const TableModel &table = model(std::stoi(Layout<Super>::VERSION), "super");
    Block block = encode(Super());
    for (const Field &field : table.fields)
        if (field.is_number() && field.form != FieldForm::UNITS && field.name != "checksum" &&
            field.name != "magic" && field.name != "version")
            put_number(block, field, next());
    return Layout<Super>::decoded(block);
}

// All fields with all bits set, with none, and each with a value of its own.
template <class Super>
Super largest_super()
{
    auto sb = filled_super<Super>([] { return ~std::uint64_t{0}; });
    sb.uuid.fill(0xFF);
    return sb;
}

template <class Super>
Super smallest_super()
{
    auto sb = filled_super<Super>([] { return std::uint64_t{0}; });
    sb.uuid.fill(0);
    sb.ssd_uuid = "";
    return sb;
}

template <class Super>
Super numbered_super()
{
    std::uint64_t last = 10;
    return filled_super<Super>([&last] { return ++last; });
}

} // namespace tier_test
