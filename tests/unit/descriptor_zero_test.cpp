// A device with descriptor 0, which is as good as any other.

#include "common/zutr_utils.h"
#include "in_process.h"
#include "zu_tier/driver/repair.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

using namespace tier_test;

namespace {

std::int64_t parse_to_the_second_block(zutr_params_t *, const cJSON *, void *m)
{
    *static_cast<std::uint8_t *>(m) = 0x5A;
    return BLOCK_SIZE;
}

class DescriptorZero : public testing::Test {
protected:
    Device device{2 * BLOCK_SIZE};
    zutr_buffer block;

    void SetUp() override
    {
        ASSERT_GE(saved_, 0);
        const OpenDevice open(device);
        ASSERT_EQ(dup2(open.fd(), STDIN_FILENO), STDIN_FILENO);
        ASSERT_EQ(zutr_alloc_aligned(BLOCK_SIZE, &block), 0);
        std::fill_n(block.get(), BLOCK_SIZE, std::uint8_t{0xC3});
    }

    void TearDown() override
    {
        dup2(saved_, STDIN_FILENO);
        close(saved_);
    }

    Block written() const
    {
        Block result;
        std::copy_n(block.get(), BLOCK_SIZE, result.begin());
        return result;
    }

private:
    const int saved_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
};

TEST_F(DescriptorZero, IsReadAndWritten)
{
    EXPECT_EQ(zutr_writen(0, block.get(), BLOCK_SIZE, BLOCK_SIZE), 4096);
    EXPECT_EQ(device.block(BLOCK_SIZE), written());
    EXPECT_EQ(zutr_readn(0, block.get(), BLOCK_SIZE, 0), 4096);
    EXPECT_EQ(written(), Block{});
    EXPECT_EQ(zutr_repair_readn(0, block.get(), BLOCK_SIZE, BLOCK_SIZE), 4096);
    EXPECT_EQ(written(), device.block(BLOCK_SIZE));
}

TEST_F(DescriptorZero, IsReadIntoAFreshBuffer)
{
    void *fresh = nullptr;
    EXPECT_EQ(zutr_readn_ex(0, &fresh, BLOCK_SIZE, 0), 4096);
    const zutr_buffer owner(static_cast<std::uint8_t *>(fresh));
    EXPECT_NE(owner, nullptr);
}

TEST_F(DescriptorZero, IsRepaired)
{
    const std::string conf = device.directory().write("conf", "{}");
    zutr_params_t params;
    zutr_params_init(&params);
    params.fd = 0;
    params.repair_conf = conf.c_str();
    params.commit = 1;
    EXPECT_EQ(zutr_repair_common(&params, {parse_to_the_second_block, nullptr}), 0);
    EXPECT_EQ(device.block(BLOCK_SIZE)[0], 0x5A);
}

TEST_F(DescriptorZero, IsClosedAtTheEnd)
{
    zutr_params_t params;
    zutr_params_init(&params);
    params.fd = 0;
    zutr_params_fini(&params);
    EXPECT_EQ(params.fd, -1);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
