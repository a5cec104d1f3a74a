#pragma once

// The result of a repair file, by the tables of the model.

#include "model.h"
#include "repair_file.h"

#include <string_view>
#include <utility>

namespace tier_test {

// JSON text taken apart: the members of an object with their values, and the items of an array.
std::vector<std::pair<std::string, std::string>> json_members(std::string_view object);
std::vector<std::string> json_items(std::string_view array);

// The identity in the line of a dumped or repaired brick.
Uuid shown_uuid(const std::string &line);

struct Parsed {
    int status = 22; // of a file that is refused
    Log log{}; // of the parser: a line for each key that is accepted, and why the file is refused
    // What is written, and where; without the identity that the tool makes up itself.
    std::optional<Block> block{};
    std::int64_t place = 0;
    bool is_free = false; // nothing but its number
};

struct ParseOptions {
    bool forced = false; // -F
    int meta_no = -1;    // -n
};

// The file is one JSON object.
Parsed parsed(const TableModel &table, const Block &super, const std::string &document,
              const ParseOptions &options = {});

// A file with all keys that are read of the entry. `offset` is that of a block of a packed table.
RepairFile repair_file(const TableModel &table, const Block &super, const Block &block,
                       std::int64_t offset = 0);

} // namespace tier_test
