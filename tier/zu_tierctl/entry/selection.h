#pragma once

#include "zu_tierctl/entry/table.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tierctl {

/* What the operands TABLE and NO name: "inode" and "3,7,9..12", or "extent:1542" alone, which names
 * the block of a packed entry. */
struct EntryOperands {
    std::string table;
    std::string numbers;
    bool entries = false; /* the numbers are those of entries, not of slots */
    std::vector<std::pair<uint64_t, uint64_t>> ranges; /* first and last */
};

/* Splits and reads the operands; `numbers` is empty when NO was not given. Throws a usage error. */
EntryOperands read_operands(const std::string &table, const std::string &numbers);

/* Slots of a table. */
struct Selection {
    const Table &table;             /* one of those it was chosen from */
    std::vector<uint64_t> slots;    /* in ascending order, each once */
    std::vector<std::string> notes; /* "extent 1542 is in block 3" */
};

/* The slots that the operands name. Throws a usage error when there is no such table or slot, and
 * when they are too many for one run. */
Selection select_slots(const std::vector<Table> &tables, const EntryOperands &operands);

/* Ascending numbers as the operand NO takes them. */
std::string numbers_text(std::span<const uint64_t> numbers);

} // namespace tierctl
