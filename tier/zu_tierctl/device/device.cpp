#include "zu_tierctl/device/device.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace tierctl {

namespace {

constexpr uint64_t SLOTS_A_READ = SIZE_1M / SIZE_4K;

/* Not every file system offers direct access. */
int open_direct(const std::string &path, int flags)
{
    const int fd = open(path.c_str(), flags | O_DIRECT);
    return fd < 0 && errno == EINVAL ? open(path.c_str(), flags) : fd;
}

void refuse_other_kinds(const std::string &path, mode_t mode)
{
    if (!S_ISREG(mode) && !S_ISBLK(mode)) {
        throw std::runtime_error(path + " is neither a regular file nor a block device");
    }
}

/* A block device that is read-only may be opened for writing all the same. */
void refuse_read_only(const std::string &path, int fd)
{
    int is_read_only = 0;
    if (ioctl(fd, BLKROGET, &is_read_only) == 0 && is_read_only != 0) {
        throw std::runtime_error("nothing was written: " + path + " is read-only");
    }
}

} // namespace

void refuse_same(const std::vector<std::string> &paths)
{
    std::map<std::tuple<bool, dev_t, ino_t>, const std::string *> seen;
    for (const std::string &path : paths) {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) {
            continue; /* nor can it be opened */
        }
        const bool is_block = S_ISBLK(status.st_mode);
        const auto [first, is_new] =
            seen.try_emplace(is_block ? std::tuple{true, status.st_rdev, ino_t{0}}
                                      : std::tuple{false, status.st_dev, status.st_ino},
                             &path);
        if (!is_new) {
            throw UsageError(fmt::format("{} and {} are the same device", *first->second, path));
        }
    }
}

/* Whatever else there is, a FIFO or a terminal, is not even opened: that may wait, or have effects.
 * What the name has come to mean since then is refused as well. */
Device::Device(const std::string &path, Access access, const std::string &mapfile) : path_(path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        throw_errno("cannot open " + path);
    }
    refuse_other_kinds(path, status.st_mode);
    const int flags = access == Access::exclusive ? O_RDWR | O_EXCL : O_RDONLY;
    fd_ = Fd(open_direct(path, flags | O_NONBLOCK | O_CLOEXEC));
    if (fd_.get() < 0) {
        throw_open_error(path);
    }
    if (fstat(fd_.get(), &status) != 0) {
        throw_errno("cannot open " + path);
    }
    refuse_other_kinds(path, status.st_mode);
    if (access == Access::exclusive) {
        refuse_read_only(path, fd_.get());
    }
    const off_t end = lseek(fd_.get(), 0, SEEK_END);
    if (end < 0) {
        throw_errno("cannot measure " + path);
    }
    size_ = static_cast<uint64_t>(end);
    unreadable_ = UnreadableList(path);
    if (!mapfile.empty()) {
        mapfile_ = Mapfile(mapfile);
        size_ = std::max(size_, mapfile_.end());
    }
}

bool Device::holds(int64_t offset, size_t length) const
{
    return offset >= 0 && offset % SIZE_4K == 0 && static_cast<uint64_t>(offset) <= size_ &&
           length <= size_ - static_cast<uint64_t>(offset);
}

bool Device::read_stored(int64_t offset, void *data, size_t length) const
{
    if (!holds(offset, length)) {
        errno = ENXIO;
        return false;
    }
    errno = EIO; /* the reason when the file has been cut short meanwhile */
    return zutr_readn(fd_.get(), data, length, offset) >= 0;
}

bool Device::read_listed(int64_t offset, void *data, size_t length) const
{
    if (holds(offset, length) && !mapfile_.is_finished(offset, length)) {
        errno = NOT_RESCUED;
        return false;
    }
    if (!read_stored(offset, data, length)) {
        return false;
    }
    if (unreadable_.touches(offset, length) &&
        (length != SIZE_4K || is_zero(static_cast<const uint8_t *>(data)))) {
        errno = NOT_SAVED; /* of a longer read the blocks are to be read one by one */
        return false;
    }
    return true;
}

