#include "world.h"

#include "contract.h"

#include <cerrno>
#include <cstdlib>
#include <stdio_ext.h>
#include <string_view>
#include <utility>

namespace tier_fuzz {

World world;

namespace {

// More than any check looks at.
constexpr std::size_t MOST_PRINTED = 1U << 20;

ssize_t print(void * /*cookie*/, const char *text, std::size_t size)
{
    if (world.output_full) {
        errno = ENOSPC;
        return 0;
    }
    const std::size_t room = MOST_PRINTED - std::min(MOST_PRINTED, world.printed.size());
    world.printed.append(text, std::min(size, room));
    return static_cast<ssize_t>(size);
}

ssize_t swallow(void * /*cookie*/, const char * /*text*/, std::size_t size)
{
    return static_cast<ssize_t>(size);
}

ssize_t read_repair(void *at, char *to, std::size_t size)
{
    auto &done = *static_cast<std::size_t *>(at);
    size = std::min(size, world.repair_file.size() - done);
    std::memcpy(to, world.repair_file.data() + done, size);
    done += size;
    return static_cast<ssize_t>(size);
}

FILE *stream(cookie_io_functions_t functions, void *cookie = nullptr, const char *mode = "w")
{
    FILE *made = fopencookie(cookie, mode, functions);
    require(made != nullptr, "fopencookie");
    return made;
}

// Standard streams of the run, made once.
FILE *other_stdout = nullptr;
FILE *other_stderr = nullptr;

void swap_streams()
{
    std::swap(stdout, other_stdout);
    std::swap(stderr, other_stderr);
}

} // namespace

void World::reset()
{
    device.reset();
    repair_file = {};
    output_full = false;
    default_log_directory = false;
}

void World::begin()
{
    if (other_stdout == nullptr) {
        other_stdout = stream({.read = nullptr, .write = print, .seek = nullptr, .close = nullptr});
        other_stderr =
            stream({.read = nullptr, .write = swallow, .seek = nullptr, .close = nullptr});
        printed.reserve(MOST_PRINTED);
        aligned_memory.reserve(64);
    }
    swap_streams();
    printed.clear();
    aligned_memory.clear();
    device_open = false;
    repair_stream_ = nullptr;
    output_stream_ = nullptr;
    running = true;
}

void World::end()
{
    running = false;
    fflush(stdout);
    __fpurge(stdout);
    clearerr(stdout);
    swap_streams();
}

FILE *World::open(const char *path, const char *mode)
{
    static std::size_t repair_at;
    const std::string_view name(path);
    if (name == REPAIR_NAME && *mode == 'r') {
        repair_at = 0;
        repair_stream_ =
            stream({.read = read_repair, .write = nullptr, .seek = nullptr, .close = nullptr},
                   &repair_at, mode);
        return repair_stream_;
    }
    if (name == OUTPUT_NAME && *mode == 'w') {
        output_stream_ = stream(
            {.read = nullptr, .write = print, .seek = nullptr, .close = output_closed}, this);
        return output_stream_;
    }
    if ((name == LOG_NAME || name == "/kd/log/zu/zu_tier.log") && *mode == 'a') {
        return stream({.read = nullptr, .write = swallow, .seek = nullptr, .close = nullptr});
    }
    errno = ENOENT;
    return nullptr;
}

void World::close_output()
{
    if (output_stream_ != nullptr) {
        fclose(output_stream_);
    }
}

int World::output_closed(void *cookie)
{
    static_cast<World *>(cookie)->output_stream_ = nullptr;
    return 0;
}

} // namespace tier_fuzz
