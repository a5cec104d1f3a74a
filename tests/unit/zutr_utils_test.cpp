// Checksum, whole reads and writes, UUID text.

#include "bytes.h"
#include "common/zutr_utils.h"
#include "in_process.h"
#include "noise.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <unistd.h>

using namespace tier_test;

namespace {

TEST(Crc32, CheckValue) { EXPECT_EQ(zutr_crc32("123456789", 9), 0xCBF43926U); }

TEST(Crc32, EmptyRangeIsZero)
{
    EXPECT_EQ(zutr_crc32("", 0), 0U);
    EXPECT_EQ(zutr_crc32(nullptr, 0), 0U);
}

TEST(Crc32, EveryByteValue)
{
    for (int value = 0; value < 256; ++value) {
        const auto byte = static_cast<std::uint8_t>(value);
        EXPECT_EQ(zutr_crc32(&byte, 1), crc32({&byte, 1})) << value;
    }
}

TEST(Crc32, EveryLengthAndAlignment)
{
    const std::vector<std::uint8_t> bytes = noise(600);
    for (std::size_t start = 0; start < 9; ++start) {
        for (std::size_t length = 0; length <= 530; ++length) {
            const ConstByteSpan range(bytes.data() + start, length);
            ASSERT_EQ(zutr_crc32(range.data(), length), crc32(range)) << start << '+' << length;
        }
    }
}

TEST(Crc32, WholeBlocks)
{
    const std::vector<std::uint8_t> bytes = noise(MIB);
    const std::vector<std::uint8_t> zeros(BLOCK_SIZE);
    EXPECT_EQ(zutr_crc32(bytes.data(), bytes.size()), crc32(bytes));
    EXPECT_EQ(zutr_crc32(zeros.data(), zeros.size()), crc32(zeros));
}

// An image of 5 blocks of noise with an ordinary descriptor, so that any offset may be used.
class WholeAccess : public testing::Test {
protected:
    static constexpr std::size_t SIZE = 5 * BLOCK_SIZE;

    Device device{SIZE};
    const std::vector<std::uint8_t> content = noise(SIZE);
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(2 * SIZE, 0xEE);
    OpenDevice open{device, O_RDWR};

    void SetUp() override { device.write(0, content); }

