#pragma once

// The ways in which the companion reads tables: faults that make it take one of them.

#include "bytes.h"

#include <gtest/gtest.h>
#include <string>

namespace tier_test {

enum class ReadingWay { plain, queued };

// The fault that makes a command queue its reads: that of the first chunk of a table takes long.
// `bricks` is where these lie.
inline std::string slow_first_chunk(const std::string &command, std::int64_t bricks)
{
    // These two read the super block once for each device, or twice, before they read it as a
    // table.
    const std::string chunk = command == "save"   ? "pread@4096+4096#2"
                              : command == "diff" ? "pread@4096+4096#5"
                                                  : text("pread@%ld+4096#1", bricks);
    return chunk + "=late:210;";
}

// Faults to stand before those of a test.
inline std::string way_faults(ReadingWay way, const std::string &command, std::int64_t bricks)
{
    return way == ReadingWay::plain ? "io_setup=EPERM;"
                                    : slow_first_chunk(command, bricks) + "io_setup=pass;";
}

// Whether a trace shows that reads were queued.
inline bool shows_queue(const std::string &trace)
{
    return trace.find("io_setup(32)=pass\n") != std::string::npos;
}

inline std::string way_name(const testing::TestParamInfo<ReadingWay> &info)
{
    return info.param == ReadingWay::plain ? "Plain" : "Queued";
}

inline const auto READING_WAYS = testing::Values(ReadingWay::plain, ReadingWay::queued);

} // namespace tier_test
