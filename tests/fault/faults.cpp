// The calls that can fail: see fault_items.h.

// Both names of the device calls are defined below; the macro would make them one.
#undef _FILE_OFFSET_BITS

#include "fault_items.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <iterator>
#include <libaio.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zutr_faults;

namespace {

// The function of that name that this library hides.
template <class Function>
Function *hidden(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// Whether the call is to fail, with its error in errno.
bool fails(const char *call, std::uint64_t size = 0)
{
    const Item *item = take(call, size);
    if (item == nullptr || item->error == 0)
        return false;
    errno = item->error;
    return true;
}

// The rest of a request that came up short is no longer aligned.
void leave_direct_mode(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_DIRECT); }

// Milliseconds of a clock that is never set.
std::uint64_t now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1'000'000;
}

void wait_until(std::uint64_t when)
{
    for (std::uint64_t time = now(); time < when; time = now())
        usleep(static_cast<useconds_t>(when - time) * 1000);
}

// A read in the queue of the kernel.
struct QueuedRead {
    const iocb *request; // null: none
    const Item *item;    // null: no fault
    std::uint64_t due;   // the program does not learn of it before
    bool is_done;
    io_event event;
};
constinit QueuedRead queued_reads[64] = {};
constinit bool are_all_taken = true; // otherwise the program may leave the rest to io_destroy

QueuedRead *find_queued(const iocb *request)
{
    return std::find_if(std::begin(queued_reads), std::end(queued_reads),
                        [request](const QueuedRead &read) { return read.request == request; });
}

void add_queued(const iocb *request)
{
    const auto offset = static_cast<std::uint64_t>(request->u.c.offset);
    const Item *item = take("pread", request->u.c.nbytes, true, offset);
    if (item == nullptr)
        item = take("aio", request->u.c.nbytes, true, offset);
    QueuedRead *const read = find_queued(nullptr);
    if (read == std::end(queued_reads))
        abort();
    *read = {request, item, now() + (item == nullptr ? 0 : item->late), false, {}};
}

// Takes what the kernel has done, and waits for the first when there is nothing else to wait for.
// An error, or 0.
int take_events(io_context_t context)
{
    using GetEvents = int(io_context_t, long, long, io_event *, timespec *);
    static auto *const real = hidden<GetEvents>("io_getevents");
    const bool holds_some = std::any_of(std::begin(queued_reads), std::end(queued_reads),
                                        [](const QueuedRead &read) { return read.is_done; });
    io_event events[std::size(queued_reads)];
    timespec no_time{};
    const int count = real(context, holds_some ? 0 : 1, std::size(events), events,
                           holds_some ? &no_time : nullptr);
    for (int i = 0; i < count; ++i) {
        QueuedRead *const read = find_queued(events[i].obj);
        read->is_done = true;
        read->event = events[i];
    }
    return std::min(count, 0);
}

// What the program is told of a read.
io_event told(const QueuedRead &read)
{
    io_event event = read.event;
    if (read.item != nullptr && read.item->error != 0)
        event.res = static_cast<unsigned long>(-static_cast<long>(read.item->error));
    else if (read.item != nullptr)
        event.res = std::min<unsigned long>(event.res, read.item->at_most);
    if (event.res != read.request->u.c.nbytes)
        std::memset(read.request->u.c.buf, 0x5a, read.request->u.c.nbytes);
    return event;
}

template <class Buffer>
using Transfer = ssize_t(int, Buffer *, std::size_t, off64_t);

template <class Buffer>
ssize_t transfer(const char *call, Transfer<Buffer> *real, int fd, Buffer *buffer, std::size_t size,
                 off64_t offset)
{
    const Item *item = take(call, size, true, static_cast<std::uint64_t>(offset));
    if (item != nullptr && item->error != 0) {
        errno = item->error;
        return -1;
    }
    if (item != nullptr && item->lost)
        return static_cast<ssize_t>(size);
    if (item != nullptr)
        wait_until(now() + item->late);
    if (item == nullptr || item->at_most >= size)
        return real(fd, buffer, size, offset);
    leave_direct_mode(fd);
    return item->at_most == 0 ? 0 : real(fd, buffer, item->at_most, offset);
}

// A stream to write to, over the one that the program asked for. It writes as that would, to the
// end or to the first error.
ssize_t write_stream(void *stream, const char *bytes, size_t size)
{
    const int fd = fileno(static_cast<FILE *>(stream));
    size_t done = 0;
    while (done < size) {
        const Item *item = take("write", size - done);
        if (item != nullptr && item->error != 0) {
            errno = item->error;
            break;
        }
        const std::uint64_t at_most = item == nullptr ? NO_LIMIT : item->at_most;
        const ssize_t put = write(fd, bytes + done, std::min<std::uint64_t>(size - done, at_most));
        if (put < 0)
            break;
        done += static_cast<size_t>(put);
    }
    return static_cast<ssize_t>(done);
}

