/* Loaded before the C library (LD_PRELOAD): every read of a device takes a millisecond longer, as
 * on a network volume. Reads that are in flight at the same time wait at the same time. With
 * ONE_AT_A_TIME in the environment the queue of the kernel is refused, as a container may do. */

// Both names of pread are defined below; the macro would make them one.
#undef _FILE_OFFSET_BITS

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <dlfcn.h>
#include <iterator>
#include <libaio.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto DELAY = std::chrono::milliseconds(1);

template <class Function>
Function *hidden(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

struct InFlight {
    const iocb *request; /* null: none */
    Clock::time_point due;
    bool is_done;
    io_event event;
};
InFlight in_flight[64] = {};

InFlight &find(const iocb *request)
{
    InFlight *const found =
        std::find_if(std::begin(in_flight), std::end(in_flight),
                     [request](const InFlight &read) { return read.request == request; });
    if (found == std::end(in_flight)) {
        abort();
    }
    return *found;
}

/* The read that is done and due first; null: none is done. */
InFlight *first_done()
{
    InFlight *first = nullptr;
    for (InFlight &read : in_flight) {
        if (read.is_done && (first == nullptr || read.due < first->due)) {
            first = &read;
        }
    }
    return first;
}

} // namespace

extern "C" {

ssize_t pread(int fd, void *buffer, size_t size, off_t offset)
{
    static auto *const real = hidden<ssize_t(int, void *, size_t, off_t)>("pread");
    std::this_thread::sleep_for(DELAY);
    return real(fd, buffer, size, offset);
}

ssize_t pread64(int fd, void *buffer, size_t size, off64_t offset)
{
    static auto *const real = hidden<ssize_t(int, void *, size_t, off64_t)>("pread64");
    std::this_thread::sleep_for(DELAY);
    return real(fd, buffer, size, offset);
}

int io_setup(int count, io_context_t *context)
{
    static auto *const real = hidden<int(int, io_context_t *)>("io_setup");
    return getenv("ONE_AT_A_TIME") != nullptr ? -EPERM : real(count, context);
}

int io_submit(io_context_t context, long count, iocb **requests)
{
    static auto *const real = hidden<int(io_context_t, long, iocb **)>("io_submit");
    const auto due = Clock::now() + DELAY;
    const int taken = real(context, count, requests);
    for (int i = 0; i < taken; i++) {
        find(nullptr) = {requests[i], due, false, {}};
    }
    return taken;
}

/* Gives the first read that is due. */
int io_getevents(io_context_t context, long, long, io_event *event, timespec *)
{
    static auto *const real =
        hidden<int(io_context_t, long, long, io_event *, timespec *)>("io_getevents");
    io_event events[std::size(in_flight)];
    timespec no_time{};
    const bool is_any_done = first_done() != nullptr;
    const int count = real(context, is_any_done ? 0 : 1, std::size(events), events,
                           is_any_done ? &no_time : nullptr);
    for (int i = 0; i < count; i++) {
        InFlight &read = find(events[i].obj);
        read.is_done = true;
        read.event = events[i];
    }
    InFlight *const first = first_done();
    if (first == nullptr) {
        return count;
    }
    std::this_thread::sleep_until(first->due);
    *event = first->event;
    *first = {};
    return 1;
}

} // extern "C"
