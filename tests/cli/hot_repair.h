#pragma once

// Repairs of blocks of the hot table, which clear them.

#include "block_repair.h"

namespace tier_test {

class HotRepair : public BlockRepair<HotTable> {
protected:
    RepairFile sample_file() const
    {
        RepairFile file;
        file.set("meta_offset", std::to_string(target));
        return file;
    }
    static Block sample_block() { return {}; }
};

} // namespace tier_test
