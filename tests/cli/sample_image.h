#pragma once

// Sample images made by zu_tierctl, read back field by field at the offsets of the layout.

#include "run.h"
#include "v1_device.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tier_test {

// zu_tierctl sample --layout v1 <args> <path>
RunResult run_sample(const std::string &path, const std::vector<std::string> &args = {});

// The image of a run that must succeed without a word.
Device make_sample(const std::vector<std::string> &args = {});

SuperV1 decode_super(const Block &block);
BrickV1 decode_brick(const Block &block);
InodeV1 decode_inode(const Block &block);
ExtentV1 decode_extent(const Block &block, std::uint32_t extent_size);

// A table of an image by its name on the command line.
struct SampleTable {
    std::string name;
    std::size_t record_length;
    std::int64_t magic_at;  // -1: no magic
    std::int64_t number_at; // -1: no number
    std::int64_t (*offset)(const SuperV1 &sb, std::uint64_t no);
    std::string command; // how zu_tier shows it
    std::string key;     // how zu_tier names an entry of it
};

// The tables of bricks, inodes and extents.
std::vector<SampleTable> sample_tables(const SuperV1 &sb);

// The super block as a table of one entry.
SampleTable sample_super();

} // namespace tier_test
