#pragma once

#include "zu_tierctl/tierctl_fd.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <unistd.h>

/* A file that is removed again unless it got another name. */
struct tierctl_scratch_file {
    std::string path;

    tierctl_scratch_file() = default;
    tierctl_scratch_file(const tierctl_scratch_file &) = delete;
    tierctl_scratch_file &operator=(const tierctl_scratch_file &) = delete;
    ~tierctl_scratch_file()
    {
        if (!path.empty()) {
            unlink(path.c_str());
        }
    }
};

/* The image of a device being written. A file appears under its name only when it is complete; a
 * block device is written in place. Every failure is an exception. */
class tierctl_image {
public:
    /* An image of `size` bytes; `force` allows to replace a file or to write to a block device. */
    tierctl_image(const std::string &path, uint64_t size, bool force);

    void read(int64_t offset, void *data, size_t length) const;
    void write(int64_t offset, const void *data, size_t length);

    /* The image is complete. */
    void commit();

private:
    void create_beside(uint64_t size);
    void open_device(uint64_t size);

    std::string path_;
    bool replace_ = false;
    tierctl_scratch_file scratch_; /* unnamed for a block device */
    tierctl_fd fd_;
};
