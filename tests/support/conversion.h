#pragma once

// Descriptions of older super blocks, and what convert_super makes of them.

#include "expect.h"
#include "super_keys.h"

#include <gtest/gtest.h>

namespace tier_test {

constexpr std::uint32_t PROBED_EXTENTS = 256; // the extents in one MiB

// The V2 super block of a cache with this number of blocks of this size. The count of its map
// records follows from the sizes.
SuperV2 cache(std::uint32_t block_size, std::uint32_t min_alloc_size,
              std::uint32_t blocks = PROBED_EXTENTS);

// Describes the older super block of the same cache.
RepairFile old_file(const SuperV2 &sb);

// Why an extent entry does not fit `map_cnt` records.
LogLine mismatch(const Block &slot, const SuperV2 &sb, std::uint32_t map_cnt);
std::uint32_t candidate_size(const SuperV2 &sb, std::uint32_t map_cnt);

LogLine probe_read(std::int64_t offset);
LogLine map_cnt_found(std::uint32_t map_cnt);
LogLine not_found(int ret, std::uint32_t map_cnt);

// Conversions on a device whose extents are those of `super`.
class SuperConversion : public testing::Test {
protected:
    SuperV2 super = cache(262144, 16384);
    Device device = make_v2_device(super);

    // Another cache, and its device.
    void set_cache(const SuperV2 &sb);

    std::string conf() const { return device.directory().path("conf.json"); }
    std::int64_t table() const { return extent_offset(super, 0); }
    Block slot(std::uint64_t no) const;

    // "-v 2 -f <file>", then the rest.
    std::vector<std::string> arguments(const std::string &document,
                                       const std::vector<std::string> &args = {}) const;
    LoggedRun convert(const std::string &document, const std::vector<std::string> &args = {}) const;

    // The settings and the keys of the head, then these lines.
    Log log_with(const SuperV2 &described, const Log &lines) const;
    LogLine rejected(int error = 22) const;

    // The mismatches of the first extent for the candidates before `end`.
    Log mismatches(std::uint32_t first, std::uint32_t end) const;

    // The lines of a conversion that finds no count: those of the probe, and its end.
    Log failed(Log lines, int ret = 22) const;

    // The device is left alone, whether it is a commit or not.
    void expect_conversion(const std::string &document, const Expected &expected,
                           const std::vector<std::string> &args = {});
};

} // namespace tier_test
