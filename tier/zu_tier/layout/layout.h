#pragma once

#include "zu_tier/driver/dump.h"
#include "zu_tier/driver/repair.h"
#include "zu_tier/format/number.h"
#include "zu_tier/format/records.h"
#include "zu_tier/layout/registry.h"
#include "zu_tier/record/columns.h"
#include "zu_tier/record/json.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct tier_restore; /* layout/restore.h */

/* What a layout is: a constant that says everything that is asked of it. `sb` is always the super
 * block of the layout, at least as many bytes as its record has; `slot` the 4096 bytes of a slot.
 */

/* Where a checksum is stored in a record. */
struct tier_checksum_place {
    uint32_t (*get)(const void *record);
    void (*put)(void *record, uint32_t crc);
};

/* The first four bytes of a record. */
extern const tier_checksum_place TIER_HEAD_CHECKSUM;

/* The findings of a check. */

enum class tier_severity {
    error,   /* breaks a rule of the layout */
    warning, /* breaks none, but is unusual, or could not be checked */
};

struct tier_kind {
    std::string_view name;
    tier_severity severity = tier_severity::error;
};

/* Takes findings, each with a sentence for the operator. */
class tier_findings {
public:
    virtual ~tier_findings() = default;
    [[gnu::format(printf, 3, 4)]] void add(const tier_kind &kind, const char *format, ...);

private:
    virtual void take(const tier_kind &kind, std::string_view text) = 0;
};

/* A rule that ties the values of a super block together. */
struct tier_rule {
    tier_kind kind;
    bool (*holds)(const void *sb);
    /* Logs the tool's own sentence on behalf of `func`; null: the tool does not test the rule. */
    void (*complain)(const char *func, const void *sb);
    /* Adds the finding of a check. */
    void (*explain)(const void *sb, const tier_kind &kind, tier_findings &to);
};

/* Tests the rules of the tool in order: 0, or -EINVAL after the sentence of the first that does not
 * hold. */
int32_t tier_check_rules(const char *func, std::span<const tier_rule> rules, const void *sb);

/* An area of a device, as a super block describes it. It may lie anywhere, and past everything. */
struct tier_area {
    std::string_view name;
    uint64_t start;
    uint64_t length;
    bool aligned = true; /* it must begin at a multiple of 4096 */
};

/* Stands for a sum or product that is larger than any offset. */
constexpr uint64_t TIER_PAST_ANY = ~uint64_t{0};

/* Sums and products of bytes; TIER_PAST_ANY when they do not fit. */
uint64_t tier_add(uint64_t a, uint64_t b);
uint64_t tier_multiply(uint64_t a, uint64_t b);

/* A table of `size` bytes, or more if its entries need more. `start` may be TIER_PAST_ANY; a region
 * begins where the super block says. */
tier_area tier_table_area(std::string_view name, uint64_t start, uint64_t count, uint64_t size);
tier_area tier_table_area(std::string_view name, const tier_region &region, uint64_t size);

/* The repeated parts of an entry: words of a bitmap, mapped pieces, packed entries. */
struct tier_parts {
    std::string_view key{};    /* of their array in a dump and in a repair file */
    std::string_view prefix{}; /* of a part's number, as in "sno[517]" */
    uint32_t size = 0;         /* bytes of a part */
    uint32_t first = 0;        /* the first word of a slot that is a part; those before are none */
    uint32_t (*at)(const void *sb) =
        nullptr; /* byte of the slot where its first lies, or would lie */
    uint32_t (*count)(const void *sb) = nullptr; /* the parts end before this one */

    /* The record of a part as the columns describe it, at most 64 bytes: the stored bytes, `size`
     * of them, then what is computed. `no` is the number of the entry. */
    void (*show)(const void *sb, const uint8_t *slot, uint64_t no, uint32_t k,
                 void *record) = nullptr;
    /* Whether a dump shows the part, and whether its repair file has it; null: always. */
    bool (*is_shown)(const void *record) = nullptr;
    bool (*is_kept)(const void *record) = nullptr;

    tier_columns (*fields)() = nullptr;
    tier_columns (*keys)() = nullptr;
};

/* What one entry refers to: an entry of another table. */
struct tier_owner {
    std::string_view table; /* empty: it refers to nothing */
    tier_number no;
};

/* What no two entries in use may both have. That of a super block is the identity of the cache. */
enum class tier_claim_type {
    number,   /* among the entries of one owner */
    identity, /* of 16 bytes */
    text,     /* up to its NUL, in TIER_CLAIM_TEXT bytes */
};
constexpr size_t TIER_CLAIM_TEXT = 128;

