#include "zu_tierctl/sql/slot_cache.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace tierctl {

namespace {

/* So many slots are read by themselves: a question about a few needs no more. */
constexpr uint64_t SINGLE_READS = 8;

/* Slots of a run, 256 KiB. */
constexpr uint64_t RUN = 64;

/* Tables of a device of which a query asks for single slots. */
constexpr size_t TABLES = 2;

} // namespace

SlotCache::SlotCache(const Device &device, const Table &table, size_t memory)
    : device_(device),
      kept_size_(table.row->parts == nullptr && table.fits() ? table.record_length : SIZE_4K),
      capacity_(std::clamp<uint64_t>(memory / (kept_size_ + sizeof(Place)), RUN,
                                     std::max(RUN, table.count())))
{
    if (zutr_alloc_aligned(RUN * SIZE_4K, &buffer_) != 0) {
        throw std::bad_alloc();
    }
}

bool SlotCache::read(const tier_region &region, uint64_t first, uint64_t no, uint8_t *to)
{
    const size_t at = no % capacity_;
    if (at >= places_.size() || places_[at].no != no || places_[at].kept == Kept::nothing) {
        read_run(region, first, no);
    }
    if (places_[at].kept == Kept::unreadable) {
        return false;
    }
    memcpy(to, &bytes_[at * kept_size_], kept_size_);
    return true;
}

void SlotCache::keep(uint64_t no, const uint8_t *slot)
{
    const size_t at = no % capacity_;
    if (at >= places_.size()) {
        places_.resize(at + 1);
        bytes_.resize((at + 1) * kept_size_);
    }
    places_[at] = {no, slot != nullptr ? Kept::bytes : Kept::unreadable};
    if (slot != nullptr) {
        memcpy(&bytes_[at * kept_size_], slot, kept_size_);
    }
}

void SlotCache::read_run(const tier_region &region, uint64_t first, uint64_t no)
{
    const uint64_t present = slots_on_device(region, device_.size());
    const uint64_t run = ++misses_ > SINGLE_READS ? RUN : 1;
    const uint64_t begin = (no - first) / run * run;
    const uint64_t count = std::min(run, present - begin);
    if (count > 1 && device_.read(region.slot(begin), buffer_.get(), count * SIZE_4K)) {
        for (uint64_t i = 0; i < count; i++) {
            keep(first + begin + i, buffer_.get() + i * SIZE_4K);
        }
        return;
    }
    const bool is_read = device_.read(region.slot(no - first), buffer_.get(), SIZE_4K);
    keep(no, is_read ? buffer_.get() : nullptr);
}

SlotCache &SlotCaches::of(const Device &device, const Table &table)
{
    return caches_.try_emplace(&table, device, table, MEMORY / TABLES / devices_).first->second;
}

} // namespace tierctl
