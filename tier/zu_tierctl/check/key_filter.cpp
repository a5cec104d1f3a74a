#include "zu_tierctl/check/key_filter.h"

#include <limits>
#include <new>
#include <sys/mman.h>

namespace tierctl {

namespace {

/* Pages of zeros. Large ones, where the kernel has them: hardly two accesses are to the same small
 * page, and looking up where it lies would take a third of the time. */
uint64_t *map_words(size_t words)
{
    constexpr size_t WORDS_MAX = std::numeric_limits<size_t>::max() / sizeof(uint64_t);
    void *memory = words > WORDS_MAX
                       ? MAP_FAILED
                       : mmap(nullptr, words * sizeof(uint64_t), PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    madvise(memory, words * sizeof(uint64_t), MADV_HUGEPAGE);
    return static_cast<uint64_t *>(memory);
}

} // namespace

KeyFilter::KeyFilter(size_t words)
    : count_(words), words_(map_words(words), Unmap{words * sizeof(uint64_t)})
{
}

void KeyFilter::Unmap::operator()(uint64_t *words) const { munmap(words, bytes); }

} // namespace tierctl
