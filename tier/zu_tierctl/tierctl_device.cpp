#include "zu_tierctl/tierctl_device.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/tierctl_error.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>

namespace {

constexpr uint64_t SLOTS_A_READ = SIZE_1M / SIZE_4K;

/* Not every file system has direct access. */
int open_direct(const std::string &path, int flags)
{
    const int fd = open(path.c_str(), flags | O_DIRECT);
    return fd < 0 && errno == EINVAL ? open(path.c_str(), flags) : fd;
}

/* Slots of a region, from its first on, that lie on a device of `size` bytes as the tool reads it:
 * whole, at multiples of 4096. */
uint64_t slots_on_device(const tier_region &region, uint64_t size)
{
    const auto start = static_cast<uint64_t>(region.start);
    if (start % SIZE_4K != 0 || start >= size) {
        return 0;
    }
    return std::min(region.count, (size - start) / SIZE_4K);
}

/* The reading of one region. */
struct region_reader {
    const tierctl_device &device;
    const tier_region &region;
    uint64_t first_no; /* of the region */
    const std::function<void(const tierctl_slots &)> &take;
    uint8_t *buffer;

    /* False, with nothing taken, when they cannot be read in one go. */
    bool take_slots(uint64_t first, uint64_t count) const
    {
        const int64_t offset = region.slot(first);
        if (!device.read(offset, buffer, count * SIZE_4K)) {
            return false;
        }
        take({first_no + first, count, offset, buffer, 0});
        return true;
    }

    void give_up(uint64_t first, uint64_t count, int error) const
    {
        take({first_no + first, count, region.slot(first), nullptr, error});
    }

    void take_each(uint64_t first, uint64_t count) const
    {
        for (uint64_t i = first; i < first + count; i++) {
            if (!take_slots(i, 1)) {
                give_up(i, 1, errno);
            }
        }
    }

    void take_all() const
    {
        const uint64_t there = slots_on_device(region, device.size());
        for (uint64_t first = 0; first < there; first += SLOTS_A_READ) {
            const uint64_t count = std::min(SLOTS_A_READ, there - first);
            if (!take_slots(first, count)) {
                take_each(first, count);
            }
        }
        if (there < region.count) {
            give_up(there, region.count - there, ENXIO);
        }
    }
};

} // namespace

tierctl_device::tierctl_device(const std::string &path, tierctl_access access)
    : path_(path),
      fd_(open_direct(path, access == tierctl_access::exclusive ? O_RDWR | O_EXCL | O_CLOEXEC
                                                                : O_RDONLY | O_CLOEXEC))
{
    struct stat status {};
    if (fd_.get() < 0 || fstat(fd_.get(), &status) != 0) {
        tierctl_throw_errno("cannot open " + path);
    }
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
        throw std::runtime_error(path + " is neither a regular file nor a block device");
    }
    const off_t end = lseek(fd_.get(), 0, SEEK_END);
    if (end < 0) {
        tierctl_throw_errno("cannot measure " + path);
    }
    size_ = static_cast<uint64_t>(end);
}

bool tierctl_device::read(int64_t offset, void *data, size_t length) const
{
    if (offset < 0 || offset % SIZE_4K != 0 || static_cast<uint64_t>(offset) > size_ ||
        length > size_ - static_cast<uint64_t>(offset)) {
        errno = ENXIO;
        return false;
    }
    errno = EIO; /* of a file that has become shorter meanwhile nothing else tells */
    return zutr_readn(fd_.get(), data, length, offset) >= 0;
}

void tierctl_device::write_block(int64_t offset, const void *block)
{
    if (zutr_writen(fd_.get(), block, SIZE_4K, offset) < 0 || fsync(fd_.get()) != 0) {
        tierctl_throw_errno("cannot write " + path_);
    }
}

void tierctl_read_table(const tierctl_device &device, const tierctl_table &table,
                        const std::function<void(const tierctl_slots &)> &take)
{
    zutr_buffer buffer;
    if (zutr_alloc_aligned(SIZE_1M, &buffer) != 0) {
        throw std::bad_alloc();
    }
    uint64_t first_no = 0;
    for (const tier_region &region : table.regions) {
        region_reader{device, region, first_no, take, buffer.get()}.take_all();
        first_no += region.count;
    }
}
