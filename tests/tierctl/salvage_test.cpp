// zu_tierctl salvage: the data of files, off the device.

#include "cache.h"
#include "salvage_tree.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

constexpr char NDJSON[] = "manifest.ndjson";

class Salvage : public testing::Test {
protected:
    const TempDir directory;
    const std::string into = directory.path("salvaged");
    const std::string manifest = into + "/" + NDJSON;

    RunResult run(const Device &device, const std::vector<std::string> &options = {}) const
    {
        std::vector<std::string> args{"salvage", device.path(), into};
        args.insert(args.end(), options.begin(), options.end());
        return run_ctl(args);
    }

    void expect_tree(const SalvageTree &expected) const { expect_same(read_tree(into), expected); }

    // Everything is salvaged; nothing is said but how much.
    void expect_complete(const Device &device, const std::vector<std::string> &options,
                         const std::vector<HeldPiece> &pieces) const
    {
        SCOPED_TRACE(testing::PrintToString(options));
        const RunResult done = run(device, options);
        EXPECT_EQ(done.status, 0) << done;
        const SalvageTree expected = expected_tree(pieces);
        EXPECT_EQ(done.err, total_line(expected));
        EXPECT_EQ(done.out, "");
        EXPECT_FALSE(pieces.empty());
        expect_tree(expected);
        fs::remove_all(into);
    }

    // The rest is salvaged.
    void expect_lost(const RunResult &done, const std::string &complaint) const
    {
        EXPECT_EQ(done.status, 1) << done;
        EXPECT_EQ(done.err, "zu_tierctl: " + complaint + "\n" + total_line(read_tree(into)));
        EXPECT_EQ(done.out, "");
    }

    void expect_refused(const Device &device, const std::vector<std::string> &options,
                        const std::string &complaint, int status = 1) const
    {
        SCOPED_TRACE(testing::PrintToString(options));
        const bool was_there = fs::exists(into);
        expect_complaint(run(device, options), status, complaint);
        EXPECT_EQ(fs::exists(into), was_there);
    }
};

class SalvageLayouts : public Salvage, public testing::WithParamInterface<std::string> {
protected:
    const std::string layout = GetParam();
    const Device device = make_sample(small_sample(layout), layout);
    const std::vector<HeldPiece> held = held_pieces(device, layout);
};