int close_stream(void *stream)
{
    static auto *const real = hidden<int(FILE *)>("fclose");
    return real(static_cast<FILE *>(stream));
}

FILE *watched(FILE *stream)
{
    return fopencookie(stream, "w", {nullptr, write_stream, nullptr, close_stream});
}

FILE *open_stream(FILE *(*real)(const char *, const char *), const char *path, const char *mode)
{
    if (fails("fopen"))
        return nullptr;
    FILE *const stream = real(path, mode);
    const bool watch = stream != nullptr && *mode != 'r' && is_wanted("write");
    return watch ? watched(stream) : stream;
}

[[gnu::constructor]] void watch_standard_output()
{
    if (is_wanted("write"))
        stdout = watched(stdout);
}

using Open = int(const char *, int, mode_t);

int open_file(Open *real, const char *path, int flags, mode_t mode)
{
    const bool is_unnamed = (flags & O_TMPFILE) == O_TMPFILE;
    return fails(is_unnamed ? "tmpfile" : "open") ? -1 : real(path, flags, mode);
}

template <class Subject, class Stat>
int get_stat(const char *call, int (*real)(Subject, Stat *), Subject subject, Stat *stat)
{
    return fails(call) ? -1 : real(subject, stat);
}

} // namespace

extern "C" {

ssize_t pread(int fd, void *buffer, size_t size, off_t offset)
{
    static auto *const real = hidden<Transfer<void>>("pread");
    return transfer("pread", real, fd, buffer, size, offset);
}

ssize_t pread64(int fd, void *buffer, size_t size, off64_t offset)
{
    static auto *const real = hidden<Transfer<void>>("pread64");
    return transfer("pread", real, fd, buffer, size, offset);
}

ssize_t pwrite(int fd, const void *buffer, size_t size, off_t offset)
{
    static auto *const real = hidden<Transfer<const void>>("pwrite");
    return transfer("pwrite", real, fd, buffer, size, offset);
}

ssize_t pwrite64(int fd, const void *buffer, size_t size, off64_t offset)
{
    static auto *const real = hidden<Transfer<const void>>("pwrite64");
    return transfer("pwrite", real, fd, buffer, size, offset);
}

int fsync(int fd)
{
    static auto *const real = hidden<int(int)>("fsync");
    return fails("fsync") ? -1 : real(fd);
}

int syncfs(int fd) noexcept
{
    static auto *const real = hidden<int(int)>("syncfs");
    return fails("syncfs") ? -1 : real(fd);
}

int posix_memalign(void **memory, size_t alignment, size_t size) noexcept
{
    static auto *const real = hidden<int(void **, size_t, size_t)>("posix_memalign");
    return fails("posix_memalign", size) ? errno : real(memory, alignment, size);
}

void *malloc(size_t size) noexcept
{
    static auto *const real = hidden<void *(size_t)>("malloc");
    return fails("malloc", size) ? nullptr : real(size);
}

void *calloc(size_t count, size_t size) noexcept
{
    static auto *const real = hidden<void *(size_t, size_t)>("calloc");
    return fails("calloc", count * size) ? nullptr : real(count, size);
}

void *realloc(void *memory, size_t size) noexcept
{
    static auto *const real = hidden<void *(void *, size_t)>("realloc");
    return fails("realloc", size) ? nullptr : real(memory, size);
}

void *aligned_alloc(size_t alignment, size_t size) noexcept
{
    static auto *const real = hidden<void *(size_t, size_t)>("aligned_alloc");
    return fails("aligned_alloc", size) ? nullptr : real(alignment, size);
}

size_t fread(void *buffer, size_t size, size_t count, FILE *stream)
{
    static auto *const real = hidden<size_t(void *, size_t, size_t, FILE *)>("fread");
    const Item *item = take("fread", size * count);
    if (item == nullptr || (item->error == 0 && item->at_most >= size * count))
        return real(buffer, size, count, stream);
    if (item->error != 0) {
        errno = item->error;
        return 0;
    }
    return real(buffer, 1, item->at_most, stream) / size;
}

int fclose(FILE *stream)
{
    static auto *const real = hidden<int(FILE *)>("fclose");
    const Item *item = take("fclose", 0);
    const int result = real(stream);
    if (item == nullptr || item->error == 0)
        return result;
    errno = item->error;
    return EOF;
}

int close(int fd)
{
    static auto *const real = hidden<int(int)>("close");
    const bool failed = fails("close");
    const int reason = errno;
    const int result = real(fd);
    if (!failed)
        return result;
    errno = reason;
    return -1;
}

FILE *fopen(const char *path, const char *mode)
{
    static auto *const real = hidden<FILE *(const char *, const char *)>("fopen");
    return open_stream(real, path, mode);
}

FILE *fopen64(const char *path, const char *mode)
{
    static auto *const real = hidden<FILE *(const char *, const char *)>("fopen64");
    return open_stream(real, path, mode);
}

// Also without a mode: then it is not looked at.
int open(const char *path, int flags, ...)
{
    static auto *const real = hidden<Open>("open");
    va_list mode;
    va_start(mode, flags);
    const int fd = open_file(real, path, flags, va_arg(mode, mode_t));
    va_end(mode);
    return fd;
}

int open64(const char *path, int flags, ...)
{
    static auto *const real = hidden<Open>("open64");
    va_list mode;
    va_start(mode, flags);
    const int fd = open_file(real, path, flags, va_arg(mode, mode_t));
    va_end(mode);
    return fd;
}

// What a fortified program calls where there is no mode.
int __open64_2(const char *path, int flags)
{
    static auto *const real = hidden<Open>("open64");
    return open_file(real, path, flags, 0);
}

int link(const char *from, const char *to) noexcept
{
    static auto *const real = hidden<int(const char *, const char *)>("link");
    return fails("link") ? -1 : real(from, to);
}

int linkat(int from_fd, const char *from, int to_fd, const char *to, int flags) noexcept
{
    static auto *const real = hidden<int(int, const char *, int, const char *, int)>("linkat");
    return fails("linkat") ? -1 : real(from_fd, from, to_fd, to, flags);
}

int renameat2(int from_fd, const char *from, int to_fd, const char *to, unsigned flags) noexcept
{
    static auto *const real =
        hidden<int(int, const char *, int, const char *, unsigned)>("renameat2");
    return fails("renameat2") ? -1 : real(from_fd, from, to_fd, to, flags);
}

int stat(const char *path, struct stat *stat)
{
    static auto *const real = hidden<int(const char *, struct stat *)>("stat");
    return get_stat("stat", real, path, stat);
}

int stat64(const char *path, struct stat64 *stat)
{
    static auto *const real = hidden<int(const char *, struct stat64 *)>("stat64");
    return get_stat("stat", real, path, stat);
}

int fstat(int fd, struct stat *stat)
{
    static auto *const real = hidden<int(int, struct stat *)>("fstat");
    return get_stat("fstat", real, fd, stat);
}

int fstat64(int fd, struct stat64 *stat)
{
    static auto *const real = hidden<int(int, struct stat64 *)>("fstat64");
    return get_stat("fstat", real, fd, stat);
}

// Of libaio, where results are negative error numbers

int io_setup(int count, io_context_t *context)
{
    static auto *const real = hidden<int(int, io_context_t *)>("io_setup");
    return fails("io_setup", static_cast<std::uint64_t>(count)) ? -errno : real(count, context);
}

int io_submit(io_context_t context, long count, iocb **requests)
{
    static auto *const real = hidden<int(io_context_t, long, iocb **)>("io_submit");
    if (fails("io_submit", static_cast<std::uint64_t>(count)))
        return -errno;
    const int taken = real(context, count, requests);
    for (int i = 0; i < taken; ++i)
        add_queued(requests[i]);
    return taken;
}

int io_getevents(io_context_t context, long, long most, io_event *events, timespec *)
{
    if (fails("io_getevents")) {
        are_all_taken = errno == EINTR;
        return -errno;
    }
    int count = 0;
    while (count == 0) {
        const int error = take_events(context);
        if (error != 0)
            return error;
        for (auto read = std::rbegin(queued_reads); read != std::rend(queued_reads); ++read)
            if (read->is_done && read->due <= now() && count < most) {
                events[count++] = told(*read);
                *read = {};
            }
        if (count == 0)
            usleep(1000);
    }
    return count;
}

// The memory of what is still being read may be gone by then.
int io_destroy(io_context_t context)
{
    static auto *const real = hidden<int(io_context_t)>("io_destroy");
    if (are_all_taken &&
        std::any_of(std::begin(queued_reads), std::end(queued_reads),
                    [](const QueuedRead &read) { return read.request != nullptr; })) {
        std::fputs("ZUTR_FAULTS: reads are left behind\n", stderr);
        std::_Exit(98);
    }
    return real(context);
}

// Of libblkid

int blkid_probe_set_device(void *probe, int fd, std::int64_t offset, std::int64_t size)
{
    static auto *const real =
        hidden<int(void *, int, std::int64_t, std::int64_t)>("blkid_probe_set_device");
    return fails("blkid_device") ? -1 : real(probe, fd, offset, size);
}

int blkid_probe_lookup_value(void *probe, const char *name, const char **data, size_t *length)
{
    static auto *const real =
        hidden<int(void *, const char *, const char **, size_t *)>("blkid_probe_lookup_value");
    return fails("blkid_value") ? -1 : real(probe, name, data, length);
}

} // extern "C"
