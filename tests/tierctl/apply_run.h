#pragma once

// Runs of zu_tierctl apply and undo on a cache with damaged entries, and a plan that mends them.

#include "cache.h"
#include "model.h"
#include "plans.h"

#include <gtest/gtest.h>

namespace tier_test {

inline constexpr char UNCOMMITTED[] = "zu_tierctl: nothing was written: --commit writes it\n";

class ApplyRuns : public testing::TestWithParam<std::string> {
protected:
    explicit ApplyRuns(const std::string &layout) : cache(make_cache(layout))
    {
        good = cache.device.bytes();
        damage("brick", 1, 1);
        damage("inode", 2, 0x80);
        zero("extent", 0);
        bad = cache.device.bytes();
        write_plan();
    }
    ApplyRuns() : ApplyRuns(GetParam()) {}

    Cache cache;
    const TempDir directory;
    const std::string plan = directory.path("plan");
    const std::string undo = directory.path("undo");
    const std::string path = cache.device.path();
    std::vector<std::uint8_t> good; // bytes of the device before the damage, and with it
    std::vector<std::uint8_t> bad;
    std::vector<PlanStep> steps;

    std::uint64_t place(const std::string &table, std::uint64_t no) const
    {
        return static_cast<std::uint64_t>(cache.offset(table, no));
    }
    Block block_of(const std::string &table, std::uint64_t no) const
    {
        return cache.device.block(place(table, no));
    }

    // Each adds a step that takes it back.
    void damage(const std::string &table, std::uint64_t no, std::uint8_t bits)
    {
        Block block = block_of(table, no);
        block[60] ^= bits;
        put(table, no, block);
    }
    void zero(const std::string &table, std::uint64_t no) { put(table, no, {}); }
    void put(const std::string &table, std::uint64_t no, const Block &block)
    {
        steps.push_back({table, no, cache.offset(table, no), block, block_of(table, no)});
        cache.device.write(place(table, no), block);
    }

    PlannedDevice planned() const
    {
        return {cache.layout, cache.device.size(), block_of("super", 0)};
    }
    void write_plan() const { directory.write("plan", plan_text(planned(), steps)); }

    static RunResult run(std::vector<std::string> args, const std::vector<std::string> &more)
    {
        args.insert(args.end(), more.begin(), more.end());
        return run_ctl(args);
    }
    RunResult run_apply(const std::vector<std::string> &more = {}) const
    {
        return run({"apply", plan, path, "--undo", undo}, more);
    }
    RunResult run_undo(const std::vector<std::string> &more = {}) const
    {
        return run({"undo", undo, path}, more);
    }

    void expect_device(const std::vector<std::uint8_t> &bytes) const
    {
        EXPECT_TRUE(cache.device.bytes() == bytes);
    }

    // Done, and the device has these bytes.
    void expect_done(const RunResult &run, const std::vector<std::uint8_t> &bytes) const
    {
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.err, "");
        EXPECT_TRUE(run.out.ends_with("\nwritten\n")) << run;
        expect_device(bytes);
    }

    // Refused with and without --commit; nothing is written or printed, no undo file is made.
    void expect_refused(const std::string &complaint, int status = 1) const
    {
        const auto before = cache.device.bytes();
        const auto names = names_in(directory);
        for (const auto &options : {std::vector<std::string>{}, {"--commit"}})
            expect_complaint(run_apply(options), status, complaint);
        expect_device(before);
        EXPECT_EQ(names_in(directory), names);
    }
    void expect_undo_refused(const std::string &complaint, int status = 1,
                             std::vector<std::string> more = {}) const
    {
        const auto before = cache.device.bytes();
        expect_complaint(run_undo(more), status, complaint);
        more.emplace_back("--commit");
        expect_complaint(run_undo(more), status, complaint);
        expect_device(before);
    }

    // Its plan or undo file is of another device.
    std::string is_other(const std::string &file) const
    {
        return "the super block of " + path + " is not the one in " + file +
               ": it is another device, or its super block has changed";
    }
};

} // namespace tier_test
