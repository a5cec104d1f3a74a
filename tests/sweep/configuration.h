#pragma once

// What the keys of repair files do: each kind of JSON object as a table, with the bits of the block
// that each of its keys fills. A sweep computes from it what becomes of any file.

#include "bytes.h"
#include "device.h"
#include "log.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

namespace tier_test {

enum class Holds { NUMBER, HEX, UUID, TEXT, ARRAY };
enum class Needed {
    ALWAYS, // of a free entry too
    IN_USE, // not read of a free entry
    OPTIONAL,
};
// What a number becomes before the low bits of it are stored.
enum class Taken { UNSIGNED_64, SIGNED_64, SIGNED_32 };

// A block in the making, and where it goes if its content does not tell.
struct Made {
    Block block{};
    std::uint64_t target = 0;
};

// A text that a key is given, and what comes of it: an error or, if there is none, what is stored.
struct TextCase {
    std::string given;
    std::string error{};
    std::string stored{};
    std::uint64_t number = 0; // of a hexadecimal text
};

struct ConfigKey {
    std::string name;
    Holds holds = Holds::NUMBER;
    Needed needed = Needed::IN_USE;
    Taken taken = Taken::SIGNED_64;
    std::size_t byte = 0;  // of the block
    unsigned shift = 0;    // of the lowest bit, from that byte on
    unsigned width = 0;    // in bits
    bool reversed = false; // the bytes of a 32-bit field

    std::string sample{};            // JSON text, where the block does not tell it
    std::vector<TextCase> texts{};   // for a text
    std::vector<std::string> more{}; // numbers that are of interest for this key alone
    std::string func{};              // that reports on it, if not the parser
    std::string mistyped{};          // what is said of a wrong type, if not the usual
    std::string missing{};           // the same of a missing key
    // Why a stored value is refused at once: empty if it is not.
    std::function<std::string(std::uint64_t value)> refuse{};
    // In place of storing it in the bits.
    std::function<void(Made &, std::uint64_t value)> apply{};
    // The value without the key, if not zero.
    std::function<std::uint64_t(const Block &)> fallback{};
};

struct ConfigTable {
    std::string name;
    std::string command;
    int code;
    std::string parser;
    Device (*device)();
    Made sample;
    std::vector<ConfigKey> keys; // in reading order
    std::string before{};        // the text of the file in front of the object
    std::string behind{};

    std::string use{};       // the key that tells a free entry, which keeps magic and number only
    std::uint32_t magic = 0; // at byte 4; 0 if there is none
    bool makes_uuid = false; // of a free entry
    std::function<std::int64_t(const Made &)> place;
    std::function<void(Block &)> seal;
    // What is said once all keys are read: nothing if the block is right.
    std::function<Log(const Block &)> refusals = [](const Block &) { return Log{}; };
    bool forced = false;        // -F leaves that out
    std::string checksum_key{}; // with which the printed entry begins; empty if none is printed
};

std::uint64_t get_bits(const Block &block, const ConfigKey &key);
void put_bits(Block &block, const ConfigKey &key, std::uint64_t value);

// The members of an object in writing order, their values as JSON text.
using Members = std::vector<std::pair<std::string, std::string>>;
Members sample_members(const ConfigTable &table);
std::string object_of(const Members &members);

const std::vector<ConfigTable> &config_tables();

// The tables of the layouts.
std::vector<ConfigTable> super_configs();
std::vector<ConfigTable> brick_configs();
std::vector<ConfigTable> inode_configs();
std::vector<ConfigTable> extent_configs();
std::vector<ConfigTable> packed_configs();

// For messages.
std::ostream &operator<<(std::ostream &out, const ConfigTable *table);

} // namespace tier_test
