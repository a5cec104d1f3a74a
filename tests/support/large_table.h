#pragma once

// A table of very many blocks of shards or extents, some of them damaged.

#include "expect.h"
#include "packed_table.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tier_test {

// As many blocks of shards as there can be, and of extents so many that the walk needs a dozen
// chunks.
inline std::uint64_t large_count(const ShardTable &) { return 524288 / SLOTS_V3; }
inline std::uint64_t large_count(const ExtentTable &) { return 3000; }

template <class T>
class LargeTable : public testing::Test {
protected:
    using Predicate = std::function<bool(std::uint64_t no)>;

    const T &table = block_table<T>();
    const std::uint64_t count = large_count(table);
    const SuperV3 super = packed_super(count);
    Device device{super.data_offset};
    std::vector<Block> blocks;

    // Each block has one entry in use; every 37th, the last included, has a bit flipped.
    LargeTable()
    {
        device.write(SUPER_OFFSET, encode(super));
        std::vector<std::uint8_t> content;
        for (std::uint64_t no = 0; no < count; ++no) {
            typename T::Packed packed;
            (packed.*table.entries).push_back(entry(no));
            blocks.push_back(encode(packed));
            if (is_damaged(no))
                blocks.back()[no % BLOCK_SIZE] ^= static_cast<std::uint8_t>(1U << no % 8);
            content.insert(content.end(), blocks.back().begin(), blocks.back().end());
        }
        device.write(static_cast<std::uint64_t>(offset(0)), content);
    }

    std::int64_t offset(std::uint64_t no) const { return table.offset(super, no); }
    bool is_damaged(std::uint64_t no) const { return (count - 1 - no) % 37 == 0; }
    typename T::Entry entry(std::uint64_t no) const
    {
        return sample_entry(table, static_cast<std::uint32_t>(1 + no * 7 % 511));
    }

    std::string item(std::uint64_t no) const
    {
        const auto shown = entry(no);
        return table.block_text(blocks[no], offset(no),
                                joined({table.line(shown, no * SLOTS_V3 + shown.slot)}));
    }

    // The walk over the entries in use came to the end of the table.
    void expect_walked(const RunResult &run, int error_filter, const Predicate &unreadable) const
    {
        std::vector<std::string> items;
        Log errors;
        for (std::uint64_t no = 0; no < count; ++no) {
            const bool readable = !unreadable(no);
            if (readable && is_damaged(no))
                errors.push_back(table.faulty(no, blocks[no]));
            if (!readable || is_damaged(no)) {
                if (error_filter != 0)
                    items.push_back(block_record(table, super, readable ? 14 : 5, no));
            } else if (error_filter != 1) {
                items.push_back(item(no));
            }
        }
        const std::string expected = joined(items);
        EXPECT_EQ(run.status, 0);
        const auto at = static_cast<std::size_t>(std::ranges::mismatch(run.out, expected).in1 -
                                                 run.out.begin());
        EXPECT_EQ(run.out.substr(at, 300), expected.substr(at, 300)) << "at byte " << at;
        EXPECT_EQ(parse_log(run.err), errors);
    }

    // Without the hundreds of thousands of lines about hidden entries.
    static std::vector<std::string> arguments(int error_filter)
    {
        return {"-l", "/dev/null", "-g", "use=1,error=" + std::to_string(error_filter)};
    }
};

} // namespace tier_test
