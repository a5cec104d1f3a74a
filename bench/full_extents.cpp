#include "common/zutr_utils.h"
#include "zu_tier/layout/v3/v3.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <unistd.h>
#include <vector>

/* Gives a V3 sample an extent table of so many extents, all in use and no two alike, but for so
 * many pairs, evenly spread, that have the address of the same shard. Writes a line for each pair:
 * the number of the later extent and that of the earlier one.
 *
 *   full_extents IMAGE EXTENTS PAIRS */

namespace {

constexpr uint64_t LBAS = uint64_t{1} << EXTENT_LBA_V3.width;
constexpr uint64_t SCATTER = 2654435761; /* odd: its multiples reach each address */

[[noreturn]] void fail(const char *what)
{
    perror(what);
    exit(1);
}

void write_all(int fd, const void *data, size_t length, int64_t offset)
{
    if (zutr_writen(fd, data, length, offset) != static_cast<ssize_t>(length)) {
        fail("write");
    }
}

std::vector<uint64_t> shards_in_use(int fd, const tier_super_block_v3_t &super)
{
    std::vector<uint64_t> shards;
    const tier_region table = tier_shards_v3(super);
    for (uint64_t no = 0; no < table.count; no++) {
        tier_packed_block_v3_t block;
        if (zutr_readn(fd, &block, sizeof(block), table.slot(no)) != sizeof(block)) {
            fail("read");
        }
        for (uint64_t k = 1; k < TIER_PACKED_SLOTS_V3; k++) {
            if (SHARD_IN_USE_V3.get(block.word[k]) != 0) {
                shards.push_back(no * TIER_PACKED_SLOTS_V3 + k);
            }
        }
    }
    return shards;
}

/* Extents go through all addresses turn by turn, and in each turn an address has another shard. */
uint64_t extent(uint64_t no, const std::vector<uint64_t> &shards)
{
    const uint64_t lba = no * SCATTER % LBAS;
    uint64_t word = EXTENT_IN_USE_V3.put(0, 1);
    word = EXTENT_LBA_V3.put(word, lba);
    word = EXTENT_SHARD_V3.put(word, shards[(lba * 7919 + no / LBAS) % shards.size()]);
    word = EXTENT_DIRTY_V3.put(word, no % 4 == 0 ? 1 : 0);
    return EXTENT_BITMAP_V3.put(word, no % 0xFFFF + 1);
}

/* The number from which each extent of a pair that is not the one of the pair's address has it. */
std::map<uint64_t, uint64_t> make_pairs(uint64_t extents, uint64_t pairs)
{
    std::map<uint64_t, uint64_t> copies;
    for (uint64_t i = 0; i < pairs; i++) {
        const uint64_t step = extents / pairs / 2;
        copies[(2 * (pairs - 1 - i) + 1) * step] = 2 * i * step;
    }
    return copies;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 4) {
        fprintf(stderr, "usage: full_extents IMAGE EXTENTS PAIRS\n");
        return 2;
    }
    const int fd = open(argv[1], O_RDWR);
    const uint64_t extents = strtoull(argv[2], nullptr, 10);
    std::array<uint8_t, SIZE_4K> block;
    if (fd < 0 || zutr_readn(fd, block.data(), SIZE_4K, TIER_SUPER_OFFSET) != SIZE_4K) {
        fail(argv[1]);
    }
    tier_super_block_v3_t super;
    memcpy(&super, block.data(), sizeof(super));
    const std::vector<uint64_t> shards = shards_in_use(fd, super);
    super.sb_extent_table_cnt = extents;
    super.sb_extent_table_size = extents * TIER_PACKED_SIZE_V3;
    super.sb_block_area_offset = super.sb_extent_table_offset + super.sb_extent_table_size;
    super.sb_block_cnt = extents;
    super.sb_block_area_size = super.sb_block_size * super.sb_block_cnt;
    memcpy(block.data(), &super, sizeof(super));
    tier_seal(TIER_SUPER_TABLE_V3, block.data(), sizeof(super));
    write_all(fd, block.data(), SIZE_4K, TIER_SUPER_OFFSET);
    if (ftruncate(fd, static_cast<off_t>(super.sb_block_area_offset + super.sb_block_area_size)) !=
        0) {
        fail("ftruncate");
    }

    const std::map<uint64_t, uint64_t> copies = make_pairs(extents, strtoull(argv[3], nullptr, 10));
    auto copy = copies.begin();
    std::vector<tier_packed_block_v3_t> chunk(SIZE_1M / SIZE_4K);
    const tier_region table = tier_extents_v3(super);
    for (uint64_t no = 0, end = 0; no < table.count; no = end) {
        end = std::min<uint64_t>(no + chunk.size(), table.count);
        for (uint64_t i = no; i < end; i++) {
            tier_packed_block_v3_t &to = chunk[i - no];
            for (uint64_t k = 0; k < TIER_PACKED_SLOTS_V3; k++) {
                const uint64_t one = i * TIER_PACKED_SLOTS_V3 + k;
                const bool is_copy = copy != copies.end() && copy->first == one;
                to.word[k] = extent(is_copy ? copy->second : one, shards);
                if (is_copy) {
                    fmt::print("{} {}\n", std::max(one, copy->second), std::min(one, copy->second));
                    ++copy;
                }
            }
            tier_seal(TIER_EXTENT_TABLE_V3, &to, SIZE_4K);
        }
        write_all(fd, chunk.data(), (end - no) * SIZE_4K, table.slot(no));
    }
    if (fsync(fd) != 0) {
        fail("fsync");
    }
    return 0;
}
