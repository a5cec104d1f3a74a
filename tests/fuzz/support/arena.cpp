#include "arena.h"

#include <new>
#include <sanitizer/asan_interface.h>

namespace tier_fuzz {

namespace {

constexpr std::size_t SIZE = 1U << 20;
constexpr std::align_val_t ALIGNMENT{4096};

} // namespace

Arena::Arena() : memory_(operator new(SIZE, ALIGNMENT)) { release(); }

bool Arena::take(void **memory, std::size_t size)
{
    if (in_use_ || size != SIZE) {
        return false;
    }
    in_use_ = true;
    __asan_unpoison_memory_region(memory_, SIZE);
    *memory = memory_;
    return true;
}

bool Arena::give_back(void *memory)
{
    if (memory == nullptr || memory != memory_) {
        return false;
    }
    in_use_ = false;
    __asan_poison_memory_region(memory_, SIZE);
    return true;
}

void Arena::release() { give_back(memory_); }

} // namespace tier_fuzz
