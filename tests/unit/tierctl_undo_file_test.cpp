// The file that leads back from an apply: what is read is what was written, or nothing.

#include "device.h"
#include "zu_tierctl/plan/undo_file.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>

using namespace tier_test;

namespace {

using tierctl::Change;
using tierctl::UndoFile;

constexpr std::size_t HEAD = 64;
constexpr std::size_t CHANGE = 64 + 2 * BLOCK_SIZE;
const std::string PLAN = "{\"plan\":1}\n{\"table\":\"inode\"}\n";

class UndoFiles : public testing::Test {
protected:
    UndoFiles()
    {
        undo.size = 1U << 30;
        undo.plan.add(PLAN);
        random_block().get(undo.super_block.data());
        for (std::uint64_t no = 0; no < 3; ++no) {
            Change change{"a name of 16 cha",
                          no << 40,
                          static_cast<std::int64_t>(no * BLOCK_SIZE),
                          no == 1,
                          {},
                          {}};
            change.after = random_block();
            if (!change.unreadable)
                change.before = random_block();
            undo.changes.push_back(change);
        }
        write(path, undo, {PLAN.substr(0, 5), PLAN.substr(5)});
        written = read_file(path);
    }

    static void write(const std::string &to, const UndoFile &undo_file,
                      const std::vector<std::string> &pieces)
    {
        tierctl::NewUndoFile file(to);
        for (const std::string &piece : pieces)
            file.add_plan(piece);
        file.finish(undo_file);
    }

    tierctl::KeptBlock random_block()
    {
        tierctl::Block block;
        for (std::uint8_t &byte : block)
            byte = static_cast<std::uint8_t>(random());
        return tierctl::KeptBlock(block.data());
    }

    // What is said of the file, without its path.
    std::string complaint_of(const std::string &content) const
    {
        const std::string bad = directory.write("bad", content);
        try {
            tierctl::read_undo_file(bad);
            return "it was read";
        } catch (const std::runtime_error &error) {
            const std::string said = error.what();
            EXPECT_TRUE(said.starts_with(bad + " is ")) << said;
            return said.substr(bad.size() + 1);
        }
    }

