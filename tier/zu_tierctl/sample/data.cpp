#include "zu_tierctl/sample/data.h"

#include "zu_tierctl/entry/owners.h"
#include "zu_tierctl/entry/pieces.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>

namespace tierctl {

namespace {

using Page = std::array<uint8_t, SIZE_4K>;

/* What is repeated in a page. */
struct Mark {
    OwnerName file;
    uint64_t place;
    uint64_t offset;
};
static_assert(sizeof(Mark) == 32);

/* Calls `use` with each entry in use. The image is just made: all are sound. */
void each_entry(const Image &image, const Table &table,
                const std::function<void(uint64_t no, const uint8_t *entry)> &use)
{
    alignas(SIZE_4K) Page slot;
    for (uint64_t no = 0; no < table.count(); no++) {
        image.read(table.slot(no), slot.data(), slot.size());
        for (uint32_t k = table.first_word; k < table.end_word; k++) {
            const uint8_t *entry = Table::entry(slot.data(), k);
            if (table.in_use(entry)) {
                use(no * table.end_word + k, entry);
            }
        }
    }
}

/* Writes the pages of a piece, of which `mark` is the first. Extents may have no data block. */
void write_piece(Image &image, uint64_t size, Mark mark, bool is_placed, uint64_t length)
{
    alignas(SIZE_4K) Page page;
    for (uint64_t done = 0; done < length && mark.offset < size; done += SIZE_4K) {
        for (size_t at = 0; at < page.size(); at += sizeof(mark)) {
            memcpy(page.data() + at, &mark, sizeof(mark));
        }
        image.write(static_cast<int64_t>(mark.offset), page.data(), page.size());
        mark.offset += SIZE_4K;
        mark.place += is_placed ? SIZE_4K : 0;
    }
}

} // namespace

void write_data(Image &image, uint64_t size, const std::vector<Table> &tables, const void *super)
{
    const auto holds_data = [](const Table &table) { return table.row->data != nullptr; };
    const Table &table = *std::ranges::find_if(tables, holds_data);
    Owners owners(tables, table);
    for (size_t level = 0; level < owners.levels(); level++) {
        each_entry(image, owners.level(level), [&owners, level](uint64_t no, const uint8_t *entry) {
            owners.add(level, no, entry);
        });
    }
    owners.finish();
    const tier_data &data = *table.row->data;
    each_entry(image, table, [&](uint64_t no, const uint8_t *entry) {
        const OwnerName file = owners.uuid(table.row->owner.no.get(entry));
        each_piece(data, super, entry, no, [&](const tier_piece &piece, HeldBy) {
            write_piece(image, size, {file, piece.place, piece.start}, data.placed, piece.length);
        });
    });
}

} // namespace tierctl
