#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace tierctl {

/* Random numbers. A seed gives the same ones on every machine: the language standard fixes what the
 * engine gives, but not what the distributions of the library make of it. */
class Random {
public:
    explicit Random(uint64_t seed) : engine_(seed) {}

    /* 0..bound - 1 */
    uint64_t below(uint64_t bound) { return engine_() % bound; }

    /* low..high - 1 */
    uint64_t between(uint64_t low, uint64_t high) { return low + below(high - low); }

    /* True once in `n` times. */
    bool one_in(uint64_t n) { return below(n) == 0; }

    /* Whether entry `no` of a table of `count` is in use: the first always is, the last never
     * unless it is also the first, and of the others three in four are. */
    bool in_use(uint64_t no, uint64_t count);

    /* Writes a UUID of version 4 to the 16 bytes at `uuid`. */
    void uuid(uint8_t *uuid);

    /* An identity of a volume: letters and digits in groups, as long as the tool requires. */
    std::string volume_id();

private:
    std::mt19937_64 engine_;
};

} // namespace tierctl
