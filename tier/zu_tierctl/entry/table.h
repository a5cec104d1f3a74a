#pragma once

#include "zu_tier/format/records.h"
#include "zu_tier/format/v1.h"
#include "zu_tier/format/v2.h"
#include "zu_tier/format/v3.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace tierctl {

/* The tables of a device, in the same words for every layout. */

/* Stores the checksum of a record of `length` bytes in it. */
using Seal = void (*)(uint8_t *record, size_t length);

/* The CRC-32 of all behind its first four bytes, in these. */
void seal_head(uint8_t *record, size_t length);

/* The CRC-32 of all with its own bits zero: bit i is the lowest of the 64-bit word i. */
void seal_words(uint8_t *record, size_t length);

/* A number that a record holds, and where: `at` and `width` (at most 8) in bytes. */
struct Place {
    size_t at;
    size_t width;

    uint64_t get(const uint8_t *record) const;
};

struct Magic {
    Place place;
    uint32_t value;
};

/* What is wrong with a slot, as bits. */
enum Flaw : uint32_t {
    BAD_MAGIC = 1,
    BAD_NUMBER = 2,
    BAD_CHECKSUM = 4,
};

/* The name of the super block's table. */
inline constexpr std::string_view SUPER_TABLE = "super";

/* A table of 4096-byte slots. Each has a record at its start; the super block is a table of one
 * slot, and a block of packed entries is a single record. */
struct Table {
    std::string_view name;
    std::vector<tier_region> regions; /* where it lies; each is numbered on from the one before */
    size_t record_length;
    Seal seal = nullptr;           /* null: a record has no checksum */
    std::optional<Magic> magic{};  /* if a record has one */
    std::optional<Place> number{}; /* the entry's own number, if a record has it */

    uint64_t count() const;

    /* Whether a record fits its slot; a super block may be sealed and say otherwise. Of a table
     * whose records do not fit nothing but the slots is known. */
    bool fits() const { return record_length >= TIER_CHECKSUM_SIZE && record_length <= SIZE_4K; }

    /* Byte offset of the slot of entry `no`, which exists. */
    int64_t slot(uint64_t no) const;

    /* Stores the checksum, if there is one, of the record in `slot`. */
    void seal_slot(uint8_t *slot) const;

    /* The flaws of the slot of entry `no`, as the tool checks them; 0: none. The record fits. */
    uint32_t flaws(uint64_t no, const uint8_t *slot) const;
};

/* The tables, each of them with what only its layout decides. */
Table super_table(size_t record_length, uint32_t magic);
Table brick_table(const tier_region &region, uint32_t magic);
Table inode_table(std::vector<tier_region> regions, uint32_t magic);
Table extent_table(const tier_region &region, size_t record_length);

/* All tables of a device by its super block, in the order of the device. */
std::vector<Table> tables_of(const tier_super_block_v1_t &sb);
std::vector<Table> tables_of(const tier_super_block_v2_t &sb);
std::vector<Table> tables_of(const tier_super_block_v3_t &sb);

/* The one of that name; a usage error that names those that there are when it is none of them. */
const Table &find_table(const std::vector<Table> &tables, std::string_view name);

} // namespace tierctl
