#include "temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdlib.h>
#include <system_error>
#include <vector>

namespace tier_test {

TempDir::TempDir()
{
    const char *chosen = std::getenv("ZU_TIER_TEST_DIR");
    const std::filesystem::path base =
        chosen != nullptr ? std::filesystem::path(chosen) : std::filesystem::temp_directory_path();
    std::string name = (base / "zu_tier_test.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), name);
    root_ = name;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    if (!root_.empty())
        std::filesystem::remove_all(root_, ignored);
}

TempDir::TempDir(TempDir &&other) noexcept : root_(std::move(other.root_)) { other.root_.clear(); }

std::string TempDir::write(std::string_view name, std::string_view content) const
{
    std::ofstream file(root_ / name, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file.flush())
        throw std::system_error(EIO, std::generic_category(), path(name));
    return path(name);
}

std::string TempDir::read(std::string_view name) const { return read_file(path(name)); }

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::system_error(errno, std::generic_category(), path);
    std::string content;
    std::vector<char> piece(std::size_t{1} << 20); // by the byte an image takes long
    while (file.read(piece.data(), static_cast<std::streamsize>(piece.size())) ||
           file.gcount() != 0)
        content.append(piece.data(), static_cast<std::size_t>(file.gcount()));
    return content;
}

} // namespace tier_test
