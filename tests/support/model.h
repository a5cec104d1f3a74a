#pragma once

// The disk format and the repair files as the tests know them: the tables of all layouts, field by
// field and key by key. Written by hand; nothing here comes from the tool.

#include "bytes.h"
#include "log.h"
#include "settings.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tier_test {

constexpr std::uint64_t SUPER_OFFSET = 4096;
constexpr std::uint32_t SLOTS_V3 = 512; // words of a block of shards or extents, its head included
constexpr std::uint32_t EXPANSION_UNIT = 25600; // inodes
constexpr std::size_t PIECE_LENGTH = 16;        // bytes of the record of a mapped piece

// How a dump shows a field.
enum class FieldForm {
    DECIMAL,
    HEX,          // "0x1f"
    TIME,         // nanoseconds, shown as local time
    HEX_AND_TIME, // "0x1f(1970-01-01 01:00:00)"
    TEXT,         // up to its terminator
    UUID,
    REVERSED, // four bytes, as a hexadecimal text from the first to the last
    UNITS,    // a number of units of expansion inodes, shown as inodes
};

struct Field {
    std::string name; // in a dump
    std::size_t byte = 0;
    unsigned width = 32; // in bits
    FieldForm form = FieldForm::DECIMAL;
    unsigned shift = 0; // of the lowest bit, from that byte on

    bool is_number() const { return form != FieldForm::TEXT && form != FieldForm::UUID; }
};

// `base` is where the record begins in the block.
std::uint64_t get_number(const Block &block, const Field &field, std::size_t base = 0);
void put_number(Block &block, const Field &field, std::uint64_t value, std::size_t base = 0);
std::string get_text(const Block &block, const Field &field);

// The value as a dump shows it: the last byte of a text is its end, whatever it holds.
std::string shown_value(const Block &block, const Field &field);

// The integer that a number of a repair file becomes before its field keeps the low bits.
enum class Conversion { SIGNED_32, SIGNED_64, UNSIGNED_64 };

// Truncates toward zero. A number out of the range of the conversion becomes the smallest signed
// integer.
std::uint64_t convert(Conversion conversion, long double value);

enum class Need {
    ALWAYS,   // required, of a free entry too
    IN_USE,   // required of an entry in use, not read of a free one
    OPTIONAL, // as IN_USE, but may be missing
};

// A key of a repair file. Hexadecimal fields, texts and identities are given as strings, all others
// as numbers.
struct Key {
    std::string name;
    Field field; // that it fills
    Need need = Need::IN_USE;
    Conversion conversion = Conversion::SIGNED_64;

    std::size_t most = 0;      // characters of a text that are read
    std::size_t length = 0;    // that these must be; 0: any number
    bool shows_sign = false;   // the log extends the sign to 64 bits
    std::uint32_t exactly = 0; // the only value that is admitted; 0: any
    std::string func{};        // that reads it, if it is not the parser
    // The value without the key; zero if there is no rule.
    std::uint64_t (*fallback)(const Block &) = nullptr;

    bool is_number() const
    {
        return field.is_number() && field.form != FieldForm::HEX &&
               field.form != FieldForm::HEX_AND_TIME;
    }
};

// An array of a repair file: objects whose first key gives the place in the block.
struct Items {
    std::string name;
    std::vector<Key> keys{};
    std::string invalid;      // said of what is no array, before its address
    std::string item_invalid; // said of an item that is no object: "%zu" is its index
    std::size_t room = 0;     // most items that are admitted; 0: any number
    std::string too_many{};   // "%zu" is their number
    // Where an item lies that the first key gives this number; nothing if there is no such place.
    std::function<std::optional<std::size_t>(const Block &super, std::uint64_t number)> place;
    // Why a value is refused: empty if it is not.
    std::function<std::string(const Block &super, const Key &, std::uint64_t value,
                              std::size_t index, std::uint64_t number)>
        refusal;
    std::optional<Field> in_use{}; // that every item sets
};

