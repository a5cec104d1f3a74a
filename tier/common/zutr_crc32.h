#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/* CRC-32 of IEEE 802.3: reflected polynomial 0xEDB88320, initial value and final inversion
 * 0xFFFFFFFF. */

/* Over `len` bytes; 0 for an empty range. */
uint32_t zutr_crc32(const void *data, size_t len);

/* Of a text of which `crc` is the CRC of all that comes before these bytes. */
uint32_t zutr_crc32_append(uint32_t crc, const void *data, size_t len);

/* A way to compute it: takes the state, which is the inverted CRC of what came before, over `len`
 * more bytes. All ways give the same. */
struct zutr_crc32_way {
    const char *name;
    bool (*available)(); /* on this processor */
    uint32_t (*update)(uint32_t state, const uint8_t *data, size_t len);
};

/* Every way, the fastest first; the last, a table of 256 entries, is the reference. */
extern const std::span<const zutr_crc32_way> ZUTR_CRC32_WAYS;

/* The first of `ways` that is available and computes known answers right, else the last. */
const zutr_crc32_way &zutr_crc32_choose(std::span<const zutr_crc32_way> ways);
