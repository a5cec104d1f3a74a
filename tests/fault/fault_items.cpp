#include "fault_items.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

namespace zutr_faults {

namespace {

struct Effect {
    const char *name;
    int error;
};
constexpr int KILLS = -1; // in place of an error
constexpr Effect ERRORS[] = {{"EIO", EIO},       {"EINTR", EINTR},           {"EAGAIN", EAGAIN},
                             {"ENOSPC", ENOSPC}, {"ENOMEM", ENOMEM},         {"EPERM", EPERM},
                             {"EINVAL", EINVAL}, {"EOPNOTSUPP", EOPNOTSUPP}, {"EFBIG", EFBIG},
                             {"kill", KILLS},    {"ENOSYS", ENOSYS},         {"pass", 0}};

// Filled before main, and not touched by any initialiser then.
constinit Item items[24];
constinit std::size_t item_count = 0;
constinit char trace_path[512] = "";
[[gnu::tls_model("initial-exec")]] constinit thread_local bool busy = false; // in this library
constinit std::atomic_flag locked = ATOMIC_FLAG_INIT;                        // by a thread
constinit bool will_stand_down = false;
constinit bool stands_down = false;

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
    if (std::strncmp(at, "late:", 5) == 0) {
        at += 5;
        item.late = number(at);
        return;
    }
    item.lost = item.effect_length == 4 && std::strncmp(at, "lost", 4) == 0;
    if (item.lost)
        return;
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

bool is_allocation(const char *call)
{
    return std::strstr(call, "alloc") != nullptr || std::strcmp(call, "posix_memalign") == 0;
}

// From the end of main on, when a coverage build writes its counts, every call passes. What the
// program has collected for its streams goes out later still. Not to be called for an allocation,
// which may come before the C library is ready or from within atexit.
void stand_down_at_exit()
{
    if (!will_stand_down)
        will_stand_down = std::atexit([] { stands_down = true; }) == 0;
}

} // namespace

bool is_wanted(const char *call)
{
    return std::any_of(items, items + item_count,
                       [&](const Item &item) { return std::strcmp(item.call, call) == 0; });
}

const Item *take(const char *call, std::uint64_t size, bool on_device, std::uint64_t offset)
{
    if (busy || item_count == 0 || (stands_down && std::strcmp(call, "write") != 0))
        return nullptr;
    busy = true;
    while (locked.test_and_set())
        ;
    if (!is_allocation(call))
        stand_down_at_exit();
    Item *const taker = std::find_if(items, items + item_count, [&](Item &item) {
        const bool touches =
            !on_device || (offset <= item.bytes.last && offset + size > item.bytes.first);
        return std::strcmp(item.call, call) == 0 && item.size.holds(size) && touches &&
               item.turns.holds(++item.seen);
    });
    const bool taken = taker != items + item_count;
    if (taken && trace_path[0] != '\0')
        trace(*taker, size, on_device, offset);
    if (taken && taker->error == KILLS)
        kill(getpid(), SIGKILL);
    locked.clear();
    busy = false;
    return taken ? taker : nullptr;
}

} // namespace zutr_faults
