#pragma once

#include "zu_tierctl/device/fd.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tierctl {

/* The directory into which a salvage writes. Every file is reached from it component by component:
 * no link is followed, whatever somebody has put there. */
class Target {
public:
    /* Throws when there is something at `path` other than an empty directory, or with `resume` any
     * directory, and when that lies on the device, or the device in it. Nothing is created. */
    Target(std::string path, bool resume, const std::string &device);

    const std::string &path() const { return path_; }
    bool is_new() const { return directory_.get() < 0; }

    /* Whether a new or empty directory is all there is. */
    bool is_empty() const;

    /* Whether the directory, which is there, has that name in it. */
    bool has(const char *name) const;

    /* Bytes that can still be written there. */
    uint64_t room() const;

    /* Makes the directory, unless it is there. To be called before the rest. */
    void create();

    /* Opens a regular file, or makes an empty one and the directories above it. */
    Fd open_file(std::string_view file) const;

    /* The same, where the file is also read, and empty or not there when `is_new`. */
    Fd open_manifest(const char *name) const;

    /* Waits until all that was written is on the disk. */
    void sync() const;

    /* Throws "cannot <what> <path>/<file>: <text of errno>". */
    [[noreturn]] void fail(const char *what, std::string_view file) const;

private:
    Fd open_regular(int directory, const char *name, int flags, std::string_view file) const;
    void refuse_device(const std::string &device) const;

    std::string path_;
    std::string existing_; /* it, or where it will be made */
    Fd directory_;         /* none before it is made */
};

} // namespace tierctl
