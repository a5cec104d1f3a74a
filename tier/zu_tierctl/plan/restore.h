#pragma once

#include "zu_tier/layout/restore.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace tierctl {

/* What the layout's own restore makes of a damaged entry. */
struct Restored {
    std::optional<Block> block; /* empty: it would write none */
    std::string reason;         /* why it does, or does not */
};

/* Decides as that restore does, by its own functions, and writes nothing. Walks the extents once,
 * however many entries it is asked for. */
class Restorer {
public:
    Restorer(const Device &device, const Metadata &metadata) : device_(device), metadata_(metadata)
    {
    }

    /* `now`: the slot as it is, all zero when it cannot be read. The table restores its entries. */
    Restored restore(const Table &table, uint64_t no, const Block &now);

private:
    struct Owned {
        uint64_t first; /* the first of its extents */
        uint64_t count;
    };

    void walk(const tier_restore &plan);
    void add_doubt(uint64_t no, uint64_t count, const char *why);

    const Device &device_;
    const Metadata &metadata_;
    bool walked_ = false;
    uint64_t extents_ = 0;
    uint64_t doubtful_ = 0;
    std::string doubt_;               /* the first of these */
    std::map<uint32_t, Owned> owned_; /* by number of the inode */
};

} // namespace tierctl
