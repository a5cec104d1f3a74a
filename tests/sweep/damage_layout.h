#pragma once

// The layouts as the damage sweep goes over them: super block fields, tables and commands.

#include "configuration.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace tier_test {

struct SuperField {
    std::string name;
    std::size_t byte;
    unsigned width; // in bytes
};

// Names of super block fields.
using FieldNames = std::vector<std::string>;

struct DamagedTable {
    std::string dump;
    const ConfigTable *repair; // with the file of one sound entry
    std::string number_key;    // in error records
    std::uint64_t entry;       // the block that the file repairs
    std::size_t magic_at = 0;  // 0 if there is none
    std::size_t number_at = 0; // the same
    std::string assertion{};   // without a log, on a damaged entry; empty if there is none

    // By the super block that is in force.
    std::function<std::uint64_t(const Block &super)> start;
    std::function<std::uint64_t(const Block &super)> count; // of blocks; the low 32 bits are walked

    // Why a dump ends before it reads an entry: the size of a record, a failed assertion.
    std::function<bool(const Block &super)> refuses = [](const Block &) { return false; };
    std::function<bool(const Block &super)> aborts = [](const Block &) { return false; };
    // Its entries abort as soon as one has been read.
    std::function<bool(const Block &super)> has_no_size = [](const Block &) { return false; };
    bool bounds_first = false; // the number of an entry is looked at before the table is

    // What the commands depend on: where the other fields change, nothing does.
    FieldNames dump_uses;
    FieldNames repair_uses;

    std::string before_walk{}; // around the array of a walk
    std::string behind_walk{};

    std::uint64_t place(const Block &super_block, std::uint64_t no) const
    {
        return start(super_block) + no * BLOCK_SIZE;
    }
};

struct DamagedLayout {
    std::string name;
    Device (*device)();
    const ConfigTable *super;
    std::size_t length;             // of the super block's record
    std::vector<SuperField> fields; // every number in it, its checksum excepted
    std::vector<DamagedTable> tables;
    std::vector<std::string> others; // commands that the layout does not have
};

// The parameters of the tests.
std::vector<const DamagedLayout *> layouts_to_damage();

// The file of a table's sound entry.
std::string sound_file(const ConfigTable &table);

std::ostream &operator<<(std::ostream &out, const SuperField &field);
std::ostream &operator<<(std::ostream &out, const DamagedLayout *layout);

} // namespace tier_test
