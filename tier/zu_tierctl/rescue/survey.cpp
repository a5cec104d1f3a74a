#include "zu_tierctl/rescue/survey.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace tierctl {

namespace {

/* A place that fewer entries name is a guess, and one that so many times as many name as the next
 * is certain. */
constexpr uint64_t PLACE_MIN = 2;
constexpr uint64_t CERTAIN_TIMES = 4;

constexpr uint64_t MANY_STRANGERS = 4;

} // namespace

void BlockStates::set(int64_t offset, BlockState state)
{
    const auto index = static_cast<size_t>((offset - start_) / SIZE_4K);
    if (index >= states_.size()) {
        states_.resize(index + 1, BlockState::unread);
    }
    states_[index] = state;
}

BlockState BlockStates::at(int64_t offset) const
{
    return offset < start_ || offset >= end()
               ? BlockState::unread
               : states_[static_cast<size_t>((offset - start_) / SIZE_4K)];
}

uint64_t BlockStates::count(int64_t from, int64_t to, BlockState state) const
{
    uint64_t count = 0;
    for (int64_t offset = std::max(from, start_); offset < std::min(to, end()); offset += SIZE_4K) {
        count += at(offset) == state ? 1 : 0;
    }
    return count;
}

bool BlockStates::are_zero(int64_t from, int64_t to) const
{
    return to <= from ||
           (from >= start_ && to <= end() &&
            count(from, to, BlockState::zero) == static_cast<uint64_t>(to - from) / SIZE_4K);
}

void read_blocks(const Device &device, int64_t offset, uint64_t count,
                 const std::function<bool(int64_t offset, const uint8_t *block)> &take)
{
    const auto end = static_cast<int64_t>(device.size() / SIZE_4K * SIZE_4K);
    if (offset >= end) {
        return;
    }
    const std::array<tier_region, 1> region = {
        {{offset, std::min(count, static_cast<uint64_t>(end - offset) / SIZE_4K)}}};
    TableReader reader(device, region);
    Slots slots{};
    while (reader.next(&slots)) {
        for (uint64_t i = 0; i < slots.count; i++) {
            const int64_t at = slots.offset + static_cast<int64_t>(i * SIZE_4K);
            if (!take(at, slots.data == nullptr ? nullptr : slots.slot(i))) {
                return;
            }
        }
    }
}

void Trace::add(uint64_t no)
{
    sound++;
    last = std::max(last, no);
    add_known(no);
}

void Trace::add_known(uint64_t no) { known = std::max(known, no); }

BestTrace best_trace(const Traces &traces)
{
    BestTrace found;
    for (const auto &trace : traces) {
        if (trace.second.sound == 0) {
            continue;
        }
        if (found.best == nullptr || trace.second.sound > found.best->second.sound) {
            found.next = found.best;
            found.best = &trace;
        } else if (found.next == nullptr || trace.second.sound > found.next->second.sound) {
            found.next = &trace;
        }
    }
    if (found.best != nullptr) {
        found.certainty = place_certainty(found.best->second.sound,
                                          found.next == nullptr ? 0 : found.next->second.sound);
    }
    return found;
}

Certainty place_certainty(uint64_t most, uint64_t next)
{
    if (most < PLACE_MIN || most == next) {
        return Certainty::none;
    }
    return most > CERTAIN_TIMES * next ? Certainty::certain : Certainty::likely;
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

Strangers::Strangers(const tier_layout &own)
{
    const std::array<uint8_t, SIZE_4K> nothing{}; /* of no record the length depends on it */
    const auto is_own = [&own](uint32_t magic) {
        return std::ranges::find(own.tables, magic, &tier_table::magic_value) != own.tables.end();
    };
    for (const tier_layout *layout : tier_layouts()) {
        for (const tier_table *row : layout->tables.subspan(1)) {
            const uint64_t length = row->magic ? row->record_length(nothing.data()) : 0;
            if (length > TIER_CHECKSUM_SIZE && length <= SIZE_4K && !is_own(row->magic_value)) {
                kinds_.push_back({row, static_cast<uint32_t>(length)});
            }
        }
    }
}

void Strangers::look(const uint8_t *block)
{
    const bool found = std::ranges::any_of(
        kinds_, [block](const Kind &kind) { return is_sound(*kind.row, block, kind.length); });
    found_ += found ? 1 : 0;
}

bool Strangers::are_many() const { return found_ >= MANY_STRANGERS; }

} // namespace tierctl
