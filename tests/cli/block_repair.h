#pragma once

// Repairs of whole blocks, which the file puts anywhere between the start of their table and the
// next area.

#include "json_number.h"
#include "packed_table.h"
#include "repair_file.h"
#include "repair_fixture.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

namespace tier_test {

template <class T>
class BlockRepair : public RepairFixture {
public:
    using Table = T;

protected:
    const T &table = block_table<T>();
    SuperV3 super = packed_super(4);
    std::int64_t target = table.offset(super, 1); // of the block that is repaired

    BlockRepair()
        : RepairFixture(block_table<T>().repair, block_table<T>().repair_code, 3,
                        make_v3_device(packed_super(4)))
    {
    }

    void set_super(const SuperV3 &changed)
    {
        super = changed;
        device.write(SUPER_OFFSET, encode(changed));
    }

    LogLine error(const std::string &message) const { return error_line(table.parser, message); }
    LogLine value_line(const std::string &key, std::uint64_t value) const
    {
        return debug_line(table.parser, key + ": " + std::to_string(value));
    }

    Log lines_behind_offset(const Log &lines) const
    {
        Log log{value_line("meta_offset", static_cast<std::uint64_t>(target))};
        std::ranges::copy(lines, std::back_inserter(log));
        return log;
    }

    // The file makes this block; `lines` follow that of the offset. Nothing is printed.
    void expect_block(const std::string &file, const Log &lines, const Block &block)
    {
        expect_accepted(file, lines_behind_offset(lines), [&](const std::string &) {
            return Repaired{target, block, ""};
        });
    }

    // The parse ends with this message behind these lines.
    void expect_refused_behind(const std::string &file, Log lines, const std::string &message)
    {
        lines = lines_behind_offset(lines);
        lines.push_back(error(message));
        expect_refused(file, lines);
    }
};

// Values of every JSON type but a number.
inline const std::vector<std::string> NO_NUMBERS{"\"5\"", "null", "true",     "false",
                                                 "[]",    "[5]",  "{\"a\":5}"};

} // namespace tier_test
