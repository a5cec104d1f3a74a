#pragma once

#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/entry/metadata.h"
#include "zu_tierctl/plan/text_sum.h"

#include <cstdint>
#include <string>
#include <string_view>
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
    KeptBlock before{};
    KeptBlock after{};

    std::string name() const;
};

struct UndoFile {
    uint64_t size = 0; /* of the device, bytes */
    Block super_block{};
    TextSum plan{}; /* its text, which the file holds */
    std::vector<Change> changes;
};

/* An undo file that is being made. It has no name until it is complete. */
class NewUndoFile {
public:
    /* Throws when no file of that name can be made. */
    explicit NewUndoFile(const std::string &path);

    /* The next piece of the plan's text. */
    void add_plan(std::string_view piece);

    /* Adds everything else, and gives the file its name when all of it is on the disk and can be
     * read again. Throws. */
    void finish(const UndoFile &undo);

private:
    void append(const void *data, size_t length);

    NewFile file_;
    int64_t end_; /* of what was added */
    TextSum plan_;
};

/* Throws unless the file is complete and every checksum right. Takes memory only for changes that
 * are there and whole. */
UndoFile read_undo_file(const std::string &path);

} // namespace tierctl
