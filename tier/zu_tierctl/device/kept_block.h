#pragma once

#include <string>

namespace tierctl {

/* A block of 4096 bytes without the zeros at its end, which most blocks have: for those of which
 * many are kept. */
class KeptBlock {
public:
    KeptBlock() = default; /* all zero */
    explicit KeptBlock(const void *block);

    /* Fills 4096 bytes. */
    void get(void *block) const;

    bool operator==(const KeptBlock &) const = default;

private:
    std::string bytes_;
};

} // namespace tierctl
