#include "zu_tierctl/device/read_queue.h"

#include <array>
#include <cerrno>

namespace tierctl {

namespace {

constexpr int IN_FLIGHT_MAX = 32; /* of all readers of a thread */

/* Of all reads of chunks: several times what the kernel takes to clear up. */
constexpr ReadQueue::Seconds WORTH_OPENING = std::chrono::milliseconds(200);

} // namespace

ReadQueue &ReadQueue::of_this_thread()
{
    thread_local ReadQueue queue;
    return queue;
}

ReadQueue::~ReadQueue() { close(); }

void ReadQueue::add_plain_read(Seconds time)
{
    plain_time_ += time;
    plain_reads_++;
}

bool ReadQueue::is_open(uint64_t chunks)
{
    if (context_ != nullptr || is_refused_ || plain_reads_ == 0) {
        return context_ != nullptr;
    }
    const Seconds to_come = plain_time_ / plain_reads_ * static_cast<double>(chunks);
    if (plain_time_ + to_come >= WORTH_OPENING) {
        is_refused_ = io_setup(IN_FLIGHT_MAX, &context_) != 0;
    }
    return context_ != nullptr;
}

bool ReadQueue::start(QueuedRead &read, int fd, void *data, size_t length, int64_t offset)
{
    read.done = read.whole = false;
    io_prep_pread(&read.request, fd, data, length, offset);
    read.request.data = &read;
    iocb *request = &read.request;
    return context_ != nullptr && io_submit(context_, 1, &request) == 1;
}

bool ReadQueue::wait(const QueuedRead &read)
{
    while (!read.done && context_ != nullptr) {
        take_done();
    }
    return read.done && read.whole;
}

void ReadQueue::take_done()
{
    std::array<io_event, IN_FLIGHT_MAX> events;
    const int count = io_getevents(context_, 1, IN_FLIGHT_MAX, events.data(), nullptr);
    if (count < 0 && count != -EINTR) {
        close();
        is_refused_ = true;
    }
    for (int i = 0; i < count; i++) {
        auto *read = static_cast<QueuedRead *>(events[i].data);
        read->done = true;
        read->whole = events[i].res == read->request.u.c.nbytes;
    }
}

/* Waits until the kernel has ended all reads. */
void ReadQueue::close()
{
    if (context_ != nullptr) {
        io_destroy(context_);
        context_ = nullptr;
    }
}

} // namespace tierctl
