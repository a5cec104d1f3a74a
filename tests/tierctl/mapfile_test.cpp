// Mapfiles of ddrescue: what zu_tierctl domain and save write, and what the commands make of one
// that belongs to a copy.

#include "cache.h"
#include "salvage_tree.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

struct Stretch {
    std::uint64_t start;
    std::uint64_t end;

    bool operator==(const Stretch &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Stretch &stretch)
{
    return out << stretch.start << ".." << stretch.end;
}

// The stretches of that status in a mapfile, which covers so many bytes without a gap.
std::vector<Stretch> stretches_in(const std::string &map, char status, std::uint64_t size)
{
    std::vector<Stretch> found;
    std::uint64_t end = 0;
    bool has_position = false;
    for (const std::string &line : lines_of(map)) {
        if (line.starts_with("#"))
            continue;
        if (!has_position) {
            EXPECT_EQ(line, "0x00000000     ?               1");
            has_position = true;
            continue;
        }
        std::istringstream in(line);
        std::uint64_t start = 0;
        std::uint64_t length = 0;
        char is = 0;
        in >> std::hex >> start >> length >> is;
        EXPECT_TRUE(in && start == end && length > 0) << line;
        end = start + length;
        if (is == status)
            found.push_back({start, end});
        else
            EXPECT_TRUE(is == '?' || is == '-' || is == '+') << line;
    }
    EXPECT_EQ(end, size);
    return found;
}

// Sorted, and those that touch each other as one.
std::vector<Stretch> joined(std::vector<Stretch> stretches)
{
    std::ranges::sort(stretches, {}, &Stretch::start);
    std::vector<Stretch> all;
    for (const Stretch &stretch : stretches) {
        if (!all.empty() && all.back().end >= stretch.start)
            all.back().end = std::max(all.back().end, stretch.end);
        else
            all.push_back(stretch);
    }
    return all;
}

// A mapfile in which everything but these is finished.
std::string map_without(const std::vector<Stretch> &gaps, std::uint64_t size)
{
    std::string map = "# Mapfile. Created by GNU ddrescue\n0x00000000     *               2\n";
    std::uint64_t end = 0;
    const char *statuses = "?*/-";
    for (const Stretch &gap : joined(gaps)) {
        map += text("0x%08lX  0x%08lX  +\n", end, gap.start - end);
        map += text("0x%08lX  0x%08lX  %c # why\n", gap.start, gap.end - gap.start, *statuses);
        statuses += statuses[1] != 0 ? 1 : 0;
        end = gap.end;
    }
    return map + text("0x%08lX  0x%08lX  +\n", end, size - end);
}

class Mapfiles : public testing::TestWithParam<std::string> {
protected:
    const std::string layout = GetParam();
    const Device device = make_sample(small_sample(layout), layout);
    const TempDir directory;

    std::vector<Stretch> tables() const
    {
        std::vector<Stretch> stretches{{4096, 8192}};
        const auto add = [&stretches](std::int64_t start, std::uint64_t slots) {
            const auto from = static_cast<std::uint64_t>(start);
            stretches.push_back({from, from + slots * BLOCK_SIZE});
        };
        const auto add_tables = [&](const auto &sb, std::uint64_t bricks, std::uint64_t inodes,
                                    std::uint64_t extents) {
            add(brick_offset(sb, 0), bricks);
            add(inode_offset(sb, 0), inodes);
            add(extent_offset(sb, 0), extents);
        };
        if (layout == "v3") {
            const SuperV3 sb = decode_super_v3(device.block(4096));
            add_tables(sb, sb.brick_cnt, sb.inode_cnt, sb.extent_cnt / 512);
            add(shard_offset(sb, 0), sb.shard_cnt / 512);
            add(hot_offset(sb, 0), sb.hot_table_size / BLOCK_SIZE);
        } else {
            const SuperV1 sb = decode_super(device.block(4096));
            add_tables(sb, sb.brick_cnt, sb.inode_cnt, sb.block_cnt);
        }
        return stretches;
    }

