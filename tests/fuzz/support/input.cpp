#include "input.h"

namespace tier_fuzz {

namespace {

Bytes take(View &data, std::size_t size)
{
    size = std::min(size, data.size());
    Bytes taken(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(size));
    data = data.subspan(size);
    return taken;
}

} // namespace

Input split(View data, std::size_t head_size, std::size_t parts)
{
    Input input;
    input.head = take(data, head_size);
    input.head.resize(head_size);
    for (std::size_t i = 0; i < parts; i++) {
        const auto size = get<std::uint16_t>(take(data, sizeof(std::uint16_t)), 0);
        input.parts.push_back(take(data, size));
    }
    input.rest = take(data, data.size());
    return input;
}

std::size_t join(const Input &input, std::uint8_t *data, std::size_t room)
{
    Bytes all = input.head;
    for (const Bytes &part : input.parts) {
        const auto size = static_cast<std::uint16_t>(std::min<std::size_t>(part.size(), 0xffff));
        all.resize(all.size() + sizeof(size));
        put(all, all.size() - sizeof(size), size);
        all.insert(all.end(), part.begin(), part.begin() + size);
    }
    all.insert(all.end(), input.rest.begin(), input.rest.end());
    const std::size_t size = std::min(all.size(), room);
    std::memcpy(data, all.data(), size);
    return size;
}

} // namespace tier_fuzz