enum class Checksum {
    HEAD,   // of everything after the first four bytes, which hold it
    SPREAD, // of the block without it, in the lowest bits of its first 32 words
    NONE,
};

struct SuperRule {
    std::function<bool(const Block &)> holds;
    std::function<std::string(const Block &)> sentence; // that the tool writes if it does not
};

// A table of a layout. Its entries, or in V3 blocks of them, lie in slots of 4096 bytes.
struct TableModel {
    int version;
    std::string name;
    std::vector<Field> fields{}; // in the order of a dump; of a packed table those of a word
    std::uint32_t magic = 0;     // at byte 4; 0 if there is none
    Checksum checksum = Checksum::HEAD;
    std::string number{}; // the fields with an entry's number, whether it is in use, whose
    std::string use{};    // it is, and its name; empty if there is none
    std::string owner{};
    std::string id{};
    std::uint32_t first_slot = 0; // that holds an entry, of a packed table

    // Geometry, from the super block.
    std::function<std::size_t(const Block &super)> length{}; // bytes of the record
    std::function<std::uint64_t(const Block &super)> start{};
    std::function<std::uint64_t(const Block &super)> count{};
    std::function<std::uint64_t(const Block &super)> end{}; // of a packed table: the next area

    std::string dump{};
    std::string formatter{};
    std::string number_key{};  // in the record of an error
    std::string without_log{}; // the assertion that ends a dump of a damaged entry without a log
    std::string before_walk{}; // around the array of a walk
    std::string after_walk{};
    // The end of the line of a dump.
    std::function<std::string(const Block &super, const Block &, std::int64_t offset)> tail{};
    // The log lines of a damaged entry, and of one that the filter hides.
    std::function<std::string(std::uint64_t slot, const Block &, std::uint32_t stored,
                              std::uint32_t crc)>
        fault{};
    std::function<std::string(std::uint64_t slot, const Block &)> ignored{};

    std::string repair{};
    int repair_code = 0;
    std::string parser{};
    std::string without_super{}; // the assertion that ends a repair with a forced version
    std::vector<Key> keys{};     // in reading order
    std::optional<Items> items{};
    std::vector<std::string> unread_keys{};
    bool makes_uuid = false;  // of a free entry
    bool takes_place = false; // the file gives the place, by "meta_offset"
    // The parser's message at the end of an entry that does not belong on the device. `meta_no` is
    // the number that the command line named.
    std::function<Log(const Block &super, const Block &, int meta_no)> bounds{};
    std::vector<SuperRule> rules{}; // of a super block, in order; -F leaves them out
    std::string checker{};          // the function that reports them

    const Field &field(const std::string &of) const;
    bool is_packed() const { return takes_place && items; }
};

// Versions are 1, 2 and 3. Tables are super, brick, inode, extent, shard and hot.
const TableModel &model(int version, const std::string &table);
const std::vector<const TableModel *> &models();

std::int64_t slot_offset(const TableModel &table, const Block &super, std::uint64_t no);
std::int64_t expansion_start(const Block &super_v2);

// The checksum that a block carries and that of its content; `length` is that of the record.
std::uint32_t stored_checksum(const TableModel &table, const Block &block);
std::uint32_t computed_checksum(const TableModel &table, const Block &block, std::size_t length);
// Stores the right checksum, or the one that is given.
void seal(const TableModel &table, Block &block, std::size_t length,
          std::optional<std::uint32_t> checksum = {});
void seal(const TableModel &table, const Block &super, Block &block);

// The line of a dumped entry, without a line end.
std::string entry_text(const TableModel &table, const Block &super, const Block &block,
                       std::int64_t offset);

std::string id_of(const TableModel &table, const Block &block);
bool filter_hides(const TableModel &table, const Settings &filter, const Block &block);

// The first rule that a super block breaks; the number of rules if it keeps them all.
std::size_t broken_rule(const TableModel &super_table, const Block &super);

} // namespace tier_test
