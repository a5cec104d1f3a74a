#pragma once

#include <unistd.h>
#include <utility>

/* Owner of an open descriptor. */
class tierctl_fd {
public:
    tierctl_fd() = default;
    explicit tierctl_fd(int fd) : fd_(fd) {}
    tierctl_fd(tierctl_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    tierctl_fd &operator=(tierctl_fd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~tierctl_fd()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    int get() const { return fd_; }

private:
    int fd_ = -1;
};