/* What lies over a single block is given even where the block cannot be read. */
bool Device::read(int64_t offset, void *data, size_t length) const
{
    if (laid_over_.empty() || !holds(offset, length)) {
        return read_listed(offset, data, length);
    }
    auto block = laid_over_.lower_bound(offset);
    const auto end = laid_over_.lower_bound(offset + static_cast<int64_t>(length));
    const bool is_covered = block != end && length == SIZE_4K;
    if (!is_covered && !read_listed(offset, data, length)) {
        return false;
    }
    for (; block != end; ++block) {
        block->second.get(static_cast<uint8_t *>(data) + (block->first - offset));
    }
    return true;
}

void Device::lay_over(int64_t offset, const KeptBlock &block) { laid_over_[offset] = block; }

bool Device::is_bare(int64_t offset, size_t length) const
{
    const auto block = laid_over_.lower_bound(offset);
    const bool is_covered =
        block != laid_over_.end() && block->first - offset < static_cast<int64_t>(length);
    return !is_covered && mapfile_.is_finished(offset, length) &&
           !unreadable_.touches(offset, length);
}

bool Device::is_direct() const { return (fcntl(fd_.get(), F_GETFL) & O_DIRECT) != 0; }

/* The first byte is zero, and each is like the one before it. */
bool is_zero(const uint8_t *block)
{
    return block[0] == 0 && memcmp(block, block + 1, SIZE_4K - 1) == 0;
}

void Device::write_block(int64_t offset, const void *expected, const void *block)
{
    const std::string where = fmt::format("the block at byte {} of {}", offset, path_);
    alignas(SIZE_4K) std::array<uint8_t, SIZE_4K> stored;
    const bool is_read = read(offset, stored.data(), SIZE_4K);
    if (!is_read && (expected != nullptr || errno == ENXIO)) {
        throw_errno("nothing was written: cannot read " + where);
    }
    if (is_read && (expected == nullptr || memcmp(stored.data(), expected, SIZE_4K) != 0)) {
        throw std::runtime_error("nothing was written: " + where + " has changed meanwhile");
    }
    errno = EIO; /* the reason when only a part of it was written */
    const ssize_t written = pwrite(fd_.get(), block, SIZE_4K, offset);
    if (written < 0 && errno == EPERM) {
        throw std::runtime_error("nothing was written: " + path_ + " is read-only");
    }
    if (written != ssize_t{SIZE_4K} || fsync(fd_.get()) != 0) {
        throw_errno("cannot write " + where + ", which may be damaged now");
    }
    if (!read_stored(offset, stored.data(), SIZE_4K)) {
        throw_errno("wrote, but cannot read back " + where);
    }
    if (memcmp(stored.data(), block, SIZE_4K) != 0) {
        throw std::runtime_error("wrote, but reads back differently: " + where);
    }
}

uint64_t slots_on_device(const tier_region &region, uint64_t size)
{
    const auto start = static_cast<uint64_t>(region.start);
    if (start % SIZE_4K != 0 || start >= size) {
        return 0;
    }
    return std::min(region.count, (size - start) / SIZE_4K);
}

bool Holes::cover(int64_t offset, size_t length)
{
    if (offset < known_ || offset >= data_end_) {
        look_up(offset);
    }
    return offset + static_cast<int64_t>(length) <= data_start_;
}

void Holes::look_up(int64_t offset)
{
    known_ = offset;
    data_end_ = INT64_MAX;
    data_start_ = lseek(fd_, offset, SEEK_DATA);
    if (data_start_ >= 0) {
        data_end_ = lseek(fd_, data_start_, SEEK_HOLE);
    } else if (errno == ENXIO) {
        data_start_ = lseek(fd_, 0, SEEK_END); /* nothing up to there, or the file is cut short */
    }
}

TableReader::TableReader(const Device &device, std::span<const tier_region> regions, size_t buffers)
    : device_(device), regions_(regions), holes_(device.fd()), buffers_(buffers)
{
    if (zutr_alloc_aligned(SIZE_1M, &chunks_.front().data) != 0) {
        throw std::bad_alloc();
    }
}

TableReader::~TableReader()
{
    for (; completed_ < begun_; completed_++) {
        const Chunk &chunk = chunks_[completed_ % buffers_];
        if (chunk.is_queued) {
            ReadQueue::of_this_thread().wait(chunk.read);
        }
    }
}

