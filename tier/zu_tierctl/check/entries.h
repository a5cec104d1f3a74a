#pragma once

#include "zu_tier/format/v1.h"
#include "zu_tier/format/v2.h"
#include "zu_tier/format/v3.h"
#include "zu_tierctl/check/report.h"
#include "zu_tierctl/check/states.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

namespace tierctl {

/* The entries of each table as a check sees them, by a class a table:
 *
 *   LENGTH_MIN         bytes of a record that are needed to tell
 *   FIRST, BEHIND      words of a slot that are entries; a slot with one entry has word 0 only
 *   NAMED              whether entries of other tables name them
 *   in_use             whether the entry holds something; only then is the rest asked for
 *   OWNER, owner       the entry of another table that it names
 *   claim, claim_text  what no other entry of the table may hold, too
 *   check              what is wrong with the entry for itself
 */

/* What is found when an entry names one of another table. */
struct Owner {
    const char *table;
    Kind free;
    Kind missing;
    Kind unknown; /* it is damaged or unreadable */
    Kind head{};
    Kind closed{};
};

/* An identity of 16 bytes, as a key. */
using Identity = std::array<uint64_t, 2>;

/* Tells of something wrong with an entry. */
using Tell = std::function<void(const Kind &kind, const std::string &text)>;

template <class Record>
Record load_record(const uint8_t *slot)
{
    Record record;
    memcpy(&record, slot, sizeof(record));
    return record;
}

template <size_t LengthMin>
struct SlotEntries {
    static constexpr size_t LENGTH_MIN = LengthMin;
    static constexpr uint32_t FIRST = 0;
    static constexpr uint32_t BEHIND = 1;
};

struct BrickEntries : SlotEntries<TIER_CHECKSUM_SIZE> {
    static constexpr bool NAMED = true;

    static bool in_use(const uint8_t *slot, uint32_t)
    {
        return load_record<tier_brick_info_t>(slot).bi_use != 0;
    }
    static Identity claim(const uint8_t *slot, uint32_t)
    {
        return load_record<Identity>(slot + offsetof(tier_brick_info_t, bi_uuid));
    }
    static std::string claim_text(const uint8_t *slot, uint32_t);
    static void check(const uint8_t *slot, const Tell &tell);
};

struct InodeEntries : SlotEntries<TIER_CHECKSUM_SIZE> {
    static constexpr bool NAMED = true;
    static constexpr Owner OWNER = {.table = "brick",
                                    .free = {"inode_of_free_brick"},
                                    .missing = {"inode_of_missing_brick"},
                                    .unknown = {"inode_of_unknown_brick", Severity::warning}};

    static bool in_use(const uint8_t *slot, uint32_t)
    {
        return load_record<tier_inode_t>(slot).i_use != 0;
    }
    static uint64_t owner(const uint8_t *slot, uint32_t)
    {
        return load_record<tier_inode_t>(slot).i_brick_no;
    }
    static Identity claim(const uint8_t *slot, uint32_t)
    {
        return load_record<Identity>(slot + offsetof(tier_inode_t, i_uuid));
    }
    static std::string claim_text(const uint8_t *slot, uint32_t);
};

/* Of V1, and what V2 has alike. */
struct ExtentEntries : SlotEntries<sizeof(tier_extent_t)> {
    static constexpr bool NAMED = false;
    static constexpr Owner OWNER = {.table = "inode",
                                    .free = {"extent_of_free_inode"},
                                    .missing = {"extent_of_missing_inode"},
                                    .unknown = {"extent_of_unknown_inode", Severity::warning},
                                    .closed = {"extent_of_unused_expansion"}};

    static bool in_use(const uint8_t *slot, uint32_t)
    {
        return load_record<tier_extent_t>(slot).te_use != 0;
    }
    static uint64_t owner(const uint8_t *slot, uint32_t)
    {
        return load_record<tier_extent_t>(slot).te_inode_no;
    }
    static uint64_t claim(const uint8_t *slot, uint32_t)
    {
        const auto extent = load_record<tier_extent_t>(slot);
        return uint64_t{extent.te_inode_no} << 32 | extent.te_block;
    }
    static std::string claim_text(const uint8_t *slot, uint32_t);
};

class ExtentEntriesV2 : public ExtentEntries {
public:
    explicit ExtentEntriesV2(const tier_super_block_v2_t &super);

    /* The mapped pieces. */
    void check(const uint8_t *slot, const Tell &tell) const;

private:
    uint32_t pieces_; /* 0 when their place is not known */
    uint32_t pieces_at_;
    uint32_t block_size_;
};

struct PackedEntries {
    static constexpr size_t LENGTH_MIN = SIZE_4K;
    static constexpr uint32_t BEHIND = TIER_PACKED_SLOTS_V3;

    static uint64_t word(const uint8_t *slot, uint32_t k)
    {
        return load_record<uint64_t>(slot + size_t{k} * TIER_PACKED_SIZE_V3);
    }
};

struct ShardEntries : PackedEntries {
    static constexpr uint32_t FIRST = 1;
    static constexpr bool NAMED = true;
    static constexpr Owner OWNER = {.table = "inode",
                                    .free = {"shard_of_free_inode"},
                                    .missing = {"shard_of_missing_inode"},
                                    .unknown = {"shard_of_unknown_inode", Severity::warning}};

    static bool in_use(const uint8_t *slot, uint32_t k)
    {
        return (word(slot, k) & SHARD_IN_USE_V3.mask()) != 0;
    }
    static uint64_t owner(const uint8_t *slot, uint32_t k)
    {
        return SHARD_INO_V3.get(word(slot, k));
    }
    static uint64_t claim(const uint8_t *slot, uint32_t k)
    {
        return word(slot, k) & (SHARD_INO_V3.mask() | SHARD_INDEX_V3.mask());
    }
    static std::string claim_text(const uint8_t *slot, uint32_t k);
};

struct ExtentEntriesV3 : PackedEntries {
    static constexpr uint32_t FIRST = 0;
    static constexpr bool NAMED = false;
    static constexpr Owner OWNER = {.table = "shard",
                                    .free = {"extent_of_free_shard"},
                                    .missing = {"extent_of_missing_shard"},
                                    .unknown = {"extent_of_unknown_shard", Severity::warning},
                                    .head = {"extent_of_shard_head"}};

    static bool in_use(const uint8_t *slot, uint32_t k)
    {
        return (word(slot, k) & EXTENT_IN_USE_V3.mask()) != 0;
    }
    static uint64_t owner(const uint8_t *slot, uint32_t k)
    {
        return EXTENT_SHARD_V3.get(word(slot, k));
    }
    static uint64_t claim(const uint8_t *slot, uint32_t k)
    {
        return word(slot, k) & (EXTENT_SHARD_V3.mask() | EXTENT_LBA_V3.mask());
    }
    static std::string claim_text(const uint8_t *slot, uint32_t k);
};

/* Blocks whose content nobody knows. */
struct HotEntries : SlotEntries<TIER_CHECKSUM_SIZE> {
    static constexpr bool NAMED = false;

    static bool in_use(const uint8_t *, uint32_t) { return true; }
};

} // namespace tierctl
