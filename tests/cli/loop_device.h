#pragma once

#include <memory>
#include <string>

namespace tier_test {

// A block device over an image file, for as long as the object lives.
class LoopDevice {
public:
    // Null where this machine has no loop devices for the tests.
    static std::unique_ptr<LoopDevice> attach(const std::string &image);

    ~LoopDevice();
    LoopDevice(const LoopDevice &) = delete;
    LoopDevice &operator=(const LoopDevice &) = delete;

    const std::string &path() const { return path_; }

    // From now on, or for writing again. The kernel keeps it for the next image.
    bool set_read_only(bool is_read_only) const;

private:
    LoopDevice(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}

    std::string path_;
    int fd_; // the kernel detaches the image when the last descriptor is closed
};

} // namespace tier_test