INSTANTIATE_TEST_SUITE_P(Layout, SalvageLayouts, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(SalvageLayouts, WhatWasNotWrittenBack)
{
    const auto before = device.bytes();
    const std::vector<HeldPiece> wanted = dirty(held);
    EXPECT_LT(wanted.size(), held.size());
    expect_complete(device, {}, wanted);
    expect_complete(device, {"--dirty"}, wanted);
    EXPECT_TRUE(device.bytes() == before);
}

TEST_P(SalvageLayouts, Everything) { expect_complete(device, {"--all"}, held); }

TEST_P(SalvageLayouts, TheFirstLineSaysOfWhat)
{
    ASSERT_EQ(run(device, {"--all", "--inode", "0x7"}).status, 0);
    const auto head = nlohmann::json::parse(lines_of(read_file(manifest)).front());
    const Block super = device.block(4096);
    EXPECT_EQ(head, (nlohmann::json{{"device", device.path()},
                                    {"size", device.size()},
                                    {"layout", layout},
                                    {"super_crc32", text("%08x", crc32(super))},
                                    {"all", true},
                                    {"brick", ""},
                                    {"inode", "0x7"}}));
}

TEST_P(SalvageLayouts, FilesAreSparse)
{
    ASSERT_EQ(run(device, {}).status, 0);
    std::map<std::string, std::uint64_t> bytes;
    for (const HeldPiece &piece : dirty(held))
        bytes[piece.file] += round_up(piece.length, BLOCK_SIZE);
    for (const auto &[name, length] : bytes) {
        struct stat status {};
        ASSERT_EQ(stat((into + "/" + name).c_str(), &status), 0);
        EXPECT_LE(static_cast<std::uint64_t>(status.st_blocks) * 512, length) << name;
    }
}

TEST_P(SalvageLayouts, OfOneBrickOrInode)
{
    const HeldPiece some = *std::ranges::find(held, false, &HeldPiece::clean);
    const auto of_brick = [&](const HeldPiece &piece) { return piece.brick == some.brick; };
    const auto of_inode = [&](const HeldPiece &piece) { return piece.inode == some.inode; };
    const std::string brick = std::to_string(some.brick);
    const std::string brick_uuid = some.file.substr(0, 36);
    const std::string inode = std::to_string(some.inode);
    const std::vector<HeldPiece> pieces = dirty(only(held, of_brick));
    expect_complete(device, {"--brick", brick}, pieces);
    expect_complete(device, {"--brick", brick_uuid}, pieces);
    expect_complete(device, {"--inode", inode, "--brick", brick}, only(pieces, of_inode));
    std::string upper = uuid_text(some.uuid);
    std::ranges::transform(upper, upper.begin(), [](char c) { return std::toupper(c); });
    expect_complete(device, {"--inode", upper, "--all"}, only(held, of_inode));

    const RunResult none = run(device, {"--inode", "4000000000"});
    EXPECT_EQ(none.status, 0) << none;
    EXPECT_EQ(none.err, "zu_tierctl: nothing is held of what --brick or --inode names\n"
                        "zu_tierctl: copied 0 bytes of 0 files\n");
    expect_tree({});
    for (const std::string &wrong : std::vector<std::string>{"x", "-1", "1-2", brick_uuid + "0"})
        expect_refused(device, {"--inode", wrong},
                       "--inode " + wrong + ": expected a number or a uuid", 2);
}

TEST_P(SalvageLayouts, WhatBelongsToDamagedEntries)
{
    const HeldPiece some = *std::ranges::find(held, false, &HeldPiece::clean);
    std::vector<std::string> args = small_sample(layout);
    const auto damage = [&](const std::vector<std::string> &entries) {
        std::vector<std::string> all = args;
        for (const std::string &entry : entries)
            all.insert(all.end(), {"--damage", entry});
        return make_sample(all, layout);
    };
    const std::string inode = std::to_string(some.inode);
    const Device lost_inode = damage({"inode:" + inode});
    const Lost lost{{"inode", some.inode}};
    std::vector<HeldPiece> pieces = held_pieces(device, layout, lost);
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        EXPECT_EQ(pieces[i].file.starts_with("unknown/inode-" + inode),
                  held[i].inode == some.inode);
        pieces[i].uuid = held[i].uuid; // which the pages have
    }
    expect_complete(lost_inode, {"--all"}, pieces);
    expect_complete(lost_inode, {"--inode", inode}, dirty(only(pieces, [&](const auto &piece) {
                        return piece.inode == some.inode;
                    })));

    const std::string brick = std::to_string(some.brick);
    pieces = held_pieces(device, layout, {{"brick", some.brick}});
    EXPECT_TRUE(std::ranges::any_of(pieces, [&](const HeldPiece &piece) {
        return piece.file.starts_with("unknown/brick-" + brick + "/");
    }));
    expect_complete(damage({"brick:" + brick + ":number"}), {}, dirty(pieces));
}

TEST_P(SalvageLayouts, WhatDamagedExtentsHoldIsNotKnown)
{
    const std::uint64_t slot = layout == "v3" ? 0 : dirty(held).front().extent;
    std::vector<std::string> args = small_sample(layout);
    args.insert(args.end(), {"--damage", "extent:" + std::to_string(slot)});
    const Device damaged = make_sample(args, layout);
    expect_lost(run(damaged),
                text("1 %s of the table extent is damaged: what is held there is not known",
                     layout == "v3" ? "block" : "entry"));
    expect_tree(expected_tree(dirty(held_pieces(device, layout, {{"extent", slot}}))));
}

TEST_F(Salvage, ShardsThatAreDamaged)
{
    const Device device = make_sample(small_sample("v3"), "v3");
    const std::vector<HeldPiece> held = held_pieces(device, "v3");
    std::vector<std::string> args = small_sample("v3");
    args.insert(args.end(), {"--damage", "shard:0"});
    std::vector<HeldPiece> pieces = held_pieces(device, "v3", {{"shard", 0}});
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        EXPECT_TRUE(pieces[i].file.starts_with("unknown/shard-"));
        pieces[i].uuid = held[i].uuid;
    }
    expect_complete(make_sample(args, "v3"), {}, dirty(pieces));
}

