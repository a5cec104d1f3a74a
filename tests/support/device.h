#pragma once

#include "bytes.h"
#include "temp_dir.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tier_test {

// A device image: a sparse file in its own fresh directory, where a test also keeps the repair
// files, logs and outputs that go with it.
class Device {
public:
    explicit Device(std::uint64_t size);

    std::string path() const { return directory_.path("device"); }
    const TempDir &directory() const { return directory_; }
    std::uint64_t size() const;

    void write(std::uint64_t offset, ConstByteSpan bytes);
    void truncate(std::uint64_t size);

    // All of it; reading past the end of the image throws.
    Block block(std::uint64_t offset) const;
    std::vector<std::uint8_t> bytes() const;

private:
    std::vector<std::uint8_t> read(std::uint64_t offset, std::uint64_t length) const;

    TempDir directory_;
};

} // namespace tier_test
