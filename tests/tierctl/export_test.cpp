// zu_tierctl export: what it writes is what sql gives, and engines of a fleet read it.

#include "cache.h"
#include "check_run.h"
#include "held_data.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

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

// A text with `to` in place of each `from`.
std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at))
        text.replace(at, from.size(), to);
    return text;
}

// Twenty nodes of three layouts, some with damage, as one: what an engine of a fleet answers from
// the exports, and the companion from the devices, is what the model finds in the devices.
class Fleet : public Export {
protected:
    static constexpr int NODES = 20;
    static constexpr int TWIN = 16; // of which the last has the files, too

    Fleet()
    {
        for (int i = 0; i < NODES; ++i) {
            nodes.push_back(make_node(i));
            EXPECT_EQ(run(nodes.back().device.path(), "n" + std::to_string(i)).status, 0);
        }
    }

    struct Node {
        std::string layout;
        Device device;
        Lost lost;
    };
    std::vector<Node> nodes;

    static Node make_node(int i)
    {
        const std::string layout = LAYOUTS[static_cast<std::size_t>(i) % 3];
        const int seed = i == NODES - 1 ? TWIN : i;
        std::vector<std::string> args{"--bricks", "3",      "--inodes",
                                      "24",       "--seed", std::to_string(seed)};
        if (layout == "v1")
            args.insert(args.end(), {"--extent-size", "56"}); // what is held is told by its size
        Lost lost;
        if (i % 4 == 0) {
            args.insert(args.end(), {"--damage", "inode:" + std::to_string(i)});
            lost.insert({"inode", static_cast<std::uint64_t>(i)});
        }
        return {layout, make_sample(args, layout), lost};
    }

    void ask_findings() const;
    void ask_bytes_not_written_back() const;
    void ask_files_of_two_nodes() const;

    // The answers to a query in which {table} is a table and {node} tells nodes apart.
    void expect_answer(const std::string &query, const std::string &expected) const
    {
        std::string of_devices = replaced(query, "{node}", "device");
        std::string of_exports = replaced(query, "{node}", "node");
        for (const std::string table :
             {"super", "brick", "inode", "extent", "shard", "piece", "finding"}) {
            const std::string name = "{" + table + "}";
            of_devices = replaced(of_devices, name, table);
            of_exports = replaced(of_exports, name,
                                  "read_ndjson('" + fleet + "/table=" + table + "/*/*.zst')");
        }
        std::vector<std::string> args{"sql", "--csv"};
        for (const Node &node : nodes)
            args.push_back(node.device.path());
        args.push_back(of_devices);
        const RunResult own = run_ctl(args);
        EXPECT_EQ(own.status, 0) << own;
        EXPECT_EQ(own.out, expected);
        if (getenv("ZU_TIER_DUCKDB") != nullptr) {
            const RunResult engine = run_program(ENGINE, {"-csv", "-c", of_exports});
            EXPECT_EQ(engine.status, 0) << engine;
            EXPECT_EQ(engine.out, expected);
        }
    }
};

// The super block of a layout, for `use`.
template <class Use>
void with_super(const std::string &layout, const Device &device, const Use &use)
{
    const Block block = device.block(SUPER_OFFSET);
    if (layout == "v1")
        use(decode_super(block));
    else if (layout == "v2")
        use(decode_super_v2(block));
    else
        use(decode_super_v3(block));
}

// What is held, by layout: V1 by extent, V2 by piece, V3 by block.
constexpr char HELD_BY_BRICK[] = R"(
with held as (
  select e.{node}, e.te_inode_no ino, e.te_size bytes
  from {extent} e join {super} s on s.{node} = e.{node}
  where s.version = 65536 and e.state = 'ok' and e.te_use <> 0 and e.te_clean = 0
union all
  select p.{node}, e.te_inode_no, p.orig_len
  from {piece} p join {extent} e on e.{node} = p.{node} and e.no = p.no
  where p.state = 'ok' and p.clean = 0
union all
  select e.{node}, h.ino, s.block_size
  from {extent} e join {shard} h on h.{node} = e.{node} and h.no = e.shard
  join {super} s on s.{node} = e.{node}
  where e.state = 'ok' and e.in_use <> 0 and e.dirty <> 0)
select b.bi_brickid brick, sum(held.bytes) bytes
from held join {inode} i on i.{node} = held.{node} and i.no = held.ino and i.state = 'ok'
join {brick} b on b.{node} = i.{node} and b.no = i.brick_no
group by 1 order by 1)";

void Fleet::ask_findings() const
{
    std::map<std::string, std::uint64_t> findings; // by kind
    for (const Node &node : nodes)
        for (const Finding &finding : run_check(node.device.path()).findings)
            findings[finding.kind] += finding.count;
    ASSERT_FALSE(findings.empty());
    std::string expected = "kind,n\n";
    for (const auto &[kind, count] : findings)
        expected += kind + ',' + std::to_string(count) + '\n';
    expect_answer("select kind, sum(f.count) n from {finding} f group by kind order by kind",
                  expected);
    expect_answer("select count(distinct {node}) nodes, count(*) entries from {inode}",
                  "nodes,entries\n20,480\n");
}

void Fleet::ask_bytes_not_written_back() const
{
    std::map<std::string, std::uint64_t> bytes; // by path
    for (const Node &node : nodes)
        with_super(node.layout, node.device, [&](const auto &sb) {
            for (const HeldPiece &piece : held_pieces(node.device, node.layout, node.lost)) {
                if (piece.clean || piece.brick == ~std::uint64_t{0})
                    continue;
                const auto at = static_cast<std::uint64_t>(brick_offset(sb, piece.brick));
                bytes[decode_brick(node.device.block(at)).brickid] += piece.length;
            }
        });
    ASSERT_GE(bytes.size(), 20U);
    std::string expected = "brick,bytes\n";
    for (const auto &[brick, sum] : bytes)
        expected += brick + ',' + std::to_string(sum) + '\n';
    expect_answer(HELD_BY_BRICK, expected);
}

void Fleet::ask_files_of_two_nodes() const
{
    std::set<std::string> files;
    const Node &last = nodes.back();
    with_super(last.layout, last.device, [&](const auto &sb) {
        for (std::uint32_t no = 0; no < sb.inode_cnt; ++no) {
            const auto at = static_cast<std::uint64_t>(inode_offset(sb, no));
            const InodeV1 inode = decode_inode(last.device.block(at));
            if (inode.use != 0 && no != TWIN) // which is damaged there
                files.insert(uuid_text(inode.uuid));
        }
    });
    std::string expected = "uuid,nodes\n";
    for (const std::string &uuid : files)
        expected += uuid + ",2\n";
    EXPECT_GT(files.size(), 5U);
    expect_answer(
        "select uuid, count(distinct {node}) nodes from {inode} where use <> 0 and state = "
        "'ok' group by uuid having count(distinct {node}) > 1 order by uuid",
        expected);
}

TEST_F(Fleet, TwentyNodesAreOneTable)
{
    ask_findings();
    ask_bytes_not_written_back();
    ask_files_of_two_nodes();
}

} // namespace
