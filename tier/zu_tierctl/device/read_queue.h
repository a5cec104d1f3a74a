#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <libaio.h>

namespace tierctl {

/* A read that the kernel does while the program goes on. Neither it nor its memory may go away
 * before it was waited for. */
struct QueuedRead {
    iocb request{};
    bool done = false;
    bool whole = false; /* all bytes were read */
};

/* The reads that a thread has in flight: Linux AIO. Where the kernel, a filter of system calls or a
 * limit refuses it, reads are refused, and the caller reads as if there were no such thing.
 *
 * When the program ends, the kernel takes 20 to 40 ms to clear up, however little was read. So the
 * queue opens only when reading is known to take longer. */
class ReadQueue {
public:
    using Seconds = std::chrono::duration<double>;

    static ReadQueue &of_this_thread();

    ReadQueue() = default;
    ReadQueue(const ReadQueue &) = delete;
    ReadQueue &operator=(const ReadQueue &) = delete;
    ~ReadQueue();

    /* Notes how long a read of a chunk took that was not queued. */
    void add_plain_read(Seconds time);

    /* Whether reads can be queued, with so many chunks still to be read. */
    bool is_open(uint64_t chunks);

    /* Starts a read; false when it is refused. */
    bool start(QueuedRead &read, int fd, void *data, size_t length, int64_t offset);

    /* Waits for a read that was started. True when all of it was read. */
    bool wait(const QueuedRead &read);

private:
    /* Marks the next reads that are done. */
    void take_done();

    void close();

    io_context_t context_ = nullptr; /* null: not open */
    bool is_refused_ = false;
    Seconds plain_time_{};
    uint64_t plain_reads_ = 0;
};

} // namespace tierctl
