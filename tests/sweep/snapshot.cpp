#include "snapshot.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace tier_test {

namespace {

bool is_zero(const Block &block)
{
    static constexpr Block ZERO{};
    return block == ZERO;
}

} // namespace

Snapshot take_snapshot(const std::string &device)
{
    const int fd = open(device.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), device);
    Snapshot snapshot;
    std::vector<std::uint8_t> bytes(16 * BLOCK_SIZE);
    off_t at = 0;
    while ((at = lseek(fd, at, SEEK_DATA)) >= 0) {
        const off_t end = lseek(fd, at, SEEK_HOLE);
        at -= at % static_cast<off_t>(BLOCK_SIZE);
        while (at < end) {
            const ssize_t got = pread(fd, bytes.data(), bytes.size(), at);
            if (got <= 0)
                throw std::system_error(EIO, std::generic_category(), device);
            std::fill(bytes.begin() + got, bytes.end(), std::uint8_t{0});
            for (ssize_t i = 0; i < got; i += BLOCK_SIZE, at += BLOCK_SIZE) {
                Block block;
                std::copy_n(bytes.begin() + i, BLOCK_SIZE, block.begin());
                if (!is_zero(block))
                    snapshot.emplace(at, block);
            }
        }
    }
    close(fd);
    return snapshot;
}

Block block_at(const Snapshot &snapshot, std::uint64_t offset)
{
    const std::uint64_t within = offset % BLOCK_SIZE;
    Block result{};
    for (const std::uint64_t start : {offset - within, offset - within + BLOCK_SIZE}) {
        const auto found = snapshot.find(start);
        if (found == snapshot.end() || start >= offset + BLOCK_SIZE)
            continue;
        if (start <= offset)
            std::copy(found->second.begin() + static_cast<std::ptrdiff_t>(within),
                      found->second.end(), result.begin());
        else
            std::copy_n(found->second.begin(), within,
                        result.end() - static_cast<std::ptrdiff_t>(within));
    }
    return result;
}

Snapshot with_block(Snapshot snapshot, std::uint64_t offset, const Block &block)
{
    const std::uint64_t within = offset % BLOCK_SIZE;
    for (std::size_t i = 0; i < BLOCK_SIZE; ++i) {
        const std::uint64_t at = within + i;
        snapshot[offset - within + at / BLOCK_SIZE * BLOCK_SIZE][at % BLOCK_SIZE] = block[i];
    }
    std::erase_if(snapshot, [](const auto &entry) { return is_zero(entry.second); });
    return snapshot;
}

std::string differences(const Snapshot &before, const Snapshot &after)
{
    std::string result;
    Snapshot all = before;
    all.insert(after.begin(), after.end());
    for (const auto &[offset, block] : all)
        if (block_at(before, offset) != block_at(after, offset))
            result += text(" %lu", offset);
    return result;
}

} // namespace tier_test
