#pragma once

#include "zu_tierctl/check/seen.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace tierctl {

/* A slot by the name of its table and its number. */
using SlotName = std::pair<std::string, uint64_t>;

struct NewBlock {
    int64_t offset; /* of the slot, bytes */
    const KeptBlock *block;
};

using NewBlocks = std::map<SlotName, NewBlock>;

/* Tells which blocks would bring an error to a device, as check finds them. Device and metadata
 * must outlive it. */
class NewErrors {
public:
    /* Reads what is there now. A block of which a certain mend turns one bit back counts as mended:
     * its errors are there, hidden by that bit. Other damaged blocks count for nothing. */
    NewErrors(Device &device, const Metadata &metadata, const NewBlocks &blocks);

    /* Those of the blocks, all of them or some, that bring an error, with a sentence about the
     * first: one of an entry of the block, or of another that refers to one of these or claims the
     * same. A certain mend brings none: what contradicts it is the other block's error. Lays the
     * blocks over the device meanwhile. */
    std::map<SlotName, std::string> find(const NewBlocks &blocks);

private:
    Device &device_;
    const Metadata &metadata_;
    Seen before_;
    std::set<SlotName> mends_; /* certain ones, among the blocks */
};

} // namespace tierctl