// A directory may be there, if it is empty.
TEST_P(SalvageLayouts, Directories)
{
    EXPECT_EQ(run(device).status, 0);
    EXPECT_EQ(fs::status(into).permissions(), fs::perms::owner_all);
    fs::remove_all(into);
    fs::create_directory(into);
    EXPECT_EQ(run(device).status, 0);
    expect_tree(expected_tree(dirty(held)));
    expect_refused(device, {},
                   into + " is not empty: give a new directory in it, or --resume to go on with "
                          "the salvage that is there");
    fs::remove_all(into);
    directory.write("salvaged", "a file");
    expect_refused(device, {}, "cannot write to " + into + ": Not a directory");
    expect_refused(device, {"--resume"}, "cannot write to " + into + ": Not a directory");
    fs::remove(into);
    fs::create_symlink("nowhere", into);
    expect_complaint(run(device), 1, "cannot write to " + into + ": No such file or directory");
    EXPECT_FALSE(fs::exists(directory.path("nowhere")));
    fs::remove(into);
    expect_complaint(run_ctl({"salvage", device.path(), into + "/in/it"}), 1,
                     "cannot create " + into + "/in/it: No such file or directory");
    EXPECT_EQ(run_ctl({"salvage", device.path(), into + "/"}).status, 0);
    expect_tree(expected_tree(dirty(held)));
}

// Whatever was done of it before.
TEST_P(SalvageLayouts, GoesOnWhereItWas)
{
    ASSERT_EQ(run(device).status, 0);
    const SalvageTree complete = read_tree(into);
    const std::string text = read_file(manifest);
    for (std::size_t length = 0; length <= text.size(); length += 1 + text.size() / 17) {
        SCOPED_TRACE(length);
        fs::resize_file(manifest, length);
        for (const auto &[name, bytes] : complete.files)
            fs::resize_file(into + "/" + name, bytes.size() / 2);
        // The files that the manifest calls copied have to be whole.
        const auto lines = std::ranges::count(text.substr(0, length), '\n');
        for (auto line = complete.manifest.begin(); line < complete.manifest.begin() + lines - 1;
             ++line) {
            const std::string name = (*line)["file"];
            directory.write("salvaged/" + name, complete.files.at(name));
        }
        const RunResult done = run(device, {"--resume"});
        EXPECT_EQ(done.status, 0) << done;
        EXPECT_EQ(done.err, total_line(complete));
        expect_tree(complete);
        EXPECT_EQ(read_file(manifest), text);
    }
    fs::remove_all(into);
    EXPECT_EQ(run(device, {"--resume"}).status, 0);
    expect_tree(complete);
}

// The blocks that a mapfile does not call finished, and those of which it calls only a part so.
TEST_P(SalvageLayouts, UnreadableBlocksAreHoles)
{
    std::set<std::uint64_t> unreadable;
    for (std::size_t i = 0; i < held.size(); i += 2) {
        const HeldPiece &piece = held[i];
        const std::uint64_t blocks = (piece.length + BLOCK_SIZE - 1) / BLOCK_SIZE;
        unreadable.insert(piece.device + (blocks - 1) * BLOCK_SIZE);
        unreadable.insert(piece.device + blocks / 2 * BLOCK_SIZE);
    }
    std::string map = "# Mapfile\n0x0 ? 1\n";
    std::uint64_t end = 0;
    for (const std::uint64_t block : unreadable) {
        map += text("%lu 0x%lx +\n0x%lx 512 -\n", end, block + 1024 - end, block + 1024);
        end = block + 1536;
    }
    map += text("0x%lx %lu +\n", end, device.size() - end);
    const std::string path = directory.write("map", map);
    const RunResult done = run(device, {"--all", "--mapfile", path});
    std::uint64_t bytes = 0;
    const SalvageTree expected = expected_tree(held, unreadable);
    for (const auto &line : expected.manifest)
        bytes += line["state"] == "unreadable" ? line["length"].get<std::uint64_t>() : 0;
    expect_lost(done, text("%lu bytes cannot be read: see ", bytes) + manifest);
    expect_tree(expected);

    // What cannot be read is said again when there is nothing more to do.
    const RunResult again = run(device, {"--resume", "--all", "--mapfile", path});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err, done.err);
    expect_tree(expected);
}