    std::mt19937 random{16};
    const TempDir directory;
    const std::string path = directory.path("undo");
    UndoFile undo;
    std::string written;
};

TEST_F(UndoFiles, AreReadAsTheyWereWritten)
{
    ASSERT_EQ(written.size(), HEAD + BLOCK_SIZE + PLAN.size() + 3 * CHANGE);
    const UndoFile read = tierctl::read_undo_file(path);
    EXPECT_EQ(read.size, undo.size);
    EXPECT_TRUE(read.super_block == undo.super_block);
    EXPECT_EQ(read.plan, undo.plan);
    ASSERT_EQ(read.changes.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i) {
        const Change &change = read.changes[i];
        EXPECT_EQ(change.name(), undo.changes[i].name());
        EXPECT_EQ(change.offset, undo.changes[i].offset);
        EXPECT_EQ(change.unreadable, i == 1);
        EXPECT_TRUE(change.before == undo.changes[i].before);
        EXPECT_TRUE(change.after == undo.changes[i].after);
    }
}

TEST_F(UndoFiles, OfNothing)
{
    const std::string empty = directory.path("empty");
    write(empty, {}, {});
    EXPECT_EQ(std::filesystem::file_size(empty), HEAD + BLOCK_SIZE);
    EXPECT_TRUE(tierctl::read_undo_file(empty).changes.empty());
}

TEST_F(UndoFiles, ReplaceNothing)
{
    EXPECT_THROW(write(path, undo, {}), std::runtime_error);
    undo.changes.back().table = "a name of 17 char";
    EXPECT_THROW(write(directory.path("other"), undo, {}), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(directory.path("other")));
    EXPECT_TRUE(read_file(path) == written);
}

// Every length from nothing to one byte too many that ends in or beside a part.
TEST_F(UndoFiles, CutShort)
{
    std::vector<std::size_t> ends{0, 8, HEAD, HEAD + BLOCK_SIZE, HEAD + BLOCK_SIZE + PLAN.size()};
    for (std::size_t i = 0; i < 3; ++i)
        for (const std::size_t part : {std::size_t{64}, BLOCK_SIZE, BLOCK_SIZE})
            ends.push_back(ends.back() + part);
    ASSERT_EQ(ends.back(), written.size());
    for (const std::size_t end : ends) {
        for (const std::size_t length : {end - std::min<std::size_t>(end, 1), end, end + 1}) {
            if (length == written.size())
                continue;
            std::string cut = written;
            cut.resize(length, '\0');
            const std::string complaint = complaint_of(cut);
            EXPECT_EQ(complaint, length < HEAD ? "is no undo file"
                                               : "is damaged: it has another size than its head "
                                                 "says")
                << length;
        }
    }
}

// Each bit of the head, of a change's head and of the plan, and some of each block.
TEST_F(UndoFiles, FlippedBits)
{
    const std::size_t changes = HEAD + BLOCK_SIZE + PLAN.size();
    std::vector<std::size_t> bits;
    for (const auto &[first, length] : std::vector<std::pair<std::size_t, std::size_t>>{
             {0, HEAD}, {HEAD + BLOCK_SIZE, PLAN.size()}, {changes, 64}, {changes + CHANGE, 64}})
        for (std::size_t bit = first * 8; bit < (first + length) * 8; ++bit)
            bits.push_back(bit);
    for (std::size_t turn = 0; turn < 200; ++turn)
        bits.push_back(random() % (written.size() * 8));
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    const auto put = [&file](std::size_t at, int byte) {
        file.seekp(static_cast<std::streamoff>(at)).put(static_cast<char>(byte)).flush();
    };
    for (const std::size_t bit : bits) {
        put(bit / 8, written[bit / 8] ^ 1 << bit % 8);
        EXPECT_THROW(tierctl::read_undo_file(path), std::runtime_error) << bit;
        put(bit / 8, written[bit / 8]);
    }
    EXPECT_NO_THROW(tierctl::read_undo_file(path));
}

// Numbers that no file of this size could have: no memory is taken for them.
TEST_F(UndoFiles, HugeNumbers)
{
    for (const std::size_t at : {24, 32}) {
        for (const std::uint64_t number :
             {~std::uint64_t{0}, std::uint64_t{1} << 51, (~std::uint64_t{0} / CHANGE) + 4}) {
            std::string huge = written;
            put_u64({reinterpret_cast<std::uint8_t *>(huge.data()), HEAD}, at, number);
            EXPECT_EQ(complaint_of(huge), "is damaged: it has another size than its head says");
        }
    }
}

// Holes take no room: what a head promises may be larger than any memory.
TEST_F(UndoFiles, HugeHoles)
{
    const std::string huge = directory.write("bad", written.substr(0, HEAD));
    std::string head = written.substr(0, HEAD);
    const std::uint64_t changes = std::uint64_t{1} << 30;
    put_u64({reinterpret_cast<std::uint8_t *>(head.data()), HEAD}, 24, 0);
    put_u64({reinterpret_cast<std::uint8_t *>(head.data()), HEAD}, 32, changes);
    directory.write("bad", head);
    std::filesystem::resize_file(huge, HEAD + BLOCK_SIZE + changes * CHANGE);
    try {
        tierctl::read_undo_file(huge);
        ADD_FAILURE() << "it was read";
    } catch (const std::runtime_error &error) {
        EXPECT_EQ(error.what(),
                  huge + " is damaged: the checksum of a block does not match its content");
    }
}

// More than is read at a time.
TEST_F(UndoFiles, LongPlans)
{
    const std::string piece(300'000, 'p');
    const std::string file = directory.path("long");
    write(file, undo, std::vector<std::string>(10, piece));
    const UndoFile read = tierctl::read_undo_file(file);
    EXPECT_EQ(read.plan.length, 10 * piece.size());
    tierctl::TextSum sum;
    for (int i = 0; i < 10; ++i)
        sum.add(piece);
    EXPECT_EQ(read.plan, sum);
    EXPECT_EQ(read.changes.size(), 3U);
}

TEST_F(UndoFiles, OfAnotherVersionOrKind)
{
    std::string other = written;
    other[8] = 2;
    EXPECT_EQ(complaint_of(other),
              "is an undo file of version 2, which this program does not know");
    EXPECT_EQ(complaint_of(std::string(100000, '\0')), "is no undo file");
}

} // namespace
