// zu_tierctl export: what it writes is what sql gives, and engines of a fleet read it.

#include "cache.h"
#include "check_run.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

using namespace tier_test;
using Json = nlohmann::json;
namespace fs = std::filesystem;

namespace {

class Export : public testing::Test {
protected:
    const TempDir directory;
    const std::string fleet = directory.path("fleet");

    RunResult run(const std::string &device, const std::string &node) const
    {
        return run_ctl({"export", device, fleet, "--node", node});
    }

    std::string file(const std::string &table, const std::string &node) const
    {
        return fleet + "/table=" + table + "/node=" + node + "/part-0.ndjson.zst";
    }

    static std::string content(const std::string &path)
    {
        const RunResult run = run_program("/usr/bin/zstd", {"-dc", path});
        EXPECT_EQ(run.status, 0) << run;
        return run.out;
    }
};

class ExportLayouts : public Export, public testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(Layout, ExportLayouts, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(ExportLayouts, HasTheRowsOfSql)
{
    const Cache cache = make_cache(GetParam());
    flip(cache.device, cache.offset("inode", 1) + 20);
    const auto before = cache.device.bytes();
    const RunResult exported = run(cache.device.path(), "n1");
    EXPECT_EQ(exported.status, 0) << exported;
    EXPECT_EQ(exported.out + exported.err, "");
    EXPECT_TRUE(cache.device.bytes() == before);
    std::vector<std::string> tables;
    for (const auto &entry : fs::directory_iterator(fleet))
        tables.push_back(entry.path().filename().string().substr(6));
    std::ranges::sort(tables);
    EXPECT_EQ(tables, (std::vector<std::string>{"brick", "extent", "finding", "inode", "piece",
                                                "shard", "super"}));
    for (const std::string &table : tables) {
        const RunResult asked =
            run_ctl({"sql", "--ndjson", cache.device.path(), "select * from " + table});
        EXPECT_EQ(asked.status, 0) << asked;
        EXPECT_EQ(content(file(table, "n1")), asked.out) << table;
    }
}

// Of the same node the new one replaces the old one, and other nodes stay.
TEST_F(Export, ReplacesThatOfTheSameNode)
{
    const Cache cache = make_cache("v1");
    ASSERT_EQ(run(cache.device.path(), "n1").status, 0);
    ASSERT_EQ(run(cache.device.path(), "n2").status, 0);
    const std::string before = content(file("inode", "n1"));
    flip(cache.device, cache.offset("inode", 1) + 20);
    ASSERT_EQ(run(cache.device.path(), "n2").status, 0);
    EXPECT_EQ(content(file("inode", "n1")), before);
    EXPECT_NE(content(file("inode", "n2")), before);
    std::size_t files = 0;
    for (const auto &entry : fs::recursive_directory_iterator(fleet))
        files += entry.is_regular_file() ? 1 : 0;
    EXPECT_EQ(files, 2U * 7);
}

TEST_F(Export, NamesOfNodes)
{
    const Cache cache = make_cache("v1");
    for (const std::string &node : {std::string(), std::string(".."), std::string("../n1"),
                                    std::string("a=b"), std::string("n 1"), std::string(251, 'x')})
        EXPECT_EQ(run(cache.device.path(), node).status, 2) << node;
    EXPECT_FALSE(fs::exists(fleet));
    EXPECT_EQ(run(cache.device.path(), std::string(250, 'x')).status, 0);
    EXPECT_EQ(run(cache.device.path(), "node-1.example_x").status, 0);
}

TEST_F(Export, NothingOfADeviceThatCannotBeRead)
{
    const Device device(1 << 20);
    expect_complaint(run(device.path(), "n1"), 1, no_super_block(device.path()));
    EXPECT_FALSE(fs::exists(fleet));
}

TEST_F(Export, ADirectoryThatCannotBeCreated)
{
    const Cache cache = make_cache("v1");
    directory.write("fleet", "a file");
    const RunResult refused = run(cache.device.path(), "n1");
    EXPECT_EQ(refused.status, 1) << refused;
    EXPECT_NE(refused.err.find("cannot create " + fleet), std::string::npos) << refused;
    EXPECT_EQ(directory.read("fleet"), "a file");
}

// Twenty nodes of three layouts, some with damage: an engine of a fleet and the companion's own
// answer alike, and as check counts.
TEST_F(Export, TwentyNodesAreOneTable)
{
    const bool has_engine = getenv("ZU_TIER_DUCKDB") != nullptr;
    std::map<std::string, std::uint64_t> findings; // by kind
    std::vector<std::string> devices;
    for (int i = 0; i < 20; ++i) {
        const std::string device = directory.path("cache" + std::to_string(i));
        std::vector<std::string> args{
            "sample",   "--layout", LAYOUTS[static_cast<std::size_t>(i) % 3],
            "--bricks", "3",        "--inodes",
            "24",       "--seed",   std::to_string(i),
            device};
        if (i % 4 == 0)
            args.insert(args.begin() + 1, {"--damage", "inode:" + std::to_string(i)});
        ASSERT_EQ(run_ctl(args).status, 0);
        ASSERT_EQ(run(device, "n" + std::to_string(i)).status, 0);
        for (const Finding &finding : run_check(device).findings)
            findings[finding.kind] += finding.count;
        devices.push_back(device);
    }
    ASSERT_FALSE(findings.empty());
    std::string expected = "kind,n\n";
    for (const auto &[kind, count] : findings)
        expected += kind + ',' + std::to_string(count) + '\n';

    std::vector<std::string> args{"sql", "--csv"};
    args.insert(args.end(), devices.begin(), devices.end());
    args.push_back("select kind, count(*) n from finding group by kind order by kind");
    const RunResult own = run_ctl(args);
    EXPECT_EQ(own.status, 0) << own;
    EXPECT_EQ(own.out, expected);
    if (has_engine) {
        const RunResult engine =
            run_program(ENGINE, {"-csv", "-c",
                                 "select kind, count(*) n from read_ndjson('" + fleet +
                                     "/table=finding/*/*.zst') group by kind order by kind"});
        EXPECT_EQ(engine.status, 0) << engine;
        EXPECT_EQ(engine.out, expected);
        const RunResult nodes = run_program(
            ENGINE, {"-csv", "-c",
                     "select count(distinct node) nodes, count(*) entries from read_ndjson('" +
                         fleet + "/table=inode/*/*.zst')"});
        EXPECT_EQ(nodes.out, "nodes,entries\n20,480\n") << nodes;
    }
}

} // namespace
