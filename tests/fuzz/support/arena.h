#pragma once

#include <cstddef>

namespace tier_fuzz {

// One large piece of aligned memory that is handed out again and again: from the system it would
// cost more than the rest of a run. Under the address sanitizer like any other memory.
class Arena {
public:
    Arena();
    Arena(const Arena &) = delete;
    Arena &operator=(const Arena &) = delete;

    // Whether it could serve.
    bool take(void **memory, std::size_t size);
    // Whether the memory was its own.
    bool give_back(void *memory);

    bool in_use() const { return in_use_; }
    void release();

private:
    void *memory_;
    bool in_use_ = false;
};

} // namespace tier_fuzz
