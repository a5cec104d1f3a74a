#include "mutation.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t *data, std::size_t size, std::size_t most);

namespace tier_fuzz {

void Mutation::bytes(Bytes &bytes, std::size_t most)
{
    if (most == 0) {
        bytes.clear();
        return;
    }
    const std::size_t size = std::min(bytes.size(), most);
    bytes.resize(most);
    bytes.resize(LLVMFuzzerMutate(bytes.data(), size, most));
}

void Mutation::bytes(std::span<std::uint8_t> bytes)
{
    Bytes mutated(bytes.begin(), bytes.end());
    this->bytes(mutated, bytes.size());
    std::ranges::copy(mutated, bytes.begin());
}

void Mutation::number(std::span<std::uint8_t> bytes)
{
    const std::size_t width = std::size_t{2} << below(3);
    if (bytes.size() >= width) {
        const std::size_t at = below(bytes.size() / width) * width;
        const std::uint64_t value =
            once_in(3) ? get<std::uint64_t>(bytes, at) + below(3) - 1 : interesting();
        put(bytes.subspan(at, width), 0, value);
    }
}

void Mutation::record(std::span<std::uint8_t> bytes)
{
    if (!bytes.empty()) {
        once_in(2) ? number(bytes) : this->bytes(bytes);
    }
}

std::uint64_t Mutation::interesting()
{
    switch (below(4)) {
    case 0:
        return below(16);
    case 1:
        return below(1024);
    default:
        return (std::uint64_t{1} << below(64)) + below(3) - 1;
    }
}

} // namespace tier_fuzz
