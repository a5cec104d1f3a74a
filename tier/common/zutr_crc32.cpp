#include "common/zutr_crc32.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#ifdef __x86_64__
#include <immintrin.h>
#endif
/* clang declares the functions of the instruction only for a program that needs it everywhere. */
#if defined(__aarch64__) && (!defined(__clang__) || defined(__ARM_FEATURE_CRC32))
#define ZUTR_CRC32_INSTRUCTION
#include <arm_acle.h>
#include <sys/auxv.h>
#endif

namespace {

constexpr uint32_t POLYNOMIAL = 0xEDB88320;
constexpr size_t SLICES = 16;

using crc_table = std::array<uint32_t, 256>;

/* TABLES[0] takes one byte; TABLES[n] takes one byte followed by n zero bytes. */
constexpr std::array<crc_table, SLICES> TABLES = [] {
    std::array<crc_table, SLICES> tables{};
    for (uint32_t byte = 0; byte < 256; byte++) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc >> 1) ^ ((crc & 1U) != 0 ? POLYNOMIAL : 0U);
        }
        tables[0][byte] = crc;
    }
    for (size_t n = 1; n < SLICES; n++) {
        for (uint32_t byte = 0; byte < 256; byte++) {
            const uint32_t crc = tables[n - 1][byte];
            tables[n][byte] = (crc >> 8) ^ tables[0][crc & 0xFF];
        }
    }
    return tables;
}();
static_assert(TABLES[0][1] == 0x77073096 && TABLES[0][2] == 0xEE0E612C);

uint32_t update_by_table(uint32_t state, const uint8_t *data, size_t len)
{
    for (size_t i = 0; i < len; i++) {
        state = TABLES[0][(data[i] ^ state) & 0xFF] ^ (state >> 8);
    }
    return state;
}

/* Sixteen bytes a step (M. Kounavis, F. Berry: A Systematic Approach to Building High Performance
 * Software-Based CRC Generators, 2005). */
uint32_t update_by_slices(uint32_t state, const uint8_t *data, size_t len)
{
    for (; len >= SLICES; len -= SLICES, data += SLICES) {
        std::array<uint8_t, SLICES> bytes;
        memcpy(bytes.data(), data, SLICES);
        uint32_t next = 0;
        for (size_t i = 0; i < SLICES; i++) {
            const uint32_t before = i < sizeof(state) ? state >> (8 * i) & 0xFF : 0;
            next ^= TABLES[SLICES - 1 - i][bytes[i] ^ before];
        }
        state = next;
    }
    return update_by_table(state, data, len);
}

bool always() { return true; }

#ifdef __x86_64__

/* Carry-less multiplication (V. Gopal et al.: Fast CRC Computation for Generic Polynomials Using
 * PCLMULQDQ Instruction, 2009). A block of 128 bits is moved n bits towards the end of the data by
 * multiplying its halves with x^(n + 32) and x^(n - 32) modulo the polynomial. */

constexpr uint32_t reflect(uint32_t value)
{
    uint32_t reflected = 0;
    for (int bit = 0; bit < 32; bit++) {
        reflected |= (value >> bit & 1U) << (31 - bit);
    }
    return reflected;
}

/* x^n modulo the polynomial, reflected as a factor of reflected halves. */
constexpr int64_t power(uint32_t n)
{
    uint32_t value = 1;
    for (uint32_t i = 0; i < n; i++) {
        value = (value << 1) ^ (value >> 31 != 0 ? reflect(POLYNOMIAL) : 0U);
    }
    return int64_t{reflect(value)} << 1;
}

using block = __m128i;
constexpr size_t BLOCK = sizeof(block);
constexpr size_t LANES = 4; /* multiplications that the processor runs at once */

[[gnu::target("pclmul,sse2")]] block load(const uint8_t *data)
{
    return _mm_loadu_si128(reinterpret_cast<const block *>(data));
}

[[gnu::target("pclmul,sse2")]] block fold(block from, block factors, block onto)
{
    const block low = _mm_clmulepi64_si128(from, factors, 0x00);
    const block high = _mm_clmulepi64_si128(from, factors, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), onto);
}

