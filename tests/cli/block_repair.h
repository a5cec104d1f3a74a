#pragma once

// Repairs of whole blocks, which the file puts anywhere between the start of their table and the
// next area.

#include "packed_table.h"
#include "parsed.h"
#include "repair_fixture.h"

#include <string>

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

    const TableModel &format = model(3, table.repair.substr(7));

    LogLine error(const std::string &message) const { return error_line(table.parser, message); }
    // What the log says of the keys of the file.
    Log lines_of(const std::string &file) const { return parsed(format, encode(super), file).log; }

    // The file makes this block. Nothing is printed.
    void expect_block(const std::string &file, const Block &block)
    {
        expect_accepted(file, lines_of(file), [&](const std::string &) {
            return Repaired{target, block, ""};
        });
    }

    // The parse ends with this message.
    void expect_refused_with(const std::string &file, const std::string &message, int status = 22)
    {
        const Log lines = lines_of(file);
        EXPECT_EQ(lines.back(), error(message));
        expect_refused(file, lines, status);
    }
};

} // namespace tier_test
