// Loaded before the C library (LD_PRELOAD): lets chosen calls of a program fail or come up short.
//
//   ZUTR_FAULTS = item { ";" item }
//   item   = "trace:" path
//          | call [ "(" size [ "-" size ] ")" ] [ "@" offset "+" length ] [ "#" from [ "-" [to] ] ]
//            "=" effect
//   call   = "pread" | "pwrite" | "posix_memalign" | "aligned_alloc" | "malloc" | "calloc"
//          | "realloc" | "fread" | "fclose"
//   effect = an error name of the table below | "short:" bytes | "pass"
//
// (size)   only calls for that many bytes, or for a number in that range
// @o+l     only device calls that touch one of the `length` bytes from `offset` of the device
// #n       only the n-th of the calls that the item takes otherwise, counted from 1; #n-m, #n-
//
// The first item that takes a call decides; those behind it do not count the call. An error fails
// the call without an effect, except that fclose closes its file all the same. "short:" moves at
// most that many bytes, so "short:0" is the end of the device for a read, and a write that moved
// nothing. "pass" changes nothing. With "trace:" each call that an item took is appended to the
// file, one line in the form "pread(4096)@8192=EIO", the offset only for device calls.
//
// Numbers are in the usual C notations. An item that cannot be understood ends the program.

// Both names of the device calls are defined below; the macro would make them one.
#undef _FILE_OFFSET_BITS

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <iterator>
#include <limits>
#include <unistd.h>

namespace {

constexpr std::uint64_t NO_LIMIT = std::numeric_limits<std::uint64_t>::max();

struct Effect {
    const char *name;
    int error;
};
constexpr Effect ERRORS[] = {{"EIO", EIO},       {"EINTR", EINTR},   {"EAGAIN", EAGAIN},
                             {"ENOSPC", ENOSPC}, {"ENOMEM", ENOMEM}, {"pass", 0}};

struct Range {
    std::uint64_t first = 0;
    std::uint64_t last = NO_LIMIT;

    bool holds(std::uint64_t value) const { return value >= first && value <= last; }
};

struct Item {
    char call[16] = "";
    Range size{};
    Range bytes{};
    Range turns{};
    int error = 0;                    // 0: none
    std::uint64_t at_most = NO_LIMIT; // bytes moved
    const char *effect = "";          // as it was written
    std::size_t effect_length = 0;
    std::uint64_t seen = 0;
};

// Filled before main, and not touched by any initialiser then.
constinit Item items[16];
constinit std::size_t item_count = 0;
constinit char trace_path[512] = "";
constinit bool busy = false; // inside this library

[[noreturn]] void reject(const char *item)
{
    std::fprintf(stderr, "ZUTR_FAULTS: cannot understand \"%s\"\n", item);
    std::_Exit(99);
}

bool skip(const char *&at, char expected)
{
    const bool found = *at == expected;
    at += found ? 1 : 0;
    return found;
}

std::uint64_t number(const char *&at)
{
    char *end = nullptr;
    const std::uint64_t value = std::strtoull(at, &end, 0);
    if (end == at)
        reject(at);
    at = end;
    return value;
}

// "n", "n-m" or, where allowed, "n-"
Range range(const char *&at, bool may_be_open)
{
    Range result;
    result.first = result.last = number(at);
    if (skip(at, '-'))
        result.last = may_be_open && (*at == '=' || *at == '\0') ? NO_LIMIT : number(at);
    return result;
}

void parse_effect(const char *at, Item &item)
{
    item.effect = at;
    item.effect_length = std::strcspn(at, ";");
    if (std::strncmp(at, "short:", 6) == 0) {
        at += 6;
        item.at_most = number(at);
        return;
    }
    for (const Effect &effect : ERRORS)
        if (std::strlen(effect.name) == item.effect_length &&
            std::strncmp(at, effect.name, item.effect_length) == 0) {
            item.error = effect.error;
            return;
        }
    reject(at);
}

void parse_item(const char *at)
{
    const char *const start = at;
    if (item_count == std::size(items))
        reject(start);
    Item &item = items[item_count++];
    const std::size_t name = std::strcspn(at, "(@#=;");
    if (name >= sizeof(item.call))
        reject(start);
    std::memcpy(item.call, at, name);
    at += name;
    if (skip(at, '(')) {
        item.size = range(at, false);
        if (!skip(at, ')'))
            reject(start);
    }
    if (skip(at, '@')) {
        item.bytes.first = number(at);
        if (!skip(at, '+'))
            reject(start);
        item.bytes.last = item.bytes.first + number(at) - 1;
    }
    if (skip(at, '#'))
        item.turns = range(at, true);
    if (!skip(at, '='))
        reject(start);
    parse_effect(at, item);
}

[[gnu::constructor]] void parse_environment()
{
    const char *at = std::getenv("ZUTR_FAULTS");
    while (at != nullptr && *at != '\0') {
        const std::size_t length = std::strcspn(at, ";");
        if (std::strncmp(at, "trace:", 6) == 0 && length < sizeof(trace_path) + 6)
            std::memcpy(trace_path, at + 6, length - 6);
        else
            parse_item(at);
        at += length + (at[length] == ';' ? 1 : 0);
    }
}

void trace(const Item &item, std::uint64_t size, bool on_device, std::uint64_t offset)
{
    char line[160];
    char where[32] = "";
    if (on_device)
        std::snprintf(where, sizeof(where), "@%lu", offset);
    const int length = std::snprintf(line, sizeof(line), "%s(%lu)%s=%.*s\n", item.call, size, where,
                                     static_cast<int>(item.effect_length), item.effect);
    const int fd = open(trace_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, line, static_cast<std::size_t>(length)) != length)
        reject(trace_path);
    close(fd);
}

