// Tables read chunk by chunk, and with several chunks in flight.

#include "device.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/device/error.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using namespace tier_test;
using tierctl::TableReader;

namespace {

// A run with a copy of its data.
struct ReadRun {
    std::uint64_t first_no;
    std::uint64_t count;
    std::int64_t offset;
    int error;
    std::string data;

    bool operator==(const ReadRun &) const = default;
};

// Calls a function in a thread of its own, where reads are queued or not.
void in_thread(bool queued, const std::function<void()> &call)
{
    std::thread([&] {
        if (queued)
            tierctl::ReadQueue::of_this_thread().add_plain_read(std::chrono::seconds(1));
        call();
    }).join();
}

// The next run of a reader.
bool add_next(TableReader &reader, std::vector<ReadRun> &runs)
{
    tierctl::Slots slots{};
    if (!reader.next(&slots))
        return false;
    const auto *data = reinterpret_cast<const char *>(slots.data);
    runs.push_back({slots.first_no, slots.count, slots.offset, slots.error,
                    data == nullptr ? "" : std::string(data, slots.count * BLOCK_SIZE)});
    return true;
}

class Reader : public testing::Test {
protected:
    static constexpr std::uint64_t MIBS = 24;

    // 24 MiB, each block with its number, and some holes.
    Reader()
    {
        for (std::uint64_t no = 0; no < MIBS * 256; ++no) {
            Block block{};
            block.fill(static_cast<std::uint8_t>(1 + no % 251));
            if (!is_hole(no))
                image.write(no * BLOCK_SIZE, block);
        }
    }

    // Single blocks, more than a MiB, and the end.
    static bool is_hole(std::uint64_t no)
    {
        return no % 300 == 7 || (no >= 5 * 256 && no < 7 * 256 + 30) || no >= 23 * 256 - 1;
    }

    std::vector<ReadRun> walk(const tierctl::Device &device,
                              const std::vector<tier_region> &regions, bool queued,
                              std::size_t buffers = tierctl::READ_BUFFERS) const
    {
        std::vector<ReadRun> runs;
        in_thread(queued, [&] {
            TableReader reader(device, regions, buffers);
            while (add_next(reader, runs)) {
            }
        });
        return runs;
    }

    // Both ways give these slots, and the same runs.
    std::vector<ReadRun> walk_both(const tierctl::Device &device,
                                   const std::vector<tier_region> &regions) const
    {
        const std::vector<ReadRun> plain = walk(device, regions, false);
        for (const std::size_t buffers : {1, 2, 4, 8})
            EXPECT_TRUE(walk(device, regions, true, buffers) == plain) << buffers;
        return plain;
    }

    std::string bytes(std::int64_t offset, std::uint64_t count) const
    {
        return whole.substr(static_cast<std::size_t>(offset), count * BLOCK_SIZE);
    }

    void put_list(const std::string &runs) const
    {
        image.directory().write(
            std::filesystem::path(image.path()).filename().string() + ".unreadable.json", runs);
    }

