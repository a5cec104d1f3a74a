// The bulk read that never fails on bad blocks, over images that end too early.

#include "in_process.h"
#include "zu_tier/driver/repair.h"

#include <algorithm>
#include <cstring>

using namespace tier_test;

namespace {

constexpr std::uint8_t OLD = 0xEE; // what the buffer held before
constexpr std::int64_t RANGE_START = 2 * BLOCK_SIZE;

class RepairReadn : public testing::Test {
protected:
    struct Free {
        void operator()(std::uint8_t *memory) const { std::free(memory); }
    };

    Device device{0};
    std::unique_ptr<std::uint8_t, Free> memory; // the buffer, with a MiB before and after it
    std::size_t size = 0;

    // An image with `readable` blocks of content from RANGE_START, each filled with its own value,
    // and a buffer for `blocks` blocks.
    void prepare(std::size_t readable, std::size_t blocks)
    {
        device.truncate(RANGE_START + readable * BLOCK_SIZE);
        for (std::size_t i = 0; i < readable; ++i) {
            Block block;
            block.fill(value(i));
            device.write(RANGE_START + i * BLOCK_SIZE, block);
        }
        size = blocks * BLOCK_SIZE;
        const std::size_t all = MIB + size + MIB;
        memory.reset(static_cast<std::uint8_t *>(std::aligned_alloc(BLOCK_SIZE, all)));
        std::memset(memory.get(), OLD, all);
    }
    std::uint8_t *buffer() const { return memory.get() + MIB; }

    static std::uint8_t value(std::size_t block)
    {
        return static_cast<std::uint8_t>(1 + block % 200);
    }

    Call read() const
    {
        // Not direct: a direct read may clear the buffer past the end of the image.
        const OpenDevice open(device, O_RDONLY);
        const Call call =
            captured([&] { return zutr_repair_readn(open.fd(), buffer(), size, RANGE_START); });
        const auto is_old = [](std::uint8_t byte) { return byte == OLD; };
        EXPECT_TRUE(std::all_of(memory.get(), buffer(), is_old));
        EXPECT_TRUE(std::all_of(buffer() + size, buffer() + size + MIB, is_old));
        return call;
    }

    // The value that fills block i of the buffer, or -1 when its bytes differ.
    int filling(std::size_t i) const
    {
        const std::uint8_t *block = buffer() + i * BLOCK_SIZE;
        const bool even = std::all_of(block, block + BLOCK_SIZE,
                                      [&](std::uint8_t byte) { return byte == block[0]; });
        return even ? block[0] : -1;
    }

    static Log failures(std::uint64_t offset, std::size_t times)
    {
        return Log(times, error_line("zutr_repair_readn",
                                     text("read failed. offset:%lu ret: -1", offset)));
    }
};

TEST_F(RepairReadn, ReadsEveryUnit)
{
    for (const std::size_t blocks : {1U, 255U, 256U, 257U, 600U}) {
        SCOPED_TRACE(blocks);
        prepare(blocks, blocks);
        EXPECT_EQ(read(), (Call{.result = static_cast<std::int64_t>(blocks * BLOCK_SIZE)}));
        for (std::size_t i = 0; i < blocks; ++i)
            ASSERT_EQ(filling(i), value(i)) << i;
    }
}

TEST_F(RepairReadn, BadArgumentsAreMinusOne)
{
    prepare(1, 1);
    const OpenDevice open(device, O_RDONLY | O_DIRECT);
    EXPECT_EQ(zutr_repair_readn(-1, buffer(), 4096, RANGE_START), -1);
    EXPECT_EQ(zutr_repair_readn(open.fd(), nullptr, 4096, RANGE_START), -1);
    for (const std::size_t bytes : {0U, 1U, 4095U, 4097U, 6000U})
        EXPECT_EQ(zutr_repair_readn(open.fd(), buffer(), bytes, RANGE_START), -1) << bytes;
    EXPECT_EQ(filling(0), OLD);
}

// The first block of a failed unit is readable: no message, and the rest of the unit is what the
// failed read left, its own bytes up to the place where it failed.
TEST_F(RepairReadn, UnitWithAReadableFirstBlockIsSilent)
{
    prepare(256 + 3, 300);
    EXPECT_EQ(read(), (Call{.result = 300 * 4096}));
    for (std::size_t i = 0; i < 300; ++i)
        ASSERT_EQ(filling(i), i < 259 ? value(i) : OLD) << i;
}

// The first block of a failed unit cannot be read: it is tried as often as the unit has blocks, and
// only it is zeroed.
TEST_F(RepairReadn, UnreadableFirstBlockIsZeroedAndLoggedForEachBlockOfTheUnit)
{
    prepare(256, 256 + 44);
    EXPECT_EQ(read(), (Call{.result = 300 * 4096, .log = failures(RANGE_START + MIB, 44)}));
    for (std::size_t i = 0; i < 300; ++i)
        ASSERT_EQ(filling(i), i < 256 ? value(i) : i == 256 ? 0 : OLD) << i;
}

TEST_F(RepairReadn, WholeUnitIsTried256Times)
{
    prepare(0, 256 + 2);
    Log log = failures(RANGE_START, 256);
    const Log second = failures(RANGE_START + MIB, 2);
    log.insert(log.end(), second.begin(), second.end());
    EXPECT_EQ(read(), (Call{.result = 258 * 4096, .log = log}));
    for (std::size_t i = 0; i < 258; ++i)
        ASSERT_EQ(filling(i), i == 0 || i == 256 ? 0 : OLD) << i;
}

} // namespace
