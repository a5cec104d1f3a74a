#include "device.h"

#include "common/zutr_utils.h"
#include "contract.h"

#include <algorithm>
#include <cerrno>

namespace tier_fuzz {

namespace {

// Reads, and blocks read.
constexpr std::uint64_t MOST_EFFORT = 700;

constexpr auto BLOCK_SIZE = static_cast<std::int64_t>(BLOCK);

bool aligned(const void *memory, std::size_t size, std::int64_t offset)
{
    require(reinterpret_cast<std::uintptr_t>(memory) % BLOCK == 0, "memory for direct access");
    return offset >= 0 && offset % BLOCK_SIZE == 0 && size % BLOCK == 0;
}

ssize_t failure(int error)
{
    errno = error;
    return -1;
}

} // namespace

void Device::reset()
{
    regions_.clear();
    writes_.clear();
    holes_readable_ = false;
    fault_ = Fault::none;
    effort_ = 0;
}

void Device::put(std::int64_t offset, View block, std::uint32_t times)
{
    if (offset >= 0 && offset % BLOCK_SIZE == 0) {
        const std::int64_t end = zutr_advance(offset, std::int64_t{times} * BLOCK_SIZE);
        regions_.push_back({offset, end, as_block(block)});
    }
}

void Device::fail(Fault fault, std::uint32_t turn)
{
    fault_ = fault;
    turn_ = turn;
}

bool Device::strikes(Fault fault) { return fault_ == fault && turn_-- == 0; }

const std::uint8_t *Device::find(std::int64_t offset) const
{
    const auto covers = [offset](const Region &region) {
        return offset >= region.offset && offset < region.end;
    };
    const auto found = std::find_if(regions_.rbegin(), regions_.rend(), covers);
    return found != regions_.rend() ? found->block.data() : nullptr;
}

ssize_t Device::read(void *to, std::size_t size, std::int64_t offset)
{
    effort_++;
    if (effort_ > MOST_EFFORT) {
        throw CutShort{};
    }
    if (strikes(Fault::read_again)) {
        return failure(EINTR);
    }
    if (strikes(Fault::read_error)) {
        return failure(EIO);
    }
    if (!aligned(to, size, offset)) {
        return failure(EINVAL);
    }
    if (strikes(Fault::read_short)) {
        size = BLOCK;
    }
    for (std::size_t done = 0; done < size; done += BLOCK) {
        const std::uint8_t *block = find(offset + static_cast<std::int64_t>(done));
        if (block == nullptr && !holes_readable_) {
            return failure(EIO);
        }
        auto *part = static_cast<std::uint8_t *>(to) + done;
        block != nullptr ? std::memcpy(part, block, BLOCK) : std::memset(part, 0, BLOCK);
    }
    effort_ += size / BLOCK;
    return static_cast<ssize_t>(size);
}

ssize_t Device::write(const void *from, std::size_t size, std::int64_t offset)
{
    if (strikes(Fault::write_error)) {
        return failure(EIO);
    }
    if (!aligned(from, size, offset)) {
        return failure(EINVAL);
    }
    writes_.push_back({offset, size});
    const View blocks(static_cast<const std::uint8_t *>(from), size);
    for (std::size_t done = 0; done < size; done += BLOCK) {
        put(offset + static_cast<std::int64_t>(done), blocks.subspan(done, BLOCK));
    }
    return static_cast<ssize_t>(size);
}

} // namespace tier_fuzz
