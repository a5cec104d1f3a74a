#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"
#include "zu_tierctl/entry/owners.h"
#include "zu_tierctl/entry/pieces.h"
#include "zu_tierctl/entry/walk.h"

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace tierctl {

/* Which data of a device are wanted. */
struct DataChoice {
    bool all = false;                   /* not only what was not written back */
    std::vector<OwnerFilter> filters{}; /* a piece must pass each */
};

/* A stretch of the device that holds data of a file. There may be many millions. */
struct DataPiece {
    uint64_t start;  /* byte offset on the device */
    uint64_t place;  /* in the file, see tier_piece */
    uint64_t no;     /* of the entry that holds it */
    uint32_t length; /* bytes */
    uint32_t owner;  /* of the entry */
    uint16_t part;   /* of the entry */
    uint16_t cut;    /* bytes after them in their last page, past the end of the file */
    HeldBy by;
    bool is_clean;          /* written back */
    bool is_aside = false;  /* kept beside its file: another entry holds bytes of the same place */
    bool is_double = false; /* and so does another piece of the entry itself */
};

/* What is to be read of a device, in the order of the device. Its memory grows with the pieces in
 * use, not with what a super block claims. Device and metadata must outlive it. */
class DataPlan {
public:
    /* Reads the owners and the entries that hold data. Throws when there are none of such. */
    DataPlan(const Device &device, const Metadata &metadata, const DataChoice &choice);

    std::span<const DataPiece> pieces() const { return pieces_; }
    uint64_t bytes() const { return bytes_; } /* in all pieces */

    /* The table of the entries that hold data. */
    const Table &table() const { return table_; }

    /* Says on standard error of how many it is not known what they hold; true when of none. */
    bool tell_unknown() const;

    /* Says on standard error what the entries and their owners contradict one another in. */
    void tell_contradictions() const;

    /* How many bytes of a stretch of a piece, from byte `at` of it on, lie past the end of the file
     * that its owner tells. */
    uint64_t past_end(const DataPiece &piece, uint64_t at, uint64_t length) const;

    /* How many files the pieces are kept in. */
    uint64_t files() const;

    /* Whether pieces of an owner make a file; else each is one. */
    bool is_placed() const { return data_.placed; }

    /* The path of the file in which a piece is kept, and its byte offset in there. */
    std::string path(const DataPiece &piece) const;
    uint64_t offset(const DataPiece &piece) const { return is_placed() ? piece.place : 0; }

    /* For each entry whose pieces are kept aside the one, perhaps itself, that holds the place. */
    const std::map<uint64_t, uint64_t> &conflicts() const { return conflicts_; }

private:
    void add(const Metadata &metadata, const DataChoice &choice, uint64_t no, const uint8_t *entry);
    void cut_tails();
    void find_conflicts();
    void mark_aside();

    /* The end of the place of a piece, exclusive. */
    uint64_t place_end(const DataPiece &piece) const;

    const Table &table_;
    const tier_data &data_;
    Owners owners_;
    UnknownSlots unknown_;
    bool is_described_;
    uint64_t undescribed_ = 0; /* entries in use of which the super block hides the pieces */
    std::vector<DataPiece> pieces_;
    uint64_t bytes_ = 0;
    std::map<uint64_t, uint64_t> conflicts_;
    std::map<uint64_t, uint64_t> sizes_; /* bytes of files by owner, where they are known */
    std::set<uint64_t> outgrown_;        /* owners with data more than a page past that */
    uint64_t misfits_ = 0;               /* entries with a size that is not that of their pages */
};

} // namespace tierctl