struct tier_claim {
    std::string_view what;
    tier_number number; /* an identity or a text begins where this would lie */
    tier_claim_type type = tier_claim_type::number;
};

/* A stretch of a data block that holds a part of a file. */
struct tier_piece {
    uint32_t part;   /* of the entry: the number of the one that describes it; else 0 */
    bool clean;      /* written back */
    uint64_t place;  /* in the file: a byte offset, or a number that only the service can place */
    uint64_t start;  /* byte offset on the device; TIER_PAST_ANY: larger than any */
    uint64_t length; /* bytes, at most those of a data block */
};

/* No entry holds more pieces. */
constexpr uint32_t TIER_PIECES_MAX = SIZE_4K / 16;

/* The data of the files that entries in use hold. */
struct tier_data {
    /* Whether `place` is a byte offset in the file. */
    bool placed = false;
    /* Whether a length is an upper bound: which part of it is in use only the service knows. */
    bool bounded = false;
    /* Bytes of a data block. */
    uint64_t (*block_size)(const void *sb) = nullptr;
    /* Whether the super block tells where an entry says which pieces it holds; null: always. */
    bool (*is_known)(const void *sb) = nullptr;
    /* Writes the pieces of entry `no`, which is in use, to `to`, in the order of its parts; gives
     * their number. A piece may reach past its data block on a damaged device. */
    uint32_t (*pieces)(const void *sb, const uint8_t *entry, uint64_t no, tier_piece *to) = nullptr;
    /* Whether entries mark the valid ones of all the pages, of 4096 bytes, of their data block, and
     * whether page `page` is marked; null: they never do. */
    bool (*marks_pages)(const void *sb) = nullptr;
    bool (*page_is_valid)(const uint8_t *entry, uint32_t page) = nullptr;
    /* Whether what the owner has for its referrers is the bytes of the file, so that it ends within
     * the last of its pages. */
    bool ends_in_page = false;
};

/* What is wrong with a packed entry, in use or free, that has these bits under the mask. */
struct tier_word_rule {
    tier_kind kind;
    uint64_t mask;
    uint64_t bits;
    std::string_view text; /* of the finding */
};

/* Entries of other tables may refer to numbers below `closed`. From `missing` on no entry exists,
 * whatever the table's size. */
struct tier_bounds {
    uint64_t closed;
    uint64_t missing;
};

/* A name for the bytes of a slot from the end of the stretch before it up to `end`, exclusive. */
struct tier_stretch {
    std::string_view name;
    size_t end;
};

using tier_regions = std::array<tier_region, 2>;

/* A table of 4096-byte slots. Each has a record at its start; the super block is a table of one
 * slot, and a block of packed entries is a single record. */
struct tier_table {
    std::string_view name{};          /* in commands: dump_<name>, repair_<name> */
    const char *number_key = nullptr; /* of an entry in a dump */

    /* Where the super block places it. The numbers of the second region continue those of the
     * first. */
    tier_regions (*regions)(const void *sb) = nullptr;
    /* The field of the super block, by its key in a dump, that counts what each region holds;
     * empty: none does. */
    std::array<std::string_view, 2> count_keys{};
    /* Bytes of the record, whatever the super block says: it may not fit its slot. */
    uint64_t (*record_length)(const void *sb) = nullptr;

    /* The checksum of a record of `length` bytes, which must fit its slot; it may clear the stored
     * one. Null, and no place, when a record has none. */
    uint32_t (*crc)(void *record, uint32_t length) = nullptr;
    const tier_checksum_place *checksum = nullptr;

    /* The magic and the entry's own number, if a record has them. */
    tier_number magic{};
    uint32_t magic_value = 0;
    tier_number number{};

    /* What a dump shows and a repair file says of the record, and its parts, if it has any. Without
     * keys a repair file names its block by "meta_offset". */
    tier_columns (*fields)() = nullptr;
    tier_columns (*keys)() = nullptr;
    const tier_parts *parts = nullptr;
    /* Names of stretches of a slot that no field shows; null: there are none. */
    std::vector<tier_stretch> (*stretches)(const void *sb) = nullptr;

    /* Builds the block that a repair file describes, and prints it. */
    zutr_repair_t repair{};

    /* Says in `plan` how entry `params->meta_no` is restored: 0, or a negative errno, logged, where
     * it never is. Null: no entry is. */
    int32_t (*restore)(zutr_params_t *params, tier_restore *plan) = nullptr;

