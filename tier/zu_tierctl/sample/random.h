#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace tierctl {

/* Random numbers that a seed repeats on every machine: the engine's output is fixed by the language
 * standard, that of the library's distributions is not. */
class Random {
public:
    explicit Random(uint64_t seed) : engine_(seed) {}

    /* 0..bound - 1 */
    uint64_t below(uint64_t bound) { return engine_() % bound; }

    /* low..high - 1 */
    uint64_t between(uint64_t low, uint64_t high) { return low + below(high - low); }

    /* True once in `n` times. */
    bool one_in(uint64_t n) { return below(n) == 0; }

    /* Whether entry `no` of a table of `count` holds something: three in four do. The first always
     * does; the last, unless it is also the first, never does. */
    bool in_use(uint64_t no, uint64_t count);

    /* A version 4 UUID into the 16 bytes at `uuid`. */
    void uuid(uint8_t *uuid);

    /* An identity of a volume: letters and digits in groups, of the length that the tool asks for.
     */
    std::string volume_id();

private:
    std::mt19937_64 engine_;
};

} // namespace tierctl
