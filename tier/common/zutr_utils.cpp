#include "common/zutr_utils.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <uuid/uuid.h>

namespace {

char s_uuid_buf[40];

bool should_retry() { return errno == EAGAIN || errno == EINTR; }

} // namespace

ssize_t zutr_readn(int32_t fd, void *buf, size_t nbyte, int64_t offset)
{
    if (fd < 0 || buf == nullptr || nbyte == 0) {
        return -1;
    }
    size_t done = 0;
    while (done < nbyte) {
        const ssize_t got = pread(fd, static_cast<uint8_t *>(buf) + done, nbyte - done,
                                  offset + static_cast<int64_t>(done));
        if (got < 0 && should_retry()) {
            continue;
        }
        if (got <= 0) {
            return -1;
        }
        done += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(nbyte);
}

ssize_t zutr_writen(int32_t fd, const void *buf, size_t nbyte, int64_t offset)
{
    if (fd < 0 || buf == nullptr || nbyte == 0) {
        return -EINVAL;
    }
    size_t done = 0;
    while (done < nbyte) {
        const ssize_t put = pwrite(fd, static_cast<const uint8_t *>(buf) + done, nbyte - done,
                                   offset + static_cast<int64_t>(done));
        if (put < 0 && should_retry()) {
            continue;
        }
        if (put < 0) {
            return -1;
        }
        done += static_cast<size_t>(put);
    }
    return static_cast<ssize_t>(nbyte);
}

ssize_t zutr_readn_ex(int32_t fd, void **buf, size_t nbyte, int64_t offset)
{
    if (fd < 0 || buf == nullptr || nbyte == 0) {
        return -EINVAL;
    }
    zutr_buffer fresh;
    if (zutr_alloc_aligned(nbyte, &fresh) != 0) {
        return -ENOMEM;
    }
    memset(fresh.get(), 0, nbyte);
    const auto ret = static_cast<int32_t>(zutr_readn(fd, fresh.get(), nbyte, offset));
    *buf = ret < 0 ? nullptr : fresh.release();
    return ret;
}

const char *zutr_uuid_utoa(const uint8_t *uu)
{
    memset(s_uuid_buf, 0, sizeof(s_uuid_buf));
    uuid_unparse_lower(uu, s_uuid_buf);
    return s_uuid_buf;
}

int32_t zutr_alloc_aligned(size_t nbyte, zutr_buffer *buf)
{
    void *memory = nullptr;
    const int32_t ret = posix_memalign(&memory, SIZE_4K, nbyte);
    if (ret == 0) {
        buf->reset(static_cast<uint8_t *>(memory));
    }
    return ret;
}

int32_t zutr_secure_streams()
{
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    while (fcntl(STDERR_FILENO, F_GETFD) < 0 || fcntl(STDOUT_FILENO, F_GETFD) < 0 ||
           fcntl(STDIN_FILENO, F_GETFD) < 0) {
        if (open("/dev/null", O_RDONLY) < 0) {
            return -1;
        }
    }
    return 0;
}
