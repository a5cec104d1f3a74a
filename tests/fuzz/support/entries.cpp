#include "entries.h"

namespace tier_fuzz {

namespace {

constexpr std::size_t NUMBER_SIZE = 2;

void make_small(Mutation &mutation, int layout, std::span<std::uint8_t> super)
{
    constexpr std::size_t COUNTS[] = {120, 124, 132};                // V1 and V2
    constexpr std::size_t WIDE_COUNTS[] = {136, 160, 184, 208, 224}; // V3; the last is bytes
    if (layout == 3) {
        for (const std::size_t at : WIDE_COUNTS) {
            const std::uint64_t unit = at < 184 ? 1 : at == 224 ? BLOCK : 512;
            const auto count = get<std::uint64_t>(super, at);
            put(super, at, count % (8 * unit) + (count < unit ? unit : 0));
        }
        return;
    }
    for (const std::size_t at : COUNTS) {
        put(super, at, get<std::uint32_t>(super, at) % 8 + 1);
    }
    if (layout == 2) { // with an expansion area, which is never small, or without
        put(super, 140, mutation.once_in(4) ? std::uint32_t{0x53014558} : std::uint32_t{0});
    }
}

} // namespace

View record_of(View entry) { return entry.subspan(std::min(NUMBER_SIZE, entry.size())); }

void put_entries(Device &device, Place place, View super, std::span<const Bytes> entries)
{
    for (const Bytes &entry : entries) {
        const View record = record_of(entry);
        if (!record.empty()) {
            device.put(entry_offset(place, super, get<std::uint16_t>(entry, 0)), record);
        }
    }
}

void mutate_super(Mutation &mutation, int layout, Bytes &super)
{
    super.resize(super_size(layout));
    mutation.record(super);
    if (!mutation.once_in(8)) {
        make_small(mutation, layout, super);
    }
    if (!mutation.once_in(16)) {
        seal_super(layout, super);
    }
}

void mutate_entry(Mutation &mutation, Place place, View super, Bytes &entry)
{
    Bytes block = as_block(record_of(entry));
    const auto no = static_cast<std::uint16_t>(mutation.once_in(4) ? mutation.below(8)
                                                                   : get<std::uint16_t>(entry, 0));
    const std::size_t size = std::max<std::size_t>(record_size(place, super), 4);
    mutation.record(std::span(block).first(size));
    if (!mutation.once_in(8)) {
        seal(place, super, no, block);
    }
    block.resize(size);
    entry.assign(NUMBER_SIZE, 0);
    put(entry, 0, no);
    entry.insert(entry.end(), block.begin(), block.end());
}

} // namespace tier_fuzz
