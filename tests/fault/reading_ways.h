#pragma once

// The ways in which the companion reads tables: faults that make it take one of them.

#include "bytes.h"

#include <gtest/gtest.h>
#include <string>

namespace tier_test {

enum class ReadingWay { plain, queued };

// Faults to stand before those of a test. `first_chunk` is a read of the first chunk of a table, as
// an item without its effect: when it takes long, those after it are queued.
inline std::string way_faults(ReadingWay way, const std::string &first_chunk)
{
    if (way == ReadingWay::plain)
        return "io_setup=EPERM;";
    return first_chunk + "=late:110;io_setup=pass;";
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