[[gnu::target("pclmul,sse2")]] uint32_t update_by_multiplication(uint32_t state,
                                                                 const uint8_t *data, size_t len)
{
    if (len < BLOCK) {
        return update_by_table(state, data, len);
    }
    const block one = _mm_set_epi64x(power(BLOCK * 8 - 32), power(BLOCK * 8 + 32));
    block sum = _mm_xor_si128(load(data), _mm_cvtsi32_si128(static_cast<int32_t>(state)));
    data += BLOCK;
    len -= BLOCK;
    if (len >= LANES * BLOCK) {
        const block all =
            _mm_set_epi64x(power(LANES * BLOCK * 8 - 32), power(LANES * BLOCK * 8 + 32));
        block second = load(data);
        block third = load(data + BLOCK);
        block fourth = load(data + 2 * BLOCK);
        data += 3 * BLOCK;
        len -= 3 * BLOCK;
        for (; len >= LANES * BLOCK; len -= LANES * BLOCK, data += LANES * BLOCK) {
            sum = fold(sum, all, load(data));
            second = fold(second, all, load(data + BLOCK));
            third = fold(third, all, load(data + 2 * BLOCK));
            fourth = fold(fourth, all, load(data + 3 * BLOCK));
        }
        sum = fold(fold(fold(sum, one, second), one, third), one, fourth);
    }
    for (; len >= BLOCK; len -= BLOCK, data += BLOCK) {
        sum = fold(sum, one, load(data));
    }
    std::array<uint8_t, BLOCK> rest;
    _mm_storeu_si128(reinterpret_cast<block *>(rest.data()), sum);
    return update_by_table(update_by_slices(0, rest.data(), BLOCK), data, len);
}

bool can_multiply() { return static_cast<bool>(__builtin_cpu_supports("pclmul")); }

#endif

#ifdef ZUTR_CRC32_INSTRUCTION

/* The processor's instruction has this polynomial, and takes eight bytes. */
[[gnu::target("+crc")]] uint32_t update_by_instruction(uint32_t state, const uint8_t *data,
                                                       size_t len)
{
    uint64_t word = 0;
    for (; len >= sizeof(word); len -= sizeof(word), data += sizeof(word)) {
        memcpy(&word, data, sizeof(word));
        state = __crc32d(state, word);
    }
    for (; len > 0; len--, data++) {
        state = __crc32b(state, *data);
    }
    return state;
}

bool has_instruction() { return (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0; }

#endif

constexpr zutr_crc32_way WAYS[] = {
#ifdef __x86_64__
    {"multiplication", can_multiply, update_by_multiplication},
#endif
#ifdef ZUTR_CRC32_INSTRUCTION
    {"instruction", has_instruction, update_by_instruction},
#endif
    {"slices", always, update_by_slices},
    {"table", always, update_by_table},
};

/* Long enough for every loop of every way, with an end that fills no block. */
constexpr size_t PROBE_LENGTH = 300;

bool answers_right(const zutr_crc32_way &way)
{
    constexpr uint8_t CHECK[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    std::array<uint8_t, PROBE_LENGTH> probe;
    for (size_t i = 0; i < probe.size(); i++) {
        probe[i] = static_cast<uint8_t>(i * 167 + i / 7);
    }
    return ~way.update(UINT32_MAX, CHECK, sizeof(CHECK)) == 0xCBF43926 &&
           way.update(UINT32_MAX, probe.data(), probe.size()) ==
               update_by_table(UINT32_MAX, probe.data(), probe.size());
}

} // namespace

const std::span<const zutr_crc32_way> ZUTR_CRC32_WAYS = WAYS;

const zutr_crc32_way &zutr_crc32_choose(std::span<const zutr_crc32_way> ways)
{
    const auto usable = [](const zutr_crc32_way &way) {
        return way.available() && answers_right(way);
    };
    const auto found = std::ranges::find_if(ways, usable);
    return found != ways.end() ? *found : ways.back();
}

uint32_t zutr_crc32(const void *data, size_t len) { return zutr_crc32_append(0, data, len); }

uint32_t zutr_crc32_append(uint32_t crc, const void *data, size_t len)
{
    static const auto &way = zutr_crc32_choose(WAYS); /* GCOVR_EXCL_BR_LINE: no other thread */
    return ~way.update(~crc, static_cast<const uint8_t *>(data), len);
}
