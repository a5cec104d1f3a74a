#include "device.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace tier_test {

Device::Device(std::uint64_t size)
{
    directory_.write("device", "");
    truncate(size);
}

std::uint64_t Device::size() const { return std::filesystem::file_size(path()); }

void Device::write(std::uint64_t offset, ConstByteSpan bytes)
{
    std::fstream file(path(), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush())
        throw std::system_error(EIO, std::generic_category(), path());
}

void Device::truncate(std::uint64_t size) { std::filesystem::resize_file(path(), size); }

Block Device::block(std::uint64_t offset) const
{
    const std::vector<std::uint8_t> content = read(offset, BLOCK_SIZE);
    Block result;
    std::ranges::copy(content, result.begin());
    return result;
}

std::vector<std::uint8_t> Device::bytes() const { return read(0, size()); }

std::vector<std::uint8_t> Device::read(std::uint64_t offset, std::uint64_t length) const
{
    std::vector<std::uint8_t> content(length);
    std::ifstream file(path(), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(reinterpret_cast<char *>(content.data()), static_cast<std::streamsize>(length));
    if (!file)
        throw std::system_error(EIO, std::generic_category(), path());
    return content;
}

} // namespace tier_test