// The item that takes the call, or null.
const Item *take(const char *call, std::uint64_t size, bool on_device = false,
                 std::uint64_t offset = 0)
{
    if (busy || item_count == 0)
        return nullptr;
    busy = true;
    Item *const taker = std::find_if(items, items + item_count, [&](Item &item) {
        const bool touches =
            !on_device || (offset <= item.bytes.last && offset + size > item.bytes.first);
        return std::strcmp(item.call, call) == 0 && item.size.holds(size) && touches &&
               item.turns.holds(++item.seen);
    });
    const bool taken = taker != items + item_count;
    if (taken && trace_path[0] != '\0')
        trace(*taker, size, on_device, offset);
    busy = false;
    return taken ? taker : nullptr;
}

// The function of that name behind this library.
template <class Function>
Function *behind(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// What is left of a request that came up short is not aligned any more.
void leave_direct_mode(int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_DIRECT);
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
    if (item == nullptr || item->at_most >= size)
        return real(fd, buffer, size, offset);
    leave_direct_mode(fd);
    return item->at_most == 0 ? 0 : real(fd, buffer, item->at_most, offset);
}

// Whether memory is to be refused.
bool out_of_memory(const char *call, std::uint64_t size)
{
    const Item *item = take(call, size);
    if (item == nullptr || item->error == 0)
        return false;
    errno = item->error;
    return true;
}

} // namespace

extern "C" {

ssize_t pread(int fd, void *buffer, size_t size, off_t offset)
{
    static auto *const real = behind<Transfer<void>>("pread");
    return transfer("pread", real, fd, buffer, size, offset);
}

ssize_t pread64(int fd, void *buffer, size_t size, off64_t offset)
{
    static auto *const real = behind<Transfer<void>>("pread64");
    return transfer("pread", real, fd, buffer, size, offset);
}

ssize_t pwrite(int fd, const void *buffer, size_t size, off_t offset)
{
    static auto *const real = behind<Transfer<const void>>("pwrite");
    return transfer("pwrite", real, fd, buffer, size, offset);
}

ssize_t pwrite64(int fd, const void *buffer, size_t size, off64_t offset)
{
    static auto *const real = behind<Transfer<const void>>("pwrite64");
    return transfer("pwrite", real, fd, buffer, size, offset);
}

int posix_memalign(void **memory, size_t alignment, size_t size) noexcept
{
    static auto *const real = behind<int(void **, size_t, size_t)>("posix_memalign");
    return out_of_memory("posix_memalign", size) ? errno : real(memory, alignment, size);
}

void *malloc(size_t size) noexcept
{
    static auto *const real = behind<void *(size_t)>("malloc");
    return out_of_memory("malloc", size) ? nullptr : real(size);
}

void *calloc(size_t count, size_t size) noexcept
{
    static auto *const real = behind<void *(size_t, size_t)>("calloc");
    return out_of_memory("calloc", count * size) ? nullptr : real(count, size);
}

void *realloc(void *memory, size_t size) noexcept
{
    static auto *const real = behind<void *(void *, size_t)>("realloc");
    return out_of_memory("realloc", size) ? nullptr : real(memory, size);
}

void *aligned_alloc(size_t alignment, size_t size) noexcept
{
    static auto *const real = behind<void *(size_t, size_t)>("aligned_alloc");
    return out_of_memory("aligned_alloc", size) ? nullptr : real(alignment, size);
}

size_t fread(void *buffer, size_t size, size_t count, FILE *stream)
{
    static auto *const real = behind<size_t(void *, size_t, size_t, FILE *)>("fread");
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
    static auto *const real = behind<int(FILE *)>("fclose");
    const Item *item = take("fclose", 0);
    const int result = real(stream);
    if (item == nullptr || item->error == 0)
        return result;
    errno = item->error;
    return EOF;
}

} // extern "C"
