#pragma once

#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tierctl {

/* The file that leads back, and on, from any moment of an apply: the blocks as they were and as
 * they shall be. It is complete before the first block is written.
 *
 * Numbers are little-endian. One after the other:
 *
 *     64     head: 8 magic, "ZUTRUNDO"; 4 version, 1; 4 CRC-32 of the parts, see below; 8 size of
 *            the device; 8 length of the plan; 8 number of changes; 24 zero
 *     4096   block of the super block
 *     ...    plan, as it was read
 *
 *     then for each change
 *
 *     64     head: 16 name of the table, filled up with NUL; 8 number of the entry; 8 offset of its
 *            slot on the device; 4 whether the block could not be read before, 0 or 1; 4 CRC-32 of
 *            the block before; 4 that of the block after; 20 zero
 *     4096   block before; zero when it could not be read
 *     4096   block after
 *
 * The CRC-32 of the parts is that of the concatenated CRC-32s, four bytes each, of the head with 0
 * in that place, of the super block, of the plan and of each change's head. */

/* A block to be written, or written. */
struct Change {
    std::string table;
    uint64_t no = 0;
    int64_t offset = 0;      /* of the slot, bytes */
    bool unreadable = false; /* it could not be read before */
    Block before{};
    Block after{};

    std::string name() const;
};

struct UndoFile {
    uint64_t size = 0; /* of the device, bytes */
    Block super_block{};
    std::string plan; /* its text */
    std::vector<Change> changes;
};

/* Fills a new file and gives it its name, when all of it is on the disk. Throws. */
void write_undo_file(NewFile &file, const UndoFile &undo);

/* Throws unless the file is complete and every checksum right. */
UndoFile read_undo_file(const std::string &path);

} // namespace tierctl