    /* Of the entry, or of each word of a slot with packed entries. Without `in_use` all are in use.
     */
    tier_number in_use{};
    tier_owner owner{};
    bool ends_with_owner = false; /* it is worth nothing when its owner does not exist */
    std::span<const tier_claim> claims{};
    tier_bounds (*bounds)(const void *sb) = nullptr; /* null: every entry may be referred to */
    /* Checks the entry by itself; null: there is nothing to check. */
    void (*check)(const void *sb, const uint8_t *entry, tier_findings &to) = nullptr;
    /* The same for packed entries, of which there are many: a test of each word. */
    std::span<const tier_word_rule> word_rules{};
    /* A number that entries of other tables need to know of the one that they refer to, if any. */
    tier_number for_referrers{};
    /* Checks the entry against that number of its owner, which is in use; null: nothing to check.
     */
    void (*check_with_owner)(const void *sb, const uint8_t *entry, uint64_t number,
                             tier_findings &to) = nullptr;
    /* What entries in use hold of files; null: nothing. */
    const tier_data *data = nullptr;
    /* Of a super block. */
    std::span<const tier_rule> rules{};

    /* Whether its slots hold packed entries. */
    bool packed() const { return parts != nullptr && parts->count == nullptr; }
};

struct tier_layout {
    std::string_view name{}; /* "v1" */
    int32_t version = 0;     /* as the option -v takes it */
    tier_number version_number{};
    uint32_t version_value = 0;
    std::span<const tier_table *const> tables{}; /* the super block first, then as on the device */
    std::vector<tier_area> (*areas)(const void *sb) = nullptr;

    /* The command that makes a super block of this layout from an older one, and whether it would:
     * whether the device of `size` bytes, whose super block `sb` is of another layout, has tables
     * of this one. Reads from `fd`, and logs. Null: there is no such command. */
    std::string_view conversion{};
    bool (*has_tables)(const void *sb, int32_t fd, uint64_t size) = nullptr;
};

/* The super block of a run as the record of its layout. */
template <class Super>
const Super &tier_super(const void *sb)
{
    return *static_cast<const Super *>(sb);
}

/* A rule whose functions take the super block as the record of its layout; they capture nothing,
 * and `Complain` may be a null pointer. */
template <class Super, class Holds, class Complain, class Explain>
constexpr tier_rule tier_make_rule(tier_kind kind, Holds, Complain, Explain)
{
    static_assert(std::is_empty_v<Holds> && std::is_empty_v<Explain>,
                  "lambdas that capture nothing");
    tier_rule rule = {kind, [](const void *sb) { return Holds{}(tier_super<Super>(sb)); }, nullptr,
                      [](const void *sb, const tier_kind &of, tier_findings &to) {
                          Explain{}(tier_super<Super>(sb), of, to);
                      }};
    if constexpr (!std::is_null_pointer_v<Complain>) {
        rule.complain = [](const char *func, const void *sb) {
            Complain{}(func, tier_super<Super>(sb));
        };
    }
    return rule;
}

/* CRC-32 of the bytes 4..`length` - 1 of a record. */
uint32_t tier_crc(const void *record, uint32_t length);

/* The finding about an extent in use whose bitmap is empty. */
constexpr tier_kind TIER_EMPTY_BITMAP = {"empty_bitmap", tier_severity::warning};
constexpr char TIER_EMPTY_BITMAP_TEXT[] = "it is in use and its bitmap is empty, which is odd";

/* Findings about the use flag of an entry in use, where 1 is usual, and about its identity. */
void tier_check_use(uint32_t use, tier_findings &to);
void tier_check_identity(const uint8_t (&uuid)[16], tier_findings &to);

/* zutr_dump_common over the table, or its first region; its count is cut to 32 bits. */
int32_t tier_dump_table(zutr_params_t *params, const tier_table &table,
                        meta_format_func_t format_func);

/* Stores the checksum of a record in it, if its table has one. */
void tier_seal(const tier_table &table, void *record, uint32_t length);

/* Byte offset of the slot of an entry. */
int64_t tier_slot(const tier_regions &regions, uint64_t no);

/* The last step of every parser of an entry with a slot of its own: seals the block. Gives the
 * device offset of the slot of entry `no`, -EINVAL when something was refused, or -EFAULT, logged.
 */
int64_t tier_finish(const zutr_json_reader &in, const tier_table &table, const void *sb,
                    void *block, uint64_t no);
