#pragma once

// Small caches of every layout with entries in use, free ones, and data, for the commands of
// zu_tierctl that work on any of them.

#include "sample_image.h"

#include <string>
#include <vector>

namespace tier_test {

struct CacheTable {
    std::string name;
    std::uint64_t count; // slots
    std::function<std::int64_t(std::uint64_t no)> offset;
    std::string command; // how zu_tier shows it
};

struct Cache {
    std::string layout;
    Device device;
    std::vector<CacheTable> tables; // the super block first
    std::uint64_t data_offset;

    const CacheTable &table(const std::string &name) const;
    std::int64_t offset(const std::string &table_name, std::uint64_t no) const;
};

// "v1", "v2" or "v3". The data area is full of bytes that are not zero.
Cache make_cache(const std::string &layout);

inline const std::vector<std::string> LAYOUTS{"v1", "v2", "v3"};

inline constexpr char NO_DEVICE[] = "No such device or address";

// Inverts the bits of `mask` in a byte of the device.
void flip(const Device &device, std::int64_t offset, std::uint8_t mask = 0xFF);

// zu_tierctl <args>
RunResult run_ctl(const std::vector<std::string> &args, const RunOptions &options = {});

// The same, where the program can have 400 MB of addresses.
RunResult run_ctl_in_little_memory(const std::vector<std::string> &args);

// A run with an empty standard output and that text on standard error.
void expect_complaint(const RunResult &run, int status, const std::string &complaint);

// What the run of a zu_tier command on an image puts out; it must succeed.
std::string dump_of(const std::string &image, const std::string &command,
                    const std::vector<std::string> &args = {});

// The names in a directory, sorted.
std::vector<std::string> names_in(const TempDir &directory);

} // namespace tier_test