TEST_P(SalvageLayouts, ExtentsThatCannotBeRead)
{
    const std::int64_t extents = layout == "v3"
                                     ? extent_offset(decode_super_v3(device.block(4096)), 0)
                                     : extent_offset(decode_super(device.block(4096)), 0);
    const std::string path = directory.write(
        "map", text("0 ? 1\n0 %ld +\n%ld 4096 ?\n%ld %ld +\n", extents, extents, extents + 4096,
                    static_cast<std::int64_t>(device.size()) - extents - 4096));
    expect_lost(run(device, {"--mapfile", path}),
                text("1 %s of the table extent cannot be read: what is held there is not known",
                     layout == "v3" ? "block" : "entry"));
    expect_tree(expected_tree(dirty(held_pieces(device, layout, {{"extent", 0}}))));
}

// A limit of the target says nothing of the data: without it the rest is salvaged.
TEST_P(SalvageLayouts, LimitsOfTheTarget)
{
    const std::string limited = text("ulimit -f 40; exec %s salvage --all %s %s",
                                     std::string(ZU_TIERCTL).c_str(), device.path().c_str(),
                                     into.c_str()); // KiB
    const RunResult done = run_program("/bin/bash", {"-c", limited});
    const SalvageTree complete = expected_tree(held);
    if (std::ranges::any_of(complete.files,
                            [](const auto &file) { return file.second.size() > 40960; })) {
        EXPECT_EQ(done.status, 1) << done;
        EXPECT_NE(done.err.find(" bytes lie past the end of the largest file that " + into),
                  std::string::npos)
            << done;
    }
    EXPECT_EQ(run(device, {"--all", "--resume"}).status, 0);
    expect_tree(complete);
}

// A saved file has the tables and no data: what is found there is not called salvaged.
TEST_P(SalvageLayouts, SavedFilesHaveNoData)
{
    const std::string saved = directory.path("saved");
    ASSERT_EQ(run_ctl({"save", device.path(), saved}).status, 0);
    std::uint64_t bytes = 0;
    for (const HeldPiece &piece : dirty(held))
        bytes += piece.length - piece.cut;
    const std::string complaint =
        text("%lu bytes are holes of %s, and so zeros here: a saved file has no data, and a copy "
             "of ddrescue needs its --mapfile",
             bytes, saved.c_str());
    expect_lost(run_ctl({"salvage", saved, into}), complaint);
    expect_lost(run_ctl({"salvage", "--resume", saved, into}), complaint);
}

// The super block of a saved file tells where the tables are.
TEST_P(SalvageLayouts, DevicesWithoutASuperBlock)
{
    const std::string saved = directory.path("saved");
    ASSERT_EQ(run_ctl({"save", device.path(), saved}).status, 0);
    Device broken(device.size());
    broken.write(0, device.bytes());
    broken.write(4096, Block{});
    const RunResult done = run(broken, {"--super", saved});
    EXPECT_EQ(done.status, 0) << done;
    EXPECT_NE(done.err.find("the super block is that of " + saved), std::string::npos) << done;
    expect_tree(expected_tree(dirty(held)));
}

// Manifests

class SalvageManifests : public Salvage {
protected:
    Device device = make_sample(small_sample("v1"));

    void expect_refused_line(const std::string &text, std::size_t line) const
    {
        directory.write(std::string("salvaged/") + NDJSON, text);
        const RunResult refused = run(device, {"--resume"});
        expect_complaint(refused, 1,
                         manifest + tier_test::text(": line %zu is not what the device holds there "
                                                    "now; salvage it into a new directory",
                                                    line));
        EXPECT_EQ(read_file(manifest), text);
    }
};

