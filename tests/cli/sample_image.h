#pragma once

// Sample images made by zu_tierctl, read back field by field at the offsets of the layout.

#include "run.h"
#include "v2_device.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tier_test {

// zu_tierctl sample --layout <layout> <args> <path>
RunResult run_sample(const std::string &path, const std::vector<std::string> &args = {},
                     const std::string &layout = "v1");

// The image of a run that must succeed without a word.
Device make_sample(const std::vector<std::string> &args = {}, const std::string &layout = "v1");

SuperV1 decode_super(const Block &block);
BrickV1 decode_brick(const Block &block);
InodeV1 decode_inode(const Block &block);
ExtentV1 decode_extent(const Block &block, std::uint32_t extent_size);

SuperV2 decode_super_v2(const Block &block);
InodeV2 decode_inode_v2(const Block &block);
ExtentV2 decode_extent_v2(const Block &block, const SuperV2 &sb);

// A table of an image by its name on the command line.
struct SampleTable {
    std::string name;
    std::size_t record_length;
    std::int64_t magic_at;  // -1: no magic
    std::int64_t number_at; // -1: no number
    std::function<std::int64_t(std::uint64_t no)> offset;
    std::string command; // how zu_tier shows it
    std::string key;     // how zu_tier names an entry of it
};

// The tables of bricks, inodes and extents.
std::vector<SampleTable> sample_tables(const SuperV1 &sb);
std::vector<SampleTable> sample_tables(const SuperV2 &sb);

// The super block, of that length, as a table of one entry.
SampleTable sample_super(std::size_t length);

} // namespace tier_test