    std::vector<std::uint8_t> slice(std::size_t offset, std::size_t length) const
    {
        const auto from = content.begin() + static_cast<std::ptrdiff_t>(offset);
        return {from, from + static_cast<std::ptrdiff_t>(length)};
    }
};

struct Range {
    std::int64_t offset;
    std::size_t length;
};

constexpr Range INSIDE[] = {{0, 1},     {0, 4096},     {4096, 8192}, {1, 4095},
                            {0, 20480}, {16384, 4096}, {20479, 1}};
constexpr Range OUTSIDE[] = {{20480, 1}, {20480, 4096},    {24576, 4096}, {16384, 8192},
                             {0, 20481}, {1LL << 40, 512}, {-4096, 4096}, {-1, 1}};

TEST_F(WholeAccess, ReadnGivesTheWholeRangeAndNoMore)
{
    for (const Range &range : INSIDE) {
        SCOPED_TRACE(text("%zu at %ld", range.length, range.offset));
        std::ranges::fill(buffer, std::uint8_t{0xEE});
        EXPECT_EQ(zutr_readn(open.fd(), buffer.data(), range.length, range.offset),
                  static_cast<ssize_t>(range.length));
        const auto end = buffer.begin() + static_cast<std::ptrdiff_t>(range.length);
        EXPECT_EQ(std::vector(buffer.begin(), end),
                  slice(static_cast<std::size_t>(range.offset), range.length));
        EXPECT_TRUE(std::all_of(end, buffer.end(), [](auto byte) { return byte == 0xEE; }));
    }
}

TEST_F(WholeAccess, ReadnBeyondTheEndFailsEvenWhenBytesWereRead)
{
    for (const Range &range : OUTSIDE)
        EXPECT_EQ(zutr_readn(open.fd(), buffer.data(), range.length, range.offset), -1)
            << text("%zu at %ld", range.length, range.offset);
}

TEST_F(WholeAccess, ReadnOfBadArgumentsIsMinusOne)
{
    EXPECT_EQ(zutr_readn(-1, buffer.data(), 1, 0), -1);
    EXPECT_EQ(zutr_readn(std::numeric_limits<std::int32_t>::min(), buffer.data(), 1, 0), -1);
    EXPECT_EQ(zutr_readn(open.fd(), nullptr, 1, 0), -1);
    EXPECT_EQ(zutr_readn(open.fd(), buffer.data(), 0, 0), -1);
}

TEST_F(WholeAccess, FailedCallsKeepTheirErrno)
{
    const OpenDevice read_only(device, O_RDONLY);
    const OpenDevice write_only(device, O_WRONLY);
    errno = 0;
    EXPECT_EQ(zutr_readn(write_only.fd(), buffer.data(), 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(zutr_writen(read_only.fd(), buffer.data(), 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(zutr_writen(open.fd(), buffer.data(), 1, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    errno = 0;
    EXPECT_EQ(zutr_readn(ends[0], buffer.data(), 1, 0), -1);
    EXPECT_EQ(errno, ESPIPE);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(device.bytes(), content);
}

TEST_F(WholeAccess, WritenChangesExactlyItsRange)
{
    std::vector<std::uint8_t> expected = content;
    for (const Range &range : INSIDE) {
        SCOPED_TRACE(text("%zu at %ld", range.length, range.offset));
        const std::vector<std::uint8_t> fresh = noise(range.length + 7);
        EXPECT_EQ(zutr_writen(open.fd(), fresh.data(), range.length, range.offset),
                  static_cast<ssize_t>(range.length));
        std::copy_n(fresh.begin(), range.length, expected.begin() + range.offset);
        EXPECT_EQ(device.bytes(), expected);
    }
}

TEST_F(WholeAccess, WritenOfBadArgumentsIsMinus22)
{
    EXPECT_EQ(zutr_writen(-1, buffer.data(), 1, 0), -22);
    EXPECT_EQ(zutr_writen(std::numeric_limits<std::int32_t>::min(), buffer.data(), 1, 0), -22);
    EXPECT_EQ(zutr_writen(open.fd(), nullptr, 1, 0), -22);
    EXPECT_EQ(zutr_writen(open.fd(), buffer.data(), 0, 0), -22);
    EXPECT_EQ(device.bytes(), content);
}

using Allocation = std::unique_ptr<void, decltype(&std::free)>;

TEST_F(WholeAccess, ReadnExGivesAnAlignedBufferOfItsOwn)
{
    for (const Range &range : INSIDE) {
        SCOPED_TRACE(text("%zu at %ld", range.length, range.offset));
        void *fresh = nullptr;
        EXPECT_EQ(zutr_readn_ex(open.fd(), &fresh, range.length, range.offset),
                  static_cast<ssize_t>(range.length));
        const Allocation owner(fresh, &std::free);
        ASSERT_NE(fresh, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(fresh) % 4096, 0U);
        const auto *bytes = static_cast<const std::uint8_t *>(fresh);
        EXPECT_EQ(std::vector(bytes, bytes + range.length),
                  slice(static_cast<std::size_t>(range.offset), range.length));
    }
}

TEST_F(WholeAccess, ReadnExOfAFailedReadLeavesNull)
{
    for (const Range &range : OUTSIDE) {
        void *fresh = buffer.data();
        EXPECT_EQ(zutr_readn_ex(open.fd(), &fresh, range.length, range.offset), -1);
        EXPECT_EQ(fresh, nullptr) << text("%zu at %ld", range.length, range.offset);
    }
}

TEST_F(WholeAccess, ReadnExOfBadArgumentsIsMinus22AndLeavesTheBufferAlone)
{
    void *const before = buffer.data();
    void *fresh = before;
    EXPECT_EQ(zutr_readn_ex(-1, &fresh, 4096, 0), -22);
    EXPECT_EQ(zutr_readn_ex(open.fd(), &fresh, 0, 0), -22);
    EXPECT_EQ(zutr_readn_ex(open.fd(), nullptr, 4096, 0), -22);
    EXPECT_EQ(fresh, before);
}

TEST(Advance, WrapsWhereTheSumLeaves64Bits)
{
    constexpr auto MAX = std::numeric_limits<std::int64_t>::max();
    constexpr auto MIN = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(zutr_advance(4096, 8192), 12288);
    EXPECT_EQ(zutr_advance(4096, -8192), -4096);
    EXPECT_EQ(zutr_advance(MAX, 1), MIN);
    EXPECT_EQ(zutr_advance(MIN, -1), MAX);
}

TEST(UuidText, LowerCaseGroups)
{
    const Uuid uuid{0x00, 0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD,
                    0xEF, 0xFF, 0x10, 0x0F, 0xA0, 0x0B, 0xC0, 0xDE};
    EXPECT_STREQ(zutr_uuid_utoa(uuid.data()), "00012345-6789-abcd-efff-100fa00bc0de");
    EXPECT_STREQ(zutr_uuid_utoa(Uuid{}.data()), "00000000-0000-0000-0000-000000000000");
    for (int number = 0; number < 256; ++number) {
        const Uuid numbered = numbered_uuid(static_cast<std::uint8_t>(number));
        EXPECT_EQ(zutr_uuid_utoa(numbered.data()), uuid_text(numbered));
    }
}

TEST(UuidText, EveryCallOverwritesTheSameBuffer)
{
    const Uuid later = numbered_uuid(2);
    const char *first = zutr_uuid_utoa(numbered_uuid(1).data());
    const char *second = zutr_uuid_utoa(later.data());
    EXPECT_EQ(first, second);
    EXPECT_EQ(first, uuid_text(later));
}

} // namespace