TEST_F(SalvageManifests, OfAnotherDeviceOrChoice)
{
    ASSERT_EQ(run(device).status, 0);
    const std::string other =
        manifest + " is that of another device, or of another choice of its data";
    const SalvageTree before = read_tree(into);
    for (const std::vector<std::string> &options :
         std::vector<std::vector<std::string>>{{"--all"}, {"--brick", "0"}, {"--inode", "2"}}) {
        std::vector<std::string> all = options;
        all.emplace_back("--resume");
        expect_refused(device, all, other);
    }
    expect_refused(make_sample({"--seed", "5"}), {"--resume"}, other);
    expect_same(read_tree(into), before);

    // It may have been moved.
    fs::rename(device.path(), directory.path("moved"));
    EXPECT_EQ(run_ctl({"salvage", directory.path("moved"), into, "--resume"}).status, 0);
    expect_same(read_tree(into), before);
    for (const std::string first : {"[]\n", "{}\n", "x\n"}) {
        directory.write(std::string("salvaged/") + NDJSON, first);
        expect_complaint(run_ctl({"salvage", directory.path("moved"), into, "--resume"}), 1, other);
    }
}

TEST_F(SalvageManifests, LinesThatAreNotOfThePlan)
{
    ASSERT_EQ(run(device).status, 0);
    const std::string good = read_file(manifest);
    const std::vector<std::string> lines = lines_of(good);
    ASSERT_GT(lines.size(), 3U);
    const auto with = [&](const std::string &key, const nlohmann::json &value) {
        auto line = nlohmann::json::parse(lines[1]);
        line[key] = value;
        return lines[0] + "\n" + line.dump() + "\n";
    };
    expect_refused_line(lines[0] + "\n" + lines[2] + "\n", 2);
    expect_refused_line(lines[0] + "\n" + lines[1] + "\n" + lines[1] + "\n", 3);
    expect_refused_line(good + lines[1] + "\n", lines.size() + 1);
    expect_refused_line(with("file", "../x"), 2);
    expect_refused_line(with("offset", 1), 2);
    expect_refused_line(with("length", 0), 2);
    expect_refused_line(with("length", -4096), 2);
    expect_refused_line(with("length", 1e300), 2);
    expect_refused_line(with("length", std::uint64_t{1} << 63), 2);
    expect_refused_line(with("length", "4096"), 2);
    expect_refused_line(with("device_offset", nullptr), 2);
    expect_refused_line(with("state", "lost"), 2);
    expect_refused_line(with("state", 1), 2);
    for (const std::string line : {"x", "[]", "", "1"})
        expect_refused_line(lines[0] + "\n" + line + "\n", 2);

    // Extents that have changed since.
    directory.write(std::string("salvaged/") + NDJSON, good);
    const SuperV1 sb = decode_super(device.block(4096));
    const std::uint64_t no = nlohmann::json::parse(lines[1])["extent"];
    const auto place = static_cast<std::uint64_t>(extent_offset(sb, no));
    ExtentV1 extent = decode_extent(device.block(place), sb.extent_size);
    extent.clean = 1;
    device.write(place, encode(extent, sb.extent_size));
    expect_refused_line(good, 2);
}

