#pragma once

// The layouts as the damage sweep goes over them: super block fields, tables and commands.

#include "key_sweep.h"

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

struct DamagedTable : TableModel {
    const RepairSample *sample; // the file of one sound entry
    std::uint64_t entry;        // the block that the file repairs

    // Why a dump ends before it reads an entry: the size of a record, a failed assertion.
    std::function<bool(const Block &super)> refuses = [](const Block &) { return false; };
    std::function<bool(const Block &super)> aborts = [](const Block &) { return false; };
    // Its entries abort as soon as one has been read.
    std::function<bool(const Block &super)> has_no_size = [](const Block &) { return false; };
    bool bounds_first = false; // the number of an entry is looked at before the table is

    // What the commands depend on: where the other fields change, nothing does.
    FieldNames dump_uses{};
    FieldNames repair_uses{};

    std::uint64_t place(const Block &super_block, std::uint64_t no) const
    {
        return start(super_block) + no * BLOCK_SIZE;
    }
};

struct DamagedLayout {
    std::string name;
    Device (*device)();
    const RepairSample *super;
    std::size_t length;             // of the super block's record
    std::vector<SuperField> fields; // every number in it, its checksum excepted
    std::vector<DamagedTable> tables;
    std::vector<std::string> others; // commands that the layout does not have
};

// The parameters of the tests.
std::vector<const DamagedLayout *> layouts_to_damage();

std::ostream &operator<<(std::ostream &out, const SuperField &field);
std::ostream &operator<<(std::ostream &out, const DamagedLayout *layout);

} // namespace tier_test
