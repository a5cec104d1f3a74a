#include "loop_device.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace tier_test {

namespace {

// The image on a free loop device: its descriptor, or -1 with errno EBUSY when another process
// took the device first.
int configure(const std::string &path, int image)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    loop_config config{};
    config.fd = static_cast<__u32>(image);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (fd < 0 || ioctl(fd, LOOP_CONFIGURE, &config) == 0)
        return fd;
    const int reason = errno;
    close(fd);
    errno = reason;
    return -1;
}

} // namespace

std::unique_ptr<LoopDevice> LoopDevice::attach(const std::string &image)
{
    const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int backing = open(image.c_str(), O_RDWR | O_CLOEXEC);
    std::string path;
    int fd = -1;
    for (int tries = 0; tries == 0 || (fd < 0 && errno == EBUSY && tries < 100); ++tries) {
        const int number = ioctl(control, LOOP_CTL_GET_FREE);
        path = "/dev/loop" + std::to_string(number);
        fd = number < 0 ? -1 : configure(path, backing);
    }
    if (backing >= 0)
        close(backing);
    if (control >= 0)
        close(control);
    return fd < 0 ? nullptr : std::unique_ptr<LoopDevice>(new LoopDevice(path, fd));
}

LoopDevice::~LoopDevice()
{
    set_read_only(false);
    close(fd_);
}

bool LoopDevice::set_read_only(bool is_read_only) const
{
    const int value = is_read_only ? 1 : 0;
    return ioctl(fd_, BLKROSET, &value) == 0;
}

} // namespace tier_test
