#include "zu_tierctl/rescue/survey.h"

#include <array>
#include <cstring>

namespace tierctl {

namespace {

size_t index_of(int64_t offset) { return static_cast<size_t>((offset - HEAD_START) / SIZE_4K); }

void read_run(const Device &device, int64_t from, int64_t to, const TakeBlock &take)
{
    const std::array<tier_region, 1> region = {
        {{from, static_cast<uint64_t>(std::max<int64_t>(to - from, 0)) / SIZE_4K}}};
    TableReader reader(device, region);
    Slots slots{};
    while (reader.next(&slots)) {
        for (uint64_t i = 0; i < slots.count; i++) {
            take(slots.offset + static_cast<int64_t>(i * SIZE_4K),
                 slots.data == nullptr ? nullptr : slots.slot(i));
        }
    }
}

} // namespace

BlockReader::BlockReader(const Device &device)
    : device_(device), end_(static_cast<int64_t>(device.size() / SIZE_4K * SIZE_4K))
{
    head_.reserve(index_of(HEAD_END));
    read_run(device, HEAD_START, std::min(HEAD_END, end_), [this](int64_t, const uint8_t *block) {
        Kept &kept = head_.emplace_back(Kept{block != nullptr, {}});
        if (block != nullptr) {
            memcpy(kept.block.data(), block, SIZE_4K);
        }
    });
}

void BlockReader::read(int64_t from, int64_t to, const TakeBlock &take) const
{
    for (; from < std::min({to, end_, HEAD_END}); from += SIZE_4K) {
        const Kept &kept = head_.at(index_of(from));
        take(from, kept.is_read ? kept.block.data() : nullptr);
    }
    read_run(device_, from, std::min(to, end_), take);
}

void Blanks::add(int64_t offset, bool is_blank)
{
    constexpr size_t BLOCKS_MAX = size_t{1} << 24; /* what is after these is never needed */
    const size_t index = index_of(offset);
    if (index < BLOCKS_MAX) {
        states_.resize(std::max(states_.size(), index + 1), UNREAD);
        states_[index] = is_blank ? BLANK : FULL;
    }
}

Blanks::State Blanks::at(int64_t offset) const
{
    const size_t index = index_of(offset);
    return index < states_.size() ? states_[index] : UNREAD;
}

bool Blanks::are_blank(int64_t from, int64_t to) const
{
    while (from < to && at(from) == BLANK) {
        from += SIZE_4K;
    }
    return from >= to;
}

int64_t Blanks::content_end(int64_t from, int64_t to) const
{
    to = std::min(to, HEAD_START + static_cast<int64_t>(states_.size()) * SIZE_4K);
    while (to > from && at(to - SIZE_4K) != FULL) {
        to -= SIZE_4K;
    }
    return std::max(from, to);
}

void LargestTwo::add(uint64_t value)
{
    second = std::max(second, std::min(first, value));
    first = std::max(first, value);
}

void Trace::add(uint64_t no, bool is_firm)
{
    sound++;
    firm += is_firm ? 1 : 0;
    first = std::min(first, no);
    last = std::max(last, no);
}

const tier_table &row_of(const tier_layout &layout, std::string_view name)
{
    return **std::ranges::find(layout.tables, name, &tier_table::name);
}

bool is_sound(const tier_table &row, const uint8_t *block, uint32_t length)
{
    if (row.magic && row.magic.get(block) != row.magic_value) {
        return false;
    }
    alignas(uint64_t) std::array<uint8_t, SIZE_4K> copy;
    memcpy(copy.data(), block, length);
    const uint32_t stored = row.checksum->get(copy.data());
    return stored == row.crc(copy.data(), length);
}

uint64_t count_head(const BlockReader &blocks, const tier_layout &layout)
{
    const Block nothing{}; /* the length of no record with a magic depends on the super block */
    uint64_t count = 0;
    for (const tier_table *row : layout.tables.subspan(1)) {
        if (!row->magic) {
            continue;
        }
        const auto length =
            static_cast<uint32_t>(std::min<uint64_t>(row->record_length(nothing.data()), SIZE_4K));
        blocks.read(HEAD_START, HEAD_END, [&](int64_t, const uint8_t *block) {
            count += block != nullptr && is_sound(*row, block, length) ? 1 : 0;
        });
    }
    return count;
}

} // namespace tierctl
