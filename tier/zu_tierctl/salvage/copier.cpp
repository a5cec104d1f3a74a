#include "zu_tierctl/salvage/copier.h"

#include "common/zutr_crc32.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <mutex>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace tierctl {

namespace {

constexpr uint64_t FILE_END = std::numeric_limits<int64_t>::max();

/* Bytes of the blocks that are read for so many. */
uint64_t round_up(uint64_t length) { return (length + SIZE_4K - 1) / SIZE_4K * SIZE_4K; }

uint32_t continue_crc(uint32_t crc, const uint8_t *data, uint64_t length)
{
    static const zutr_crc32_way &WAY = zutr_crc32_choose(ZUTR_CRC32_WAYS);
    return ~WAY.update(~crc, data, length);
}

} // namespace

Copier::Copier(const Device &device, const DataPlan &plan, const Target &target,
               std::shared_mutex &sizes)
    : device_(device), plan_(plan), target_(target), sizes_(sizes)
{
    if (zutr_alloc_aligned(SIZE_1M, &buffer_) != 0) {
        throw std::bad_alloc();
    }
}

size_t Copier::joined(std::span<const DataPiece> pieces)
{
    uint64_t length = round_up(pieces.front().length);
    size_t count = 1;
    while (count < pieces.size() && pieces[count].start == pieces.front().start + length &&
           length + round_up(pieces[count].length) <= SIZE_1M) {
        length += round_up(pieces[count++].length);
    }
    return count;
}

void Copier::copy(std::span<const DataPiece> pieces, std::span<std::vector<Segment>> to)
{
    const DataPiece &first = pieces.front();
    const DataPiece &last = pieces.back();
    const bool is_read =
        pieces.size() > 1 && read(first, 0, last.start - first.start + last.length);
    for (size_t i = 0; i < pieces.size(); i++) {
        const uint64_t at = pieces[i].start - first.start;
        to[i] = copy_piece(pieces[i], is_read ? buffer_.get() + at : nullptr);
    }
}

/* `data` is that of the piece, as far as it has been read. */
std::vector<Segment> Copier::copy_piece(const DataPiece &piece, const uint8_t *data)
{
    segments_.clear();
    const Fd file = target_.open_file(plan_.path(piece));
    if (data != nullptr) {
        put(piece, file, 0, piece.length, data);
        return std::move(segments_);
    }
    for (uint64_t at = 0; at < piece.length; at += SIZE_1M) {
        copy_run(piece, file, at, std::min<uint64_t>(SIZE_1M, piece.length - at));
    }
    const Segment &last = segments_.back();
    if (last.outcome == Outcome::unreadable) {
        grow(file, tier_add(plan_.offset(piece), piece.length));
    }
    return std::move(segments_);
}

/* Reads the run at once, and where that fails block by block. */
void Copier::copy_run(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length)
{
    if (read(piece, at, length)) {
        put(piece, file, at, length, buffer_.get());
        return;
    }
    for (const uint64_t end = at + length; at < end; at += SIZE_4K) {
        const uint64_t block = std::min<uint64_t>(SIZE_4K, end - at);
        if (read(piece, at, block)) {
            put(piece, file, at, block, buffer_.get());
        } else {
            add(at, block, Outcome::unreadable);
        }
    }
}

/* Reads whole blocks. */
bool Copier::read(const DataPiece &piece, uint64_t at, uint64_t length)
{
    return device_.read(static_cast<int64_t>(tier_add(piece.start, at)), buffer_.get(),
                        round_up(length));
}

void Copier::put(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length,
                 const uint8_t *data)
{
    const Outcome outcome = write(piece, file, at, length, data);
    add(at, length, outcome);
    if (outcome == Outcome::copied) {
        Segment &segment = segments_.back();
        segment.crc = continue_crc(segment.crc, data, length);
    }
}

/* A file that is too large for this target may fit another, or the same without a limit. */
Outcome Copier::write(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length,
                      const uint8_t *data)
{
    const uint64_t offset = tier_add(plan_.offset(piece), at);
    if (tier_add(offset, length) > FILE_END) {
        return Outcome::unplaced;
    }
    const std::shared_lock<std::shared_mutex> lock(sizes_);
    if (zutr_writen(file.get(), data, length, static_cast<int64_t>(offset)) >= 0) {
        return Outcome::copied;
    }
    if (errno != EFBIG) {
        target_.fail("write", plan_.path(piece));
    }
    return Outcome::too_large;
}

void Copier::add(uint64_t at, uint64_t length, Outcome outcome)
{
    const bool goes_on = !segments_.empty() && segments_.back().outcome == outcome;
    if (!goes_on) {
        segments_.push_back({at, 0, outcome, 0});
    }
    segments_.back().length += length;
}

/* Bytes at its end that could not be read are a hole as well. */
void Copier::grow(const Fd &file, uint64_t size)
{
    const std::unique_lock<std::shared_mutex> lock(sizes_);
    struct stat status {};
    if (fstat(file.get(), &status) == 0 && static_cast<uint64_t>(status.st_size) < size &&
        size <= FILE_END) {
        static_cast<void>(ftruncate(file.get(), static_cast<off_t>(size)) == 0);
    }
}

} // namespace tierctl
