#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tier_test {

// A fresh directory, removed with everything in it. It lies on the disk named by ZU_TIER_TEST_DIR,
// or else in the system's place for temporary files; device images need a disk with direct I/O.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(TempDir &&other) noexcept;
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    TempDir &operator=(TempDir &&) = delete;

    std::string path(std::string_view name) const { return (root_ / name).string(); }

    // Creates or replaces the file and returns its path.
    std::string write(std::string_view name, std::string_view content) const;
    std::string read(std::string_view name) const;

private:
    std::filesystem::path root_;
};

std::string read_file(const std::string &path);

} // namespace tier_test
