#pragma once

#include "arena.h"
#include "device.h"

#include <cstdio>
#include <string>

namespace tier_fuzz {

// The names of the files of a run; there are no others.
constexpr const char DEVICE_NAME[] = "device";
constexpr const char REPAIR_NAME[] = "repair";
constexpr const char OUTPUT_NAME[] = "output";
constexpr const char LOG_NAME[] = "log";

// No piece of aligned memory is larger. It holds more than can be read from a device in memory.
constexpr std::size_t MOST_MEMORY = 3U << 20;

constexpr int DEVICE_FD = 1000;
constexpr int REPAIR_FD = 1001;

// The simulated environment of a run.
struct World {
    bool running = false; // else the wrapped calls are those of the C library

    Device device{};
    bool device_open = false;
    bool device_writable = false;

    View repair_file{};
    bool output_full = false;           // nothing can be written to standard output or "output"
    bool default_log_directory = false; // the log has a place when none is named
    std::string printed{};              // to standard output and "output"

    Arena arena{};                        // for what is large
    std::vector<void *> aligned_memory{}; // allocated elsewhere in the course of the run

    // Another input.
    void reset();
    // Another run with the same device and files.
    void begin();
    void end();

    FILE *open(const char *path, const char *mode);
    bool is_repair(const FILE *stream) const { return stream == repair_stream_; }
    bool output_open() const { return output_stream_ != nullptr; }
    void close_output();

private:
    static int output_closed(void *cookie);

    FILE *repair_stream_ = nullptr;
    FILE *output_stream_ = nullptr;
};

extern World world;

} // namespace tier_fuzz
