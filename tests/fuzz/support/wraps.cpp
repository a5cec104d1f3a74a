// The calls that the tool makes, as the linker redirects them (--wrap): during a run they see only
// the world in memory.

#include "contract.h"
#include "world.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

using tier_fuzz::DEVICE_FD;
using tier_fuzz::REPAIR_FD;
using tier_fuzz::require;
using tier_fuzz::world;

extern "C" {

int __real_open64(const char *path, int flags, ...);
int __real_close(int fd);
ssize_t __real_pread64(int fd, void *to, size_t size, off64_t offset);
ssize_t __real_pwrite64(int fd, const void *from, size_t size, off64_t offset);
FILE *__real_fopen64(const char *path, const char *mode);
int __real_fileno(FILE *stream);
int __real_fstat64(int fd, struct stat64 *st);
int __real_stat64(const char *path, struct stat64 *st);
int __real_posix_memalign(void **memory, size_t alignment, size_t size);
void __real_free(void *memory);

int __wrap_open64(const char *path, int flags, ...)
{
    if (!world.running) {
        va_list args;
        va_start(args, flags);
        const int mode = va_arg(args, int);
        va_end(args);
        return __real_open64(path, flags, mode);
    }
    if (std::string_view(path) != tier_fuzz::DEVICE_NAME) {
        errno = ENOENT;
        return -1;
    }
    require((flags & O_DIRECT) != 0, "the device is opened for direct access");
    require(!world.device_open, "the device is opened once");
    world.device_open = true;
    world.device_writable = (flags & O_ACCMODE) == O_RDWR;
    return DEVICE_FD;
}

int __wrap_close(int fd)
{
    if (!world.running || fd != DEVICE_FD) {
        return __real_close(fd);
    }
    require(world.device_open, "the device is closed once");
    world.device_open = false;
    return 0;
}

ssize_t __wrap_pread64(int fd, void *to, size_t size, off64_t offset)
{
    return world.running && fd == DEVICE_FD ? world.device.read(to, size, offset)
                                            : __real_pread64(fd, to, size, offset);
}

ssize_t __wrap_pwrite64(int fd, const void *from, size_t size, off64_t offset)
{
    if (!world.running || fd != DEVICE_FD) {
        return __real_pwrite64(fd, from, size, offset);
    }
    require(world.device_writable, "a device that may not be written to is not written to");
    return world.device.write(from, size, offset);
}

FILE *__wrap_fopen64(const char *path, const char *mode)
{
    return world.running ? world.open(path, mode) : __real_fopen64(path, mode);
}

int __wrap_fileno(FILE *stream)
{
    return world.running && world.is_repair(stream) ? REPAIR_FD : __real_fileno(stream);
}

int __wrap_fstat64(int fd, struct stat64 *st)
{
    if (!world.running || (fd != REPAIR_FD && fd != DEVICE_FD)) {
        return __real_fstat64(fd, st);
    }
    *st = {};
    st->st_ino = static_cast<ino64_t>(fd);
    st->st_size = static_cast<off64_t>(world.repair_file.size());
    return 0;
}

int __wrap_stat64(const char *path, struct stat64 *st)
{
    if (!world.running) {
        return __real_stat64(path, st);
    }
    const std::string_view name(path);
    if (name == tier_fuzz::DEVICE_NAME || (name == "/kd/log/zu" && world.default_log_directory)) {
        *st = {};
        st->st_ino = DEVICE_FD;
        return 0;
    }
    errno = ENOENT;
    return -1;
}

int __wrap_posix_memalign(void **memory, size_t alignment, size_t size)
{
    if (world.running && size > tier_fuzz::MOST_MEMORY) {
        return ENOMEM;
    }
    if (world.running && world.arena.take(memory, size)) {
        return 0;
    }
    const int ret = __real_posix_memalign(memory, alignment, size);
    if (world.running && ret == 0) {
        world.aligned_memory.push_back(*memory);
    }
    return ret;
}

void __wrap_free(void *memory)
{
    if (!world.arena.give_back(memory)) {
        __real_free(memory);
    }
}

} // extern "C"
