// What zu_tier dumps of a sample image of layout V3 is what it needs to repair it: each dumped
// block makes that block again, byte for byte.

#include "dump_text.h"
#include "sample_image.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

const std::vector<std::vector<std::string>> SAMPLES{
    {},
    {"--seed", "18446744073709551615"},
    {"--shards", "512", "--extents", "512", "--inodes", "1", "--bricks", "1"},
    {"--shards", "3072", "--extents", "6144", "--inodes", "1000", "--hot-size", "4096", "--seed",
     "7"},
};

class SampleV3Rebuild : public testing::TestWithParam<std::vector<std::string>> {
protected:
    Device device = make_sample(small(GetParam()), "v3");
    const SuperV3 sb = decode_super_v3(device.block(4096));
    const std::vector<std::uint8_t> image = device.bytes();

    static std::vector<std::string> small(std::vector<std::string> args)
    {
        args.insert(args.end(), {"--blocks", "1", "--block-size", "8192"});
        return args;
    }

    // A dump as a repair file.
    std::string dump(const std::string &command, const std::vector<std::string> &args)
    {
        const LoggedRun run = run_logged(device, command, args);
        EXPECT_EQ(run.status, 0) << run;
        return device.directory().write("repair.json", run.out);
    }

    // What the repair prints.
    std::string repair(const std::string &command, std::vector<std::string> args)
    {
        args.emplace_back("-y");
        const LoggedRun run = run_logged(device, command, args);
        EXPECT_EQ(run.status, 0) << run;
        return run.out;
    }

    // Dumps, wipes and repairs each block.
    void rebuild(const std::string &name, std::uint64_t start, std::uint64_t words)
    {
        for (std::uint64_t no = 0; no < words / 512; ++no) {
            SCOPED_TRACE(name + " block " + std::to_string(no));
            const std::uint64_t at = start + no * 4096;
            const Block before = device.block(at);
            const std::string file =
                dump("dump_" + name, {"-n", std::to_string(no), "-g", "use=1"});
            device.write(at, Block{});
            EXPECT_EQ(repair("repair_" + name, {"-f", file}), "");
            EXPECT_EQ(device.block(at), before);
        }
        EXPECT_TRUE(device.bytes() == image);
    }
};

INSTANTIATE_TEST_SUITE_P(Sample, SampleV3Rebuild, testing::ValuesIn(SAMPLES));

TEST_P(SampleV3Rebuild, ShardBlocks) { rebuild("shard", sb.shard_table_offset, sb.shard_cnt); }

TEST_P(SampleV3Rebuild, ExtentBlocks) { rebuild("extent", sb.extent_table_offset, sb.extent_cnt); }

TEST_P(SampleV3Rebuild, SuperBlock)
{
    const std::string file = dump("dump_super", {});
    EXPECT_EQ(repair("repair_super", {"-f", file}), json(sb));
    EXPECT_TRUE(device.bytes() == image);

    device.write(4096, Block{});
    EXPECT_EQ(repair("repair_super", {"-v", "3", "-f", file}), json(sb));
    EXPECT_TRUE(device.bytes() == image);
}

TEST_P(SampleV3Rebuild, HotBlocksAreShownAndNotRebuilt)
{
    std::vector<std::string> lines;
    for (std::uint64_t no = 0; no < sb.hot_table_size / 4096; ++no)
        lines.push_back(text("{\"meta_offset\":%ld}", hot_offset(sb, no)));
    EXPECT_EQ(run_logged(device, "dump_hot").out, joined(lines));
    const std::string file = dump("dump_hot", {"-n", "0"});
    EXPECT_EQ(repair("repair_hot", {"-f", file}), "");
    EXPECT_EQ(device.block(sb.hot_table_offset), Block{});
}

} // namespace