    Device image{MIBS * MIB};
    const std::string whole = [this] {
        std::string text(MIBS * MIB, '\0');
        for (std::uint64_t no = 0; no < MIBS * 256; ++no)
            if (!is_hole(no))
                std::fill_n(text.begin() + static_cast<std::ptrdiff_t>(no * BLOCK_SIZE), BLOCK_SIZE,
                            static_cast<char>(1 + no % 251));
        return text;
    }();
};

TEST_F(Reader, GivesRunsOfAMebibyteInTheirOrder)
{
    const tierctl::Device device(image.path(), tierctl::Access::read_only);
    const std::int64_t start = 3 * 4096;
    const std::uint64_t count = 20 * 256 + 17;
    std::vector<ReadRun> expected;
    for (std::uint64_t no = 0; no < count; no += 256) {
        const std::int64_t offset = start + static_cast<std::int64_t>(no) * 4096;
        const std::uint64_t slots = std::min<std::uint64_t>(256, count - no);
        expected.push_back({no, slots, offset, 0, bytes(offset, slots)});
    }
    EXPECT_TRUE(walk_both(device, {{start, count}}) == expected);
    EXPECT_TRUE(image.bytes() == std::vector<std::uint8_t>(whole.begin(), whole.end()));
}

TEST_F(Reader, AreasInAnyOrderAndOutsideTheDevice)
{
    const tierctl::Device device(image.path(), tierctl::Access::read_only);
    const std::int64_t last = 22 * std::int64_t{MIB};
    const auto runs = walk_both(device, {{last, 1000}, // half of them outside
                                         {0, 0},       // none
                                         {4097, 300},  // unaligned
                                         {-4096, 300}, // before the device
                                         {8192, 1},
                                         {8192, 600}, // over the one before
                                         {INT64_MAX - 4095, UINT64_MAX / 2}});
    const std::vector<ReadRun> expected{{0, 256, last, 0, bytes(last, 256)},
                                        {256, 256, last + 1048576, 0, bytes(last + 1048576, 256)},
                                        {512, 488, last + 2097152, ENXIO, ""},
                                        {1000, 300, 4097, ENXIO, ""},
                                        {1300, 300, -4096, ENXIO, ""},
                                        {1600, 1, 8192, 0, bytes(8192, 1)},
                                        {1601, 256, 8192, 0, bytes(8192, 256)},
                                        {1857, 256, 8192 + 1048576, 0, bytes(8192 + 1048576, 256)},
                                        {2113, 88, 8192 + 2097152, 0, bytes(8192 + 2097152, 88)},
                                        {2201, UINT64_MAX / 2, INT64_MAX - 4095, ENXIO, ""}};
    EXPECT_TRUE(runs == expected);
}

// The file has lost its end since it was opened, in the middle of a chunk and of a hole.
TEST_F(Reader, AFileThatIsCutShortMeanwhile)
{
    for (const std::uint64_t end : {20 * 256 + 100, 6 * 256 + 50}) {
        const tierctl::Device device(image.path(), tierctl::Access::read_only);
        std::filesystem::resize_file(image.path(), end * BLOCK_SIZE);
        const auto runs = walk_both(device, {{0, MIBS * 256}});
        std::uint64_t next = 0;
        for (const ReadRun &run : runs) {
            EXPECT_EQ(run.first_no, next);
            next += run.count;
            EXPECT_EQ(run.error, run.first_no < end ? 0 : EIO);
            EXPECT_TRUE(run.error != 0 || run.data == bytes(run.offset, run.count));
        }
        EXPECT_EQ(next, MIBS * 256);
        EXPECT_EQ(runs.size(), end / 256 + MIBS * 256 - end / 256 * 256);
        std::filesystem::resize_file(image.path(), MIBS * MIB);
    }
}

// They count in holes and elsewhere.
TEST_F(Reader, BlocksThatASavedFileLacksAndBlocksThatLieOver)
{
    put_list(R"([{"table":"a","no":0,"count":3,"offset":4096,"error":"e"},
                 {"table":"a","no":9,"count":1,"offset":6291456,"error":"e"},
                 {"table":"a","no":20,"count":1,"offset":23068672,"error":"e"}])");
    tierctl::Device device(image.path(), tierctl::Access::read_only);
    alignas(4096) Block block{};
    block.fill(255);
    const tierctl::KeptBlock over(block.data());
    device.lay_over(6 * std::int64_t{MIB} + 4096, over);
    device.lay_over(10 * std::int64_t{MIB}, over);
    const auto runs = walk_both(device, {{0, MIBS * 256}});
    std::string expected = whole;
    for (const std::size_t at : {6 * MIB + 4096, 10 * MIB})
        std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(at), BLOCK_SIZE, '\xff');
    std::vector<std::int64_t> lost;
    for (const ReadRun &run : runs) {
        if (run.error != 0) {
            EXPECT_EQ(run.error, tierctl::NOT_SAVED);
            lost.push_back(run.offset);
        } else {
            EXPECT_TRUE(run.data == expected.substr(static_cast<std::size_t>(run.offset),
                                                    run.count * BLOCK_SIZE))
                << run.offset;
        }
    }
    // Blocks that hold something have been written since.
    EXPECT_EQ(lost, (std::vector<std::int64_t>{6 * MIB}));
}

TEST_F(Reader, SeveralAtATimeThatStopAnywhere)
{
    const tierctl::Device device(image.path(), tierctl::Access::read_only);
    const std::vector<tier_region> regions{{0, MIBS * 256}};
    const std::vector<ReadRun> expected = walk(device, regions, false);
    in_thread(true, [&] {
        for (std::size_t stop = 0; stop < expected.size(); stop += 5) {
            std::vector<ReadRun> a;
            std::vector<ReadRun> b;
            TableReader whole_walk(device, regions, 4);
            {
                TableReader part(device, regions, 4);
                while (a.size() < stop && add_next(part, a) && add_next(whole_walk, b)) {
                }
            }
            while (add_next(whole_walk, b)) {
            }
            EXPECT_TRUE(b == expected) << stop;
            EXPECT_TRUE(std::equal(a.begin(), a.end(), expected.begin())) << stop;
        }
    });
}

// Queued reads would be done one after the other.
TEST_F(Reader, AFileThatIsReadThroughTheCache)
{
    const tierctl::Device device(image.path(), tierctl::Access::read_only);
    const auto expected = walk(device, {{0, MIBS * 256}}, true);
    ASSERT_EQ(fcntl(device.fd(), F_SETFL, fcntl(device.fd(), F_GETFL) & ~O_DIRECT), 0);
    EXPECT_FALSE(device.is_direct());
    EXPECT_TRUE(walk(device, {{0, MIBS * 256}}, true) == expected);
}

// The queue opens when reading takes its time, and then stays open.
TEST(ReadQueue, OpensWhenItIsWorthIt)
{
    using std::chrono::milliseconds;
    const auto new_queue = [](std::function<void(tierctl::ReadQueue &)> use) {
        tierctl::ReadQueue queue;
        use(queue);
    };
    new_queue([](auto &queue) { EXPECT_FALSE(queue.is_open(UINT64_MAX)); });
    new_queue([](auto &queue) {
        queue.add_plain_read(milliseconds(2));
        EXPECT_FALSE(queue.is_open(40));
        tierctl::QueuedRead read;
        EXPECT_FALSE(queue.start(read, 0, nullptr, 4096, 0));
        EXPECT_FALSE(queue.wait(read));
        for (int i = 0; i < 200; ++i)
            queue.add_plain_read(milliseconds(1));
        const bool is_open = queue.is_open(0); // the kernel may refuse it
        EXPECT_EQ(queue.is_open(0), is_open);
    });
}

} // namespace
