#pragma once

// Runs of zu_tierctl revert on a cache and a file saved from it.

#include "cache.h"
#include "model.h"

#include <gtest/gtest.h>

namespace tier_test {

inline constexpr char NOTHING_WRITTEN[] = "zu_tierctl: nothing was written: --commit writes it\n";

class Revert : public testing::TestWithParam<std::string> {
protected:
    explicit Revert(const std::string &layout) : cache(make_cache(layout)) { save(); }
    Revert() : Revert(GetParam()) {}

    Cache cache;
    const TempDir directory;
    const std::string saved = directory.path("saved");

    void save() const
    {
        const RunResult run = run_ctl({"save", cache.device.path(), saved});
        EXPECT_EQ(run.status, 0) << run;
    }

    RunResult revert(const std::string &table, std::uint64_t no,
                     const std::vector<std::string> &options = {}) const
    {
        return revert_on(cache.device.path(), table, no, options);
    }

    RunResult revert_on(const std::string &device, const std::string &table, std::uint64_t no,
                        const std::vector<std::string> &options = {}) const
    {
        std::vector<std::string> args{"revert", saved, device, table, std::to_string(no)};
        args.insert(args.end(), options.begin(), options.end());
        return run_ctl(args);
    }

    // Refused with and without --commit, and nothing is written.
    void expect_refused(const std::string &table, std::uint64_t no, const std::string &complaint,
                        int status = 1) const
    {
        const auto before = cache.device.bytes();
        for (const auto &options : {std::vector<std::string>{}, {"--commit"}})
            expect_complaint(revert(table, no, options), status, complaint);
        EXPECT_TRUE(cache.device.bytes() == before);
    }

    // The entry with bits of a byte changed, but sound.
    void edit(const std::string &table, std::uint64_t no, std::int64_t at, std::uint8_t mask)
    {
        const TableModel &its = model(cache.layout[1] - '0', table);
        flip(cache.device, cache.offset(table, no) + at, mask);
        Block block = block_of(table, no);
        seal(its, block_of("super", 0), block);
        put_block(cache.device, cache.offset(table, no), block);
    }

    bool is_packed(const std::string &table) const
    {
        return model(cache.layout[1] - '0', table).is_packed();
    }

    Block block_of(const std::string &table, std::uint64_t no) const
    {
        return cache.device.block(static_cast<std::uint64_t>(cache.offset(table, no)));
    }
};

} // namespace tier_test