bool TableReader::next(Slots *slots)
{
    while (region_ < regions_.size()) {
        const tier_region &region = regions_[region_];
        if (first_ < region.count) {
            *slots = read(region, slots_on_device(region, device_.size()));
            first_ += slots->count;
            return true;
        }
        base_ += region.count;
        first_ = single_end_ = 0;
        region_++;
    }
    return false;
}

Slots TableReader::read(const tier_region &region, uint64_t present)
{
    const int64_t offset = region.slot(first_);
    if (first_ >= present) {
        return {base_ + first_, region.count - first_, offset, nullptr, ENXIO};
    }
    if (first_ >= single_end_) {
        begin_chunks();
        Chunk &chunk = chunks_[completed_ % buffers_];
        const bool is_read = complete(chunk);
        completed_++;
        const uint64_t count = chunk.length / SIZE_4K;
        if (is_read) {
            return {base_ + first_, count, offset, chunk.data.get(), 0};
        }
        single_end_ = first_ + count;
    }
    uint8_t *block = chunks_[(completed_ - 1) % buffers_].data.get();
    if (device_.read(offset, block, SIZE_4K)) {
        return {base_ + first_, 1, offset, block, 0};
    }
    return {base_ + first_, 1, offset, nullptr, errno};
}

void TableReader::begin_chunks()
{
    if (completed_ == begun_) {
        completed_ = begun_ = 0; /* the first chunk has a buffer in any case */
    }
    ReadQueue &queue = ReadQueue::of_this_thread();
    uint64_t left = chunks_to_begin();
    const bool is_ahead = queue.is_open(left) && device_.is_direct();
    const size_t most = is_ahead ? buffers_ : 1;
    for (; left > 0 && begun_ - completed_ < most; left--) {
        Chunk &chunk = chunks_[begun_ % buffers_];
        if (chunk.data == nullptr && zutr_alloc_aligned(SIZE_1M, &chunk.data) != 0) {
            return; /* it is begun later */
        }
        place_next(chunk);
        chunk.is_hole = holes_.cover(chunk.offset, chunk.length);
        chunk.is_queued =
            is_ahead && !chunk.is_hole &&
            queue.start(chunk.read, device_.fd(), chunk.data.get(), chunk.length, chunk.offset);
        begun_++;
    }
}

void TableReader::place_next(Chunk &chunk)
{
    while (ahead_first_ >= slots_on_device(regions_[ahead_region_], device_.size())) {
        ahead_region_++;
        ahead_first_ = 0;
    }
    const tier_region &region = regions_[ahead_region_];
    const uint64_t count =
        std::min(SLOTS_A_READ, slots_on_device(region, device_.size()) - ahead_first_);
    chunk.offset = region.slot(ahead_first_);
    chunk.length = count * SIZE_4K;
    ahead_first_ += count;
}

uint64_t TableReader::chunks_to_begin() const
{
    uint64_t chunks = 0;
    uint64_t first = ahead_first_;
    for (const tier_region &region : regions_.subspan(ahead_region_)) {
        const uint64_t present = slots_on_device(region, device_.size());
        chunks += (present - std::min(first, present) + SLOTS_A_READ - 1) / SLOTS_A_READ;
        first = 0;
    }
    return chunks;
}

/* What has gone wrong with a queued read shows when it is made again. */
bool TableReader::complete(Chunk &chunk)
{
    ReadQueue &queue = ReadQueue::of_this_thread();
    const bool is_whole = chunk.is_queued && queue.wait(chunk.read);
    if (device_.is_bare(chunk.offset, chunk.length)) {
        if (is_whole) {
            return true;
        }
        if (chunk.is_hole) {
            memset(chunk.data.get(), 0, chunk.length);
            return true;
        }
    }
    const auto begin = std::chrono::steady_clock::now();
    const bool is_read = device_.read(chunk.offset, chunk.data.get(), chunk.length);
    queue.add_plain_read(std::chrono::steady_clock::now() - begin);
    return is_read;
}

void read_table(const Device &device, std::span<const tier_region> regions,
                const std::function<void(const Slots &)> &take)
{
    TableReader reader(device, regions);
    Slots slots{};
    while (reader.next(&slots)) {
        take(slots);
    }
}

} // namespace tierctl
