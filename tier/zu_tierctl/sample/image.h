#pragma once

#include "zu_tierctl/device/fd.h"
#include "zu_tierctl/device/new_file.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tierctl {

/* The image of a device being written. A file appears under its name only when it is complete; a
 * block device is written in place. Every failure is an exception. */
class Image {
public:
    /* An image of `size` bytes. With `force` it may replace a file or be written to a block device;
     * to one that holds something of value only with `overwrite` as well. */
    Image(const std::string &path, uint64_t size, bool force, bool overwrite);

    void read(int64_t offset, void *data, size_t length) const;
    void write(int64_t offset, const void *data, size_t length);

    /* Must be called when the image is complete. */
    void commit();

private:
    void create(uint64_t size, Naming naming);
    void open_device(uint64_t size, bool overwrite);
    int fd() const { return file_ ? file_->fd() : device_.get(); }

    std::string path_;
    std::optional<NewFile> file_;
    Fd device_; /* when there is no file */
};

} // namespace tierctl
