#pragma once

// What the tests of every layout need: super blocks and devices by the number of entries.

#include "v2_device.h"

namespace tier_test {

template <class Super>
struct Layout;

template <>
struct Layout<SuperV1> {
    static constexpr const char *NAME = "V1";
    static constexpr const char *VERSION = "1"; // as the option -v takes it

    static SuperV1 super(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks)
    {
        return super_v1(bricks, inodes, blocks);
    }
    static Device device(const SuperV1 &super) { return make_v1_device(super); }
};

template <>
struct Layout<SuperV2> {
    static constexpr const char *NAME = "V2";
    static constexpr const char *VERSION = "2";

    static SuperV2 super(std::uint32_t bricks, std::uint32_t inodes, std::uint32_t blocks)
    {
        return super_v2(bricks, inodes, blocks);
    }
    static Device device(const SuperV2 &super) { return make_v2_device(super); }
};

} // namespace tier_test
