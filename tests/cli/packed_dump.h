#pragma once

// Dumps of the tables of shards and of extents.

#include "expect.h"
#include "filter_args.h"
#include "packed_table.h"
#include "probe_log.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace tier_test {

template <class T>
class PackedDump : public testing::Test {
protected:
    using Packed = typename T::Packed;
    using Entry = typename T::Entry;

    static constexpr std::uint64_t BLOCKS = 4;

    const T &table = block_table<T>();
    SuperV3 super = packed_super(BLOCKS);
    Device device = make_v3_device(super);
    std::vector<Packed> blocks = std::vector<Packed>(BLOCKS);
    std::map<std::uint64_t, Block> damaged; // by the number of the block

    void set_super(const SuperV3 &changed)
    {
        super = changed;
        device.write(SUPER_OFFSET, encode(changed));
    }

    void put(std::uint64_t no, const Packed &packed)
    {
        blocks[no] = packed;
        damaged.erase(no);
        put_block(device, offset(no), encode(packed));
    }

    void damage(std::uint64_t no, const Block &block)
    {
        damaged[no] = block;
        put_block(device, offset(no), block);
    }

    Packed packed(const std::vector<Entry> &entries) const
    {
        Packed result;
        result.*table.entries = entries;
        return result;
    }

    // One entry in every slot, each another.
    Packed full_block() const
    {
        std::vector<Entry> entries;
        for (std::uint32_t slot = table.first_slot; slot < SLOTS_V3; ++slot)
            entries.push_back(sample_entry(table, slot));
        return packed(entries);
    }

    Entry entry(std::uint32_t slot, std::uint32_t in_use, std::uint32_t owner) const
    {
        Entry result;
        result.slot = slot;
        result.in_use = in_use;
        result.*table.owner_at = owner;
        return result;
    }

    std::int64_t offset(std::uint64_t no) const { return table.offset(super, no); }

    LogLine fault(std::uint64_t no) const { return table.faulty(no, damaged.at(no)); }

    ShownBlock shown(std::uint64_t no, const Settings &filter = {}) const
    {
        return shown_block(table, super, no, blocks[no], filter);
    }

    Log log_head(const Settings &settings = {}) const
    {
        return probe_log(device, table.dump, 3, settings);
    }

    Expected walk(const Settings &filter = {}) const
    {
        Expected expected{.log = log_head(filter)};
        std::vector<std::string> items;
        for (std::uint64_t no = 0; no < blocks.size(); ++no) {
            if (damaged.contains(no)) {
                expected.log.push_back(fault(no));
                if (filter.error != 0)
                    items.push_back(block_record(table, super, 14, no));
            } else if (const ShownBlock block = shown(no, filter); !block.empty) {
                std::ranges::copy(block.log, std::back_inserter(expected.log));
                items.push_back(block.text);
            }
        }
        expected.out = joined(items);
        return expected;
    }

    LoggedRun run(const std::vector<std::string> &args = {}) const
    {
        return run_logged(device, table.dump, args);
    }

    void expect_walk(const Settings &filter = {}) const
    {
        expect_run(run(filter_args(filter_pairs(filter))), walk(filter));
    }

    // A block that is asked for by its number is shown whatever the filter says of its entries.
    void expect_single(std::uint64_t no, Settings filter = {}) const
    {
        std::vector<std::string> args = filter_args(filter_pairs(filter));
        args.insert(args.end(), {"-n", std::to_string(no)});
        filter.meta_no = static_cast<int>(no);
        Expected expected{.log = log_head(filter)};
        if (damaged.contains(no)) {
            expected.status = 14;
            expected.log.push_back(fault(no));
        } else {
            const ShownBlock block = shown(no, filter);
            expected.out = block.text;
            std::ranges::copy(block.log, std::back_inserter(expected.log));
        }
        expect_run(run(args), expected);
    }
};

} // namespace tier_test
