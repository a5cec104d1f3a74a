#pragma once

// Sample images made by zu_tierctl, read back field by field at the offsets of the layout.

#include "run.h"
#include "v2_device.h"
#include "v3_device.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tier_test {

// zu_tierctl sample --layout <layout> <args> <path>
RunResult run_sample(const std::string &path, const std::vector<std::string> &args = {},
                     const std::string &layout = "v1");

// The image of a run that must succeed and print nothing.
Device make_sample(const std::vector<std::string> &args = {}, const std::string &layout = "v1");

// A run that is refused with that complaint and writes nothing.
void expect_refused(const std::vector<std::string> &args, const std::string &complaint,
                    const std::string &layout = "v1");

// The sizes that a layout takes, in the words of the message, and values that it does not take.
struct SizeBounds {
    std::string option;
    std::string expected;
    std::vector<std::string> values;
};
void expect_sizes_refused(const std::vector<SizeBounds> &sizes, const std::string &layout = "v1");

// A table of an image by its name on the command line. Its entries are slots of 4096 bytes.
struct SampleTable {
    std::string name;
    std::size_t record_length;
    std::int64_t magic_at;  // -1: no magic
    std::int64_t number_at; // -1: no number
    std::function<std::int64_t(std::uint64_t no)> offset;
    std::string command; // how zu_tier shows it
    std::string key;     // how zu_tier names an entry of it

    // The checksum in a slot and that of its content; empty: slots have none.
    std::function<std::uint32_t(const Block &slot)> stored;
    std::function<std::uint32_t(const Block &slot)> computed;
};

// All tables but the super block.
std::vector<SampleTable> sample_tables(const SuperV1 &sb);
std::vector<SampleTable> sample_tables(const SuperV2 &sb);
std::vector<SampleTable> sample_tables(const SuperV3 &sb);

// The super block, of that length, as a table of one entry.
SampleTable sample_super(std::size_t length);

} // namespace tier_test
