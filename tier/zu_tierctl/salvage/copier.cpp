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

std::vector<Segment> Copier::copy(const DataPiece &piece)
{
    segments_.clear();
    const Fd file = target_.open_file(plan_.path(piece));
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
        put(piece, file, at, length);
        return;
    }
    for (const uint64_t end = at + length; at < end; at += SIZE_4K) {
        const uint64_t block = std::min<uint64_t>(SIZE_4K, end - at);
        if (read(piece, at, block)) {
            put(piece, file, at, block);
        } else {
            add(at, block, Outcome::unreadable);
        }
    }
}

/* Reads whole blocks. */
bool Copier::read(const DataPiece &piece, uint64_t at, uint64_t length)
{
    const uint64_t blocks = (length + SIZE_4K - 1) / SIZE_4K * SIZE_4K;
    return device_.read(static_cast<int64_t>(tier_add(piece.start, at)), buffer_.get(), blocks);
}

void Copier::put(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length)
{
    add(at, length, write(piece, file, at, length) ? Outcome::copied : Outcome::unplaced);
}

/* False when no file can have bytes there. */
bool Copier::write(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length)
{
    const uint64_t offset = tier_add(plan_.offset(piece), at);
    if (tier_add(offset, length) > FILE_END) {
        return false;
    }
    const std::shared_lock<std::shared_mutex> lock(sizes_);
    if (zutr_writen(file.get(), buffer_.get(), length, static_cast<int64_t>(offset)) >= 0) {
        return true;
    }
    if (errno != EFBIG) {
        target_.fail("write", plan_.path(piece));
    }
    return false;
}

void Copier::add(uint64_t at, uint64_t length, Outcome outcome)
{
    const bool goes_on = !segments_.empty() && segments_.back().outcome == outcome;
    if (!goes_on) {
        segments_.push_back({at, 0, outcome, 0});
    }
    Segment &segment = segments_.back();
    segment.length += length;
    if (outcome == Outcome::copied) {
        segment.crc = continue_crc(segment.crc, buffer_.get(), length);
    }
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
