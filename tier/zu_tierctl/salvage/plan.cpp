#include "zu_tierctl/salvage/plan.h"

#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/sum.h"

#include <algorithm>
#include <fmt/core.h>
#include <limits>
#include <stdexcept>
#include <tuple>

namespace tierctl {

namespace {

const Table &find_data_table(const Metadata &metadata)
{
    const auto table = std::ranges::find_if(
        metadata.tables, [](const Table &candidate) { return candidate.row->data != nullptr; });
    if (table == metadata.tables.end()) {
        throw std::runtime_error(
            fmt::format("where layout {} keeps data is not known", metadata.layout->name));
    }
    return *table;
}

auto by_file(const DataPiece &piece)
{
    return std::tuple(piece.owner, piece.place, piece.no, piece.part);
}

auto by_device(const DataPiece &piece) { return std::tuple(piece.start, piece.no, piece.part); }

} // namespace

DataPlan::DataPlan(const Device &device, const Metadata &metadata, const DataChoice &choice)
    : table_(find_data_table(metadata)), data_(*table_.row->data), owners_(metadata.tables, table_),
      is_described_(data_.is_known == nullptr || data_.is_known(metadata.super()))
{
    const uint64_t block_size = data_.block_size(metadata.super());
    if (block_size > std::numeric_limits<uint32_t>::max()) {
        throw std::runtime_error(
            fmt::format("{}: its super block gives data blocks of {} bytes, more than any has",
                        device.path(), block_size));
    }
    for (size_t level = 0; level < owners_.levels(); level++) {
        walk_in_use(device, owners_.level(level), [this, level](uint64_t no, const uint8_t *entry) {
            owners_.add(level, no, entry);
            if (level == 0 && data_.ends_in_page) {
                sizes_[no] = owners_.level(level).row->for_referrers.get(entry);
            }
        });
    }
    owners_.finish();
    unknown_ = walk_in_use(device, table_, [&](uint64_t no, const uint8_t *entry) {
        add(metadata, choice, no, entry);
    });
    cut_tails();
    find_conflicts();
    mark_aside();
    std::ranges::sort(pieces_, {}, by_device);
}

void DataPlan::add(const Metadata &metadata, const DataChoice &choice, uint64_t no,
                   const uint8_t *entry)
{
    const uint64_t owner = table_.row->owner.no.get(entry);
    const auto passes = [this, owner](const OwnerFilter &filter) {
        return owners_.belongs(owner, filter);
    };
    if (!std::ranges::all_of(choice.filters, passes)) {
        return;
    }
    undescribed_ += is_described_ ? 0 : 1;
    const auto size = sizes_.find(owner);
    uint64_t marked = 0;
    each_piece(data_, metadata.super(), entry, no, [&](const tier_piece &piece, HeldBy by) {
        /* Also what was written back tells that the file goes on. */
        const uint64_t tail = by == HeldBy::pages ? SIZE_4K - 1 : 0;
        if (size != sizes_.end() &&
            tier_add(piece.place, piece.length) > tier_add(size->second, tail)) {
            outgrown_.insert(owner);
        }
        if (piece.clean && !choice.all) {
            return;
        }
        marked += by == HeldBy::pages ? piece.length : 0;
        pieces_.push_back({.start = piece.start,
                           .place = piece.place,
                           .no = no,
                           .length = static_cast<uint32_t>(piece.length),
                           .owner = static_cast<uint32_t>(owner),
                           .part = static_cast<uint16_t>(piece.part),
                           .cut = 0,
                           .by = by,
                           .is_clean = piece.clean});
        bytes_ = add_limited(bytes_, piece.length);
    });
    misfits_ += marked != 0 && !size_fits_pages(data_, metadata.super(), entry, no, marked) ? 1 : 0;
}

/* Pages are whole, and the bytes after the end of a file are not its own. Of a file that goes on
 * after the end that is told nothing is cut off: that end is wrong. */
void DataPlan::cut_tails()
{
    for (DataPiece &piece : pieces_) {
        if (!outgrown_.contains(piece.owner)) {
            piece.cut = static_cast<uint16_t>(past_end(piece, 0, piece.length));
            piece.length -= piece.cut;
            bytes_ -= piece.cut;
        }
    }
}

uint64_t DataPlan::past_end(const DataPiece &piece, uint64_t at, uint64_t length) const
{
    const auto size = sizes_.find(piece.owner);
    const uint64_t end = tier_add(piece.place, at + length);
    return size != sizes_.end() && end > size->second ? std::min(length, end - size->second) : 0;
}

uint64_t DataPlan::place_end(const DataPiece &piece) const
{
    return add_limited(piece.place, is_placed() ? piece.length : 1);
}

/* Of two entries that hold bytes of the same place the one with the higher number is in conflict.
 */
void DataPlan::find_conflicts()
{
    std::ranges::sort(pieces_, {}, by_file);
    const DataPiece *kept = nullptr;
    for (const DataPiece &piece : pieces_) {
        const bool is_free =
            kept == nullptr || kept->owner != piece.owner || piece.place >= place_end(*kept);
        if (!is_free) {
            const auto [lower, higher] = std::minmax(kept->no, piece.no);
            conflicts_.try_emplace(higher, lower);
        }
        if (is_free || piece.no < kept->no) {
            kept = &piece;
        }
    }
}

/* All pieces of an entry in conflict, so that no file has only a part of its block. */
void DataPlan::mark_aside()
{
    if (conflicts_.empty()) {
        return;
    }
    const auto by_entry = [](const DataPiece &piece) {
        return std::tuple(piece.no, piece.place, piece.part);
    };
    std::ranges::sort(pieces_, {}, by_entry);
    const DataPiece *kept = nullptr;
    for (DataPiece &piece : pieces_) {
        piece.is_aside = conflicts_.contains(piece.no);
        const bool is_free =
            kept == nullptr || kept->no != piece.no || piece.place >= place_end(*kept);
        piece.is_double = !is_free;
        kept = is_free ? &piece : kept;
    }
}

bool DataPlan::tell_unknown() const
{
    const bool is_packed = table_.row->packed();
    const std::string_view one = is_packed ? "block" : "entry";
    const std::string_view many = is_packed ? "blocks" : "entries";
    const auto tell = [&](uint64_t slots, const char *is, const char *are) {
        if (slots != 0) {
            complain(fmt::format("{} {} of the table {} {}: what is held there is not known", slots,
                                 slots == 1 ? one : many, table_.name, slots == 1 ? is : are));
        }
    };
    tell(unknown_.damaged, "is damaged", "are damaged");
    tell(unknown_.unreadable, "cannot be read", "cannot be read");
    tell(undescribed_, "is not described by the super block",
         "are not described by the super block");
    return unknown_.damaged == 0 && unknown_.unreadable == 0 && undescribed_ == 0;
}

void DataPlan::tell_contradictions() const
{
    if (misfits_ != 0) {
        complain(fmt::format("{} {} of the table {} {} a size that is not that of the pages in the "
                             "bitmap: these pages are salvaged",
                             misfits_, misfits_ == 1 ? "entry" : "entries", table_.name,
                             misfits_ == 1 ? "has" : "have"));
    }
    uint64_t bytes = 0;
    std::set<uint64_t> owners;
    for (const DataPiece &piece : pieces_) {
        const uint64_t past = past_end(piece, 0, piece.length);
        bytes = add_limited(bytes, past);
        if (past != 0) {
            owners.insert(piece.owner);
        }
    }
    if (bytes != 0) {
        complain(fmt::format("{} bytes of {} {} lie past the end that the size of the file gives: "
                             "they are salvaged as well, see past_end in the manifest",
                             bytes, owners.size(), owners.size() == 1 ? "file" : "files"));
    }
}

uint64_t DataPlan::files() const
{
    if (!is_placed()) {
        return pieces_.size();
    }
    std::set<std::tuple<uint32_t, uint64_t, uint32_t>> files;
    for (const DataPiece &piece : pieces_) {
        files.emplace(piece.owner, piece.is_aside ? piece.no + 1 : 0,
                      piece.is_double ? piece.part + 1U : 0);
    }
    return files.size();
}

std::string DataPlan::path(const DataPiece &piece) const
{
    std::string path = owners_.path(piece.owner);
    if (!is_placed()) {
        path += fmt::format("/{}.block", piece.place);
    }
    if (piece.is_aside) {
        path += fmt::format(".conflict-{}", piece.no);
    }
    if (piece.is_double) {
        path += fmt::format("-{}", piece.part);
    }
    return path;
}

} // namespace tierctl
