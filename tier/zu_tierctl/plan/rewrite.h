#pragma once

#include "zu_tierctl/plan/undo_file.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tierctl {

/* The metadata of the device. Throws unless it has that size and that super block, to the byte.
 * `source` is the name of the plan that says so. */
Metadata require_unchanged(const Device &device, const std::string &source, uint64_t size,
                           const Block &super_block);

/* The metadata of the device. Throws unless it is the one that the undo file `source` is for: its
 * super block has the same layout and identity and places all tables alike, it is not smaller, and
 * every change is one of its slots. Whatever else has changed in the super block since then does
 * not matter to these blocks, and must not bar the way back. */
Metadata require_same(const Device &device, const std::string &source, const UndoFile &undo);

/* Takes the blocks of changes to one of their two sides, from whatever moment of an earlier run: a
 * block is on either side, or in part on both after a power cut, or cannot be read. Device,
 * metadata and changes must outlive it. */
class Rewrite {
public:
    /* `target` is &Change::before or &Change::after. */
    Rewrite(Device &device, const Metadata &metadata, const std::vector<Change> &changes,
            KeptBlock Change::*target);

    /* Prints for each block that is not there yet what the rewrite changes, after the text of
     * `note`, which may be empty or lines. Throws when a block is on neither side, or the output
     * cannot be written; with `commit` it says then that nothing was written to the device: the
     * operator must see what is replaced. */
    void show(const std::function<std::string(const Change &)> &note, bool commit);

    /* How many of those that were shown are not there yet. */
    size_t left() const { return left_.size(); }

    /* Lays them over the device, which then reads as after the rewrite. */
    void lay_over();

    /* Writes them. Throws when one fails, with what was written, what was not, and `advice`. After
     * INT, TERM or HUP it completes the block, says the same, and the signal ends the program. */
    void write(const std::string &advice);

private:
    struct Found;

    bool is_undo() const { return target_ == &Change::before; }

    void find(const Change &change, Found &found) const;
    void show_each(const std::function<std::string(const Change &)> &note);
    void write_each(size_t &done);
    void write(const Change &change);
    std::string outcome(size_t done, size_t rest) const;
    std::string names(size_t first, size_t end) const;

    Device &device_;
    const Metadata &metadata_;
    const std::vector<Change> &changes_;
    KeptBlock Change::*target_;
    std::vector<const Change *> left_;
};

} // namespace tierctl
