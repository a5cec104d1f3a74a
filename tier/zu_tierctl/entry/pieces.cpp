#include "zu_tierctl/entry/pieces.h"

#include <array>
#include <span>

namespace tierctl {

namespace {

using UsePiece = std::function<void(const tier_piece &piece, HeldBy by)>;

/* Gives the runs of marked pages of a block that begins with `block`; false when there is none. */
bool each_run(const tier_data &data, const void *sb, const uint8_t *entry, const tier_piece &block,
              const UsePiece &use)
{
    const uint64_t pages = data.block_size(sb) / SIZE_4K;
    bool is_any = false;
    for (uint64_t first = 0; first < pages; first++) {
        uint64_t end = first;
        while (end < pages && data.page_is_valid(entry, static_cast<uint32_t>(end))) {
            end++;
        }
        if (end == first) {
            continue;
        }
        tier_piece run = block;
        run.place = tier_add(block.place, first * SIZE_4K);
        run.start = tier_add(block.start, first * SIZE_4K);
        run.length = (end - first) * SIZE_4K;
        use(run, HeldBy::pages);
        is_any = true;
        first = end;
    }
    return is_any;
}

} // namespace

std::string_view held_by_text(HeldBy by)
{
    constexpr std::string_view TEXTS[] = {"piece", "bitmap", "size", "block"};
    return TEXTS[static_cast<size_t>(by)];
}

void each_piece(const tier_data &data, const void *sb, const uint8_t *entry, uint64_t no,
                const UsePiece &use)
{
    std::array<tier_piece, TIER_PIECES_MAX> pieces;
    const uint32_t count = data.pieces(sb, entry, no, pieces.data());
    const bool by_size = data.marks_pages != nullptr;
    const HeldBy by = by_size ? HeldBy::size : data.bounded ? HeldBy::block : HeldBy::piece;
    for (const tier_piece &piece : std::span(pieces).first(count)) {
        const bool is_given =
            by_size && data.marks_pages(sb) && each_run(data, sb, entry, piece, use);
        if (!is_given && piece.length != 0) {
            use(piece, by);
        }
    }
}

bool size_fits_pages(const tier_data &data, const void *sb, const uint8_t *entry, uint64_t no,
                     uint64_t marked)
{
    std::array<tier_piece, TIER_PIECES_MAX> pieces;
    data.pieces(sb, entry, no, pieces.data());
    const uint64_t size = pieces.front().length;
    return size <= marked && marked - size < SIZE_4K;
}

} // namespace tierctl