// Of two at the same time the second changes nothing.
TEST_F(SalvageManifests, OneSalvageAtATime)
{
    const std::string busy =
        "another salvage is at work in " + into + ": wait for its end, or give another directory";
    ASSERT_EQ(run(device).status, 0);
    const SalvageTree complete = read_tree(into);
    fs::resize_file(manifest, read_file(manifest).size() / 2);
    const std::string text = read_file(manifest);
    const int fd = open(manifest.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    expect_refused(device, {"--resume"}, busy);
    EXPECT_EQ(read_file(manifest), text);
    close(fd);
    EXPECT_EQ(run(device, {"--resume"}).status, 0);
    expect_same(read_tree(into), complete);
}

TEST_F(SalvageManifests, DirectoriesOfSomethingElse)
{
    directory.write("other", "");
    fs::create_directory(into);
    directory.write("salvaged/mine", "precious");
    expect_refused(device, {"--resume"}, into + " is no directory of a salvage");
    EXPECT_EQ(read_file(into + "/mine"), "precious");
    EXPECT_EQ(std::distance(fs::directory_iterator(into), {}), 1);
}

// Whatever is planted in the directory, nothing outside of it is touched.
TEST_F(SalvageManifests, LinksAreNotFollowed)
{
    ASSERT_EQ(run(device).status, 0);
    const SalvageTree complete = read_tree(into);
    const std::string &first = complete.manifest.front()["file"].get_ref<const std::string &>();
    const std::string brick = first.substr(0, first.find('/'));
    const std::string outside = directory.path("outside");
    fs::create_directory(outside);
    const std::string victim = directory.write("outside/victim", "precious");
    const auto plant = [&](const std::string &what, const auto &lay) {
        SCOPED_TRACE(what);
        fs::remove_all(into);
        ASSERT_EQ(run(device).status, 0);
        fs::resize_file(manifest, read_file(manifest).find('\n') + 1);
        fs::remove_all(into + "/" + what);
        lay(into + "/" + what);
        const RunResult refused = run(device, {"--resume"});
        EXPECT_EQ(refused.status, 1) << refused;
        EXPECT_NE(refused.err.find(into + "/"), std::string::npos) << refused;
        EXPECT_EQ(read_file(victim), "precious");
        EXPECT_EQ(std::distance(fs::directory_iterator(outside), {}), 1);
    };
    plant(brick, [&](const std::string &at) { fs::create_directory_symlink(outside, at); });
    plant(brick, [&](const std::string &at) { fs::create_hard_link(victim, at); });
    plant(first, [&](const std::string &at) { fs::create_symlink(victim, at); });
    plant(first, [&](const std::string &at) { fs::create_symlink(outside + "/new", at); });
    plant(first, [&](const std::string &at) { fs::create_hard_link(victim, at); });
    plant(first, [&](const std::string &at) { fs::create_directory(at); });
    plant(first, [&](const std::string &at) { mkfifo(at.c_str(), 0600); });
    plant(NDJSON, [&](const std::string &at) { fs::create_symlink(victim, at); });
    plant(NDJSON, [&](const std::string &at) { fs::create_hard_link(victim, at); });
    plant(NDJSON, [&](const std::string &at) { fs::create_directory(at); });
}

TEST_F(SalvageManifests, NotIntoTheDevice)
{
    fs::create_directory(into);
    fs::rename(device.path(), into + "/device");
    for (const std::string &target : {into, directory.path(".")}) {
        const RunResult refused = run_ctl({"salvage", into + "/device", target, "--resume"});
        expect_complaint(refused, 1, into + "/device lies in " + target);
    }
    EXPECT_EQ(names_in(directory), std::vector<std::string>{"salvaged"});
    EXPECT_EQ(std::distance(fs::directory_iterator(into), {}), 1);
}

// A file system that lies in the image, after the data of the cache.
TEST_F(SalvageManifests, NotOntoTheDevice)
{
    const std::uint64_t offset = round_up(device.size(), MIB);
    device.truncate(offset + 8 * MIB);
    fs::create_directory(into);
    const std::string make =
        text("mkfs.ext4 -q -F -E offset=%lu %s 8M && mount -o loop,offset=%lu "
             "%s %s",
             offset, device.path().c_str(), offset, device.path().c_str(), into.c_str());
    if (run_program("/bin/sh", {"-c", make}).status != 0)
        GTEST_SKIP() << "no right to mount a file system";
    const std::string target = into + "/new";
    const RunResult refused = run_ctl({"salvage", device.path(), target});
    const bool is_there = fs::exists(target);
    EXPECT_EQ(run_program("/bin/sh", {"-c", "umount " + into}).status, 0);
    expect_complaint(refused, 1,
                     target + " lies on " + device.path() +
                         ": what is salvaged would be written over it");
    EXPECT_FALSE(is_there);
}

TEST_F(SalvageManifests, Help)
{
    const RunResult help = run_ctl({"salvage", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const std::string word : {"DEVICE", "DIR", NDJSON, "--resume", "Example"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
}

} // namespace