    // With what these pieces hold, in whole blocks.
    std::vector<Stretch> with(const std::vector<HeldPiece> &pieces) const
    {
        std::vector<Stretch> stretches = tables();
        for (const HeldPiece &piece : pieces)
            stretches.push_back({piece.device, piece.device + round_up(piece.length, BLOCK_SIZE)});
        return stretches;
    }

    void expect_domain(const std::vector<std::string> &options,
                       const std::vector<Stretch> &expected) const
    {
        std::vector<std::string> args{"domain", device.path()};
        args.insert(args.end(), options.begin(), options.end());
        const RunResult run = run_ctl(args);
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(stretches_in(run.out, '+', device.size()), joined(expected));
        EXPECT_EQ(stretches_in(run.out, '-', device.size()), std::vector<Stretch>{});
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, Mapfiles, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(Mapfiles, DomainsOfTablesAndData)
{
    const std::vector<HeldPiece> held = held_pieces(device, layout);
    expect_domain({}, tables());
    expect_domain({"--metadata"}, tables());
    expect_domain({"--dirty"}, with(dirty(held)));
    expect_domain({"--all"}, with(held));
    for (const auto &[one, other] : std::vector<std::pair<std::string, std::string>>{
             {"--dirty", "--metadata"}, {"--all", "--dirty"}, {"--all", "--metadata"}})
        EXPECT_EQ(run_ctl({"domain", device.path(), other, one}).status, 2);
}

TEST_P(Mapfiles, ADomainLacksWhatIsNotKnown)
{
    std::vector<std::string> args = small_sample(layout);
    args.insert(args.end(), {"--damage", "extent:0"});
    const Device damaged = make_sample(args, layout);
    const RunResult run = run_ctl({"domain", "--all", damaged.path()});
    EXPECT_EQ(run.status, 1) << run;
    EXPECT_EQ(run.err, text("zu_tierctl: 1 %s of the table extent is damaged: what is held there "
                            "is not known\n",
                            layout == "v3" ? "block" : "entry"));
    EXPECT_EQ(stretches_in(run.out, '+', device.size()),
              joined(with(held_pieces(device, layout, {{"extent", 0}}))));
    EXPECT_EQ(run_ctl({"domain", damaged.path()}).status, 0);
}

// Blocks that were not copied are zero in the copy, which may even end before them: they are not
// damaged, and not outside of the device.
TEST_P(Mapfiles, WhatIsNotFinishedCannotBeRead)
{
    const Cache cache = make_cache(layout);
    const std::uint64_t size = cache.device.size();
    const auto inode = static_cast<std::uint64_t>(cache.offset("inode", 2));
    const auto extent = static_cast<std::uint64_t>(cache.offset("extent", 1));
    const std::vector<Stretch> gaps{{inode + 512, inode + 1024}, {extent, size}};
    const std::string map = directory.write("map", map_without(gaps, size));
    Device copy(size);
    copy.write(0, cache.device.bytes());
    copy.write(inode, Block{});
    copy.truncate(extent);
    const std::uint64_t extents = cache.table("extent").count - 1;

    const RunResult checked = run_ctl({"check", "--all", copy.path(), "--mapfile", map});
    EXPECT_EQ(checked.status, 1);
    std::size_t unreadable = 0;
    for (const std::string &line : lines_of(checked.out)) {
        EXPECT_EQ(line.find("(bad_checksum)"), std::string::npos) << line;
        EXPECT_EQ(line.find("(bad_magic)"), std::string::npos) << line;
        if (line.find("(unreadable)") != std::string::npos) {
            EXPECT_NE(line.find("not finished in the mapfile"), std::string::npos) << line;
            ++unreadable;
        }
    }
    EXPECT_EQ(unreadable, 1 + extents) << checked;

    const RunResult drawn = run_ctl({"map", copy.path(), "--mapfile", map});
    EXPECT_EQ(drawn.status, 0) << drawn;
    EXPECT_NE(drawn.out.find("1 unreadable"), std::string::npos) << drawn;
    EXPECT_EQ(drawn.out.find(" damaged,"), std::string::npos) << drawn;

    const RunResult template_of =
        run_ctl({"template", copy.path(), "inode", "2", "--mapfile", map});
    EXPECT_EQ(template_of.status, 1);
    EXPECT_NE(template_of.err.find("not finished in the mapfile"), std::string::npos)
        << template_of;

    const RunResult used = run_ctl({"usage", "--json", copy.path(), "--mapfile", map});
    EXPECT_EQ(used.status, 1) << used;
    EXPECT_NE(used.out.find(R"("table":"inode","why":"unreadable","no":2,"last":2)"),
              std::string::npos)
        << used;

    const std::string query = "select no from inode where state = 'unreadable'";
    const RunResult asked = run_ctl({"sql", "--csv", copy.path(), query, "--mapfile", map});
    EXPECT_EQ(asked.out, "no\n2\n") << asked;
    const RunResult two = run_ctl({"sql", copy.path(), copy.path(), query, "--mapfile", map});
    expect_complaint(two, 2, "--mapfile is for one DEVICE");

    const std::string fleet = directory.path("fleet");
    const RunResult exported =
        run_ctl({"export", "--node", "n", copy.path(), fleet, "--mapfile", map});
    EXPECT_EQ(exported.status, 0) << exported;
    const RunResult rows =
        run_program("/usr/bin/zstd", {"-dc", fleet + "/table=inode/node=n/part-0.ndjson.zst"});
    EXPECT_NE(rows.out.find("\"state\":\"unreadable\""), std::string::npos) << rows;

    const std::string saved = directory.path("saved");
    const std::string written = directory.path("written");
    const RunResult save =
        run_ctl({"save", copy.path(), saved, "--mapfile", map, "--write-mapfile", written});
    EXPECT_EQ(save.status, 1) << save;
    EXPECT_EQ(fs::file_size(saved), size);
    const std::vector<Stretch> failed = stretches_in(read_file(written), '-', size);
    EXPECT_EQ(failed, joined({{inode, inode + 4096}, {extent, extent + extents * BLOCK_SIZE}}));
    std::vector<Stretch> finished;
    for (const CacheTable &table : cache.tables)
        for (std::uint64_t no = 0; no < table.count; ++no) {
            const auto at = static_cast<std::uint64_t>(table.offset(no));
            if (std::ranges::none_of(failed, [at](const Stretch &stretch) {
                    return at >= stretch.start && at < stretch.end;
                }))
                finished.push_back({at, at + BLOCK_SIZE});
        }
    EXPECT_EQ(stretches_in(read_file(written), '+', size), joined(finished));

    // The file is now a copy with a mapfile itself.
    fs::remove(saved + ".unreadable.json");
    const RunResult again = run_ctl({"check", "--all", saved, "--mapfile", written});
    std::string expected = checked.out;
    for (std::size_t at = 0; (at = expected.find(copy.path(), at)) != std::string::npos;)
        expected.replace(at, copy.path().size(), saved);
    EXPECT_EQ(again.out, expected);
}

TEST_P(Mapfiles, NothingIsOverwritten)
{
    const std::string taken = directory.write("taken", "precious");
    const std::string saved = directory.path("saved");
    expect_complaint(run_ctl({"save", device.path(), saved, "--write-mapfile", taken}), 1,
                     taken + " exists");
    EXPECT_EQ(names_in(directory), std::vector<std::string>{"taken"});
    EXPECT_EQ(read_file(taken), "precious");
}

TEST_P(Mapfiles, FilesThatAreNone)
{
    const std::string map = directory.path("map");
    const auto refused = [&](const std::string &complaint) {
        for (const std::vector<std::string> &args :
             std::vector<std::vector<std::string>>{{"check", device.path()},
                                                   {"map", device.path()},
                                                   {"template", device.path(), "inode", "1"},
                                                   {"save", device.path(), directory.path("out")},
                                                   {"salvage", device.path(), directory.path("d")},
                                                   {"domain", device.path()}}) {
            std::vector<std::string> all = args;
            all.insert(all.end(), {"--mapfile", map});
            expect_complaint(run_ctl(all), args[0] == "check" ? 2 : 1, complaint);
        }
        EXPECT_EQ(fs::exists(directory.path("out")) || fs::exists(directory.path("d")), false);
    };
    refused("cannot open " + map + ": No such file or directory");
    if (layout != "v1")
        return;
    const std::string position = "0 ? 1\n";
    const std::string maximum = "0x7fffffffffffffff";
    for (const auto &[content, line] :
         std::vector<std::pair<std::string, int>>{{"", 1},
                                                  {"# nothing\n", 2},
                                                  {"x ? 1\n", 1},
                                                  {"0\n", 1},
                                                  {"0 ! 1\n", 1},
                                                  {"0 ?? 1\n", 1},
                                                  {"0 ? 1 2\n", 1},
                                                  {position + "0 4096\n", 2},
                                                  {position + "0 4096 + +\n", 2},
                                                  {position + "0 4096 !\n", 2},
                                                  {position + "0 4096 F\n", 2},
                                                  {position + "-1 4096 +\n", 2},
                                                  {position + "0 x +\n", 2},
                                                  {position + "\n# \n0 4096 +\n8192 4096 +\n", 5},
                                                  {position + "0 8192 +\n4096 4096 -\n", 3},
                                                  {position + "0x8000000000000000 0 +\n", 2},
                                                  {position + "1 " + maximum + " +\n", 2},
                                                  {position + "0 99999999999999999999 +\n", 2},
                                                  {std::string(5000, '#') + "\n" + position, 1}}) {
        directory.write("map", content);
        expect_complaint(run_ctl({"domain", device.path(), "--mapfile", map}), 1,
                         map + text(" is no mapfile of ddrescue: line %d", line));
    }
    fs::remove(map);
    fs::create_directory(map);
    refused(map + " is no regular file");
}

// A mapfile ends where the device does, in any form that ddrescue writes or an operator edits.
TEST_P(Mapfiles, AllForms)
{
    const std::string map =
        directory.write("map", "\n  # a comment\n\t0x10 - 3\r\n0 04096 -\n4096 0x1000 +  #\n8192 " +
                                   std::to_string(device.size() - 8192) + " ?");
    const RunResult run = run_ctl({"domain", device.path(), "--mapfile", map});
    EXPECT_EQ(run.status, 1) << run;
    directory.write("map", "0 +\n0 " + std::to_string(device.size()) + " +");
    const RunResult whole = run_ctl({"domain", device.path(), "--all", "--mapfile", map});
    EXPECT_EQ(whole.status, 0) << whole;
    EXPECT_EQ(whole.out, run_ctl({"domain", device.path(), "--all"}).out);
}

// Those of ddrescue itself take what is written here.
TEST_P(Mapfiles, DdrescueReadsThem)
{
    if (access("/usr/bin/ddrescuelog", X_OK) != 0)
        GTEST_SKIP() << "ddrescue is not installed";
    const RunResult domain = run_ctl({"domain", device.path(), "--all"});
    const std::string map = directory.write("map", domain.out);
    const RunResult listed = run_program("/usr/bin/ddrescuelog", {"-b", "4096", "-l", "+", map});
    EXPECT_EQ(listed.status, 0) << listed.err;
    std::uint64_t bytes = 0;
    for (const Stretch &stretch : joined(with(held_pieces(device, layout))))
        bytes += stretch.end - stretch.start;
    EXPECT_EQ(static_cast<std::uint64_t>(std::ranges::count(listed.out, '\n')), bytes / BLOCK_SIZE);
}

TEST_P(Mapfiles, Help)
{
    const RunResult help = run_ctl({"domain", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const std::string word : {"DEVICE", "--metadata", "--dirty", "--all", "ddrescue -d -m"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
}

} // namespace
