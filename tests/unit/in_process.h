#pragma once

// The tool's own functions, called inside the test.

#include "device.h"
#include "log.h"
#include "run.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/registry.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace tier_test {

// A device image opened the way the tool opens a device.
class OpenDevice {
public:
    explicit OpenDevice(const Device &device, int flags = O_RDWR | O_DIRECT);
    ~OpenDevice();
    OpenDevice(const OpenDevice &) = delete;
    OpenDevice &operator=(const OpenDevice &) = delete;

    int fd() const { return fd_; }

private:
    int fd_;
};

// A stream into memory.
class MemoryStream {
public:
    MemoryStream();
    ~MemoryStream();
    MemoryStream(const MemoryStream &) = delete;
    MemoryStream &operator=(const MemoryStream &) = delete;

    FILE *get() const { return stream_; }
    std::string text() const;

private:
    char *data_ = nullptr;
    std::size_t size_ = 0;
    FILE *stream_;
};

// What one call gave, printed and logged.
struct Call {
    std::int64_t result = 0;
    std::string out{};
    Log log{};

    bool operator==(const Call &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Call &call);

// Makes the call with standard output and the log captured. Standard error must repeat the ERROR
// lines of the log and nothing else.
Call captured(const std::function<std::int64_t()> &function);

// What run_logged() gives of a program, of a run of the tool within the test.
LoggedRun run_in_process(const Device &device, const std::string &command,
                         const std::vector<std::string> &args);

// Fresh run parameters on a device.
zutr_params_t params_on(const Device &device, const OpenDevice &open);

// The regular expression that matches the text itself.
std::string literally(std::string_view text);

} // namespace tier_test

// The statement ends in a failed assertion about `condition`.
#define EXPECT_ABORT(statement, condition)                                                         \
    EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), tier_test::literally(condition))
