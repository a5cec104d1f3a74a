#pragma once

#include "zu_tier/record/columns.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tierctl {

/* A field of an entry. */
struct Field {
    std::string key;
    std::string value; /* JSON, as the tool prints it */
    std::string exact; /* JSON from which the stored bits follow, but for text that is not UTF-8 */

    /* Where it is stored: bytes of the slot, and which bits of each eight of them. */
    size_t at;
    size_t length;
    uint64_t bits;
};

/* The number in a column of a record. */
uint64_t column_number(const tier_column &column, const void *record);

/* A number as JSON in one of the tool's forms. */
std::string number_text(zutr_form form, uint64_t value);

/* A time in nanoseconds since the epoch, as the tool prints it. */
std::string time_text(uint64_t nanoseconds);

/* The value in a column of a record, as JSON. */
std::string column_text(const tier_column &column, const void *record);

/* The fields of a record of which `stored` bytes lie at byte `at` of their slot. */
std::vector<Field> get_fields(const tier_columns &columns, const void *record, size_t at,
                              size_t stored);

} // namespace tierctl
