#include "common/zutr_utils.h"
#include "zu_tier/format/v1.h"
#include "zu_tier/format/v2.h"
#include "zu_tier/format/v3.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <uuid/uuid.h>

/* A walk over one table of a sound device, written the straightforward way: the yardstick of the
 * benchmarks. One fprintf an entry, a checksum byte by byte, localtime for each time stamp, one
 * vfprintf for each line of the log. Its output is that of the tool.
 *
 *   straightforward DEVICE TABLE [OWNER [LOG]]
 *
 * TABLE: v1_inode, v1_extent, v2_inode, v2_extent, v3_shard, v3_extent. OWNER -1 prints everything;
 * an empty LOG stands for the default one, which is tried for each line. */

namespace {

struct walk {
    int fd = -1;
    int owner = -1;
    const char *log_path = "/kd/log/zu/zu_tier.log";
    FILE *log = nullptr;
    alignas(8) uint8_t super[SIZE_4K] = {};
    const char *delim = "";

    FILE *logger()
    {
        if (log == nullptr) {
            log = fopen(log_path, "a");
        }
        return log;
    }
};

walk g_walk;

[[gnu::format(printf, 2, 3)]] void log_debug(const char *func, const char *format, ...)
{
    FILE *fp = g_walk.logger();
    if (fp != nullptr) {
        char line[512];
        snprintf(line, sizeof(line), "[DEBUG] [%s:%d] %s\n", func, 30, format);
        va_list args;
        va_start(args, format);
        vfprintf(fp, line, args);
        va_end(args);
    }
}

/* The reference: a table of 256 entries. */
uint32_t crc32_bytewise(const void *data, size_t len)
{
    static const auto table = [] {
        std::array<uint32_t, 256> entries{};
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t crc = i;
            for (int bit = 0; bit < 8; bit++) {
                crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320U : 0);
            }
            entries[i] = crc;
        }
        return entries;
    }();
    const auto *bytes = static_cast<const uint8_t *>(data);
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < len; i++) {
        crc = crc >> 8 ^ table[(crc ^ bytes[i]) & 0xFF];
    }
    return crc ^ 0xFFFFFFFF;
}

template <class Record>
bool sealed(const Record *record, size_t size)
{
    uint32_t stored = 0;
    memcpy(&stored, record, sizeof(stored));
    return stored == crc32_bytewise(reinterpret_cast<const uint8_t *>(record) + 4, size - 4);
}

[[noreturn]] void damaged(uint64_t no)
{
    fprintf(stderr, "entry %lu is damaged\n", no);
    exit(1);
}

std::string time_text(uint64_t ns)
{
    char text[64] = {};
    const auto seconds = static_cast<time_t>(ns / 1000000000);
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", localtime(&seconds));
    return text;
}

std::string uuid_text(const uint8_t *uu)
{
    char text[37];
    uuid_unparse_lower(uu, text);
    return text;
}

void put_delim()
{
    if (*g_walk.delim != '\0') {
        fprintf(stdout, "%s", g_walk.delim);
    }
    g_walk.delim = ",";
}

template <class Super>
const Super &super_of()
{
    return *reinterpret_cast<const Super *>(g_walk.super);
}

/* Inodes of V1 and V2 */

template <class Super>
void show_inode(uint64_t no, uint8_t *slot, const char *key1, const char *key2, const char *func)
{
    const auto *inode = reinterpret_cast<const tier_inode_t *>(slot);
    if (!sealed(inode, sizeof(*inode)) || inode->i_no != no) {
        damaged(no);
    }
    if (g_walk.owner >= 0 &&
        (inode->i_use == 0 || inode->i_brick_no != static_cast<uint32_t>(g_walk.owner))) {
        log_debug(func, "ignore inode %d, i_use:%d, i_uuid:%s, i_brick_no:%d", static_cast<int>(no),
                  inode->i_use, uuid_text(inode->i_uuid).c_str(),
                  static_cast<int>(inode->i_brick_no));
        return;
    }
    put_delim();
    fprintf(stdout,
            "{\"checksum\":\"0x%x\",\"magic\":\"0x%x\",\"atime\":\"%s\",\"ctime\":\"%s\","
            "\"mtime\":\"%s\",\"dtime\":\"%s\",\"uuid\":\"%s\",\"size\":%lu,\"priority\":%u,"
            "\"no\":%u,\"brick_no\":%u,\"unlink\":%hu,\"use\":%hu,\"%s\":%lu,\"%s\":%lu,"
            "\"meta_offset\":%ld}",
            inode->i_checksum, inode->i_magic, time_text(inode->i_atime).c_str(),
            time_text(inode->i_ctime).c_str(), time_text(inode->i_mtime).c_str(),
            time_text(inode->i_dtime).c_str(), uuid_text(inode->i_uuid).c_str(), inode->i_size,
            inode->i_priority, inode->i_no, inode->i_brick_no, inode->i_unlink, inode->i_use, key1,
            inode->i_reserved1, key2, inode->i_reserved2, tier_inodes(super_of<Super>()).slot(no));
}

void show_inode_v1(uint64_t no, uint8_t *slot)
{
    show_inode<tier_super_block_v1_t>(no, slot, "reserved1", "reserved2", "__dump_inode_v1");
}

void show_inode_v2(uint64_t no, uint8_t *slot)
{
    show_inode<tier_super_block_v2_t>(no, slot, "new_data", "blocks", "__dump_inode_v2");
}

/* Extents of V1 and V2 */

template <class Super>
bool extent_passes(uint64_t no, const tier_extent_t *extent, size_t size, const char *func)
{
    if (!sealed(extent, size) || extent->te_reserved1 != no) {
        damaged(no);
    }
    if (g_walk.owner >= 0 &&
        (extent->te_use == 0 || extent->te_inode_no != static_cast<uint32_t>(g_walk.owner))) {
        log_debug(func, "ignore extent %d, te_use:%d, te_brick_no:%d", static_cast<int>(no),
                  extent->te_use, static_cast<int>(extent->te_inode_no));
        return false;
    }
    put_delim();
    fprintf(stdout,
            "{\"te_checksum\":\"0x%x\",\"te_block\":%u,\"te_size\":%lu,\"te_inode_no\":%u,"
            "\"te_sampling_low\":\"%08x\",\"te_sampling_mid\":%u,\"te_sampling_high\":%u,"
            "\"te_use\":%hu,\"te_clean\":%hu,\"te_ntime\":%u,\"te_hot\":%lu,\"te_no\":%lu,",
            extent->te_checksum, extent->te_block, extent->te_size, extent->te_inode_no,
            __builtin_bswap32(extent->te_sampling_low), extent->te_sampling_mid,
            extent->te_sampling_high, extent->te_use, extent->te_clean, extent->te_ntime,
            extent->te_hot, extent->te_reserved1);
    return true;
}

void show_extent_v1(uint64_t no, uint8_t *slot)
{
    using super_v1 = tier_super_block_v1_t;
    const auto &sb = super_of<super_v1>();
    const auto *extent = reinterpret_cast<const tier_extent_t *>(slot);
    if (!extent_passes<super_v1>(no, extent, sb.sb_extent_size, "__dump_extent_v1")) {
        return;
    }
    const uint32_t words = tier_bitmap_words_v1(sb.sb_extent_size);
    const auto *bitmap = reinterpret_cast<const uint64_t *>(extent + 1);
    const size_t len = size_t{words} * 24 + 1;
    auto *text = static_cast<char *>(calloc(1, len));
    size_t used = 0;
    for (uint32_t i = 0; i < words; i++) {
        used += static_cast<size_t>(snprintf(text + used, len - used, "0x%016lx ", bitmap[i]));
    }
    fprintf(stdout, "\"meta_offset\":%ld,\"te_bitmap\":\"%s\"}", tier_extents(sb).slot(no), text);
    free(text);
}

void show_extent_v2(uint64_t no, uint8_t *slot)
{
    using super_v2 = tier_super_block_v2_t;
    const auto &sb = super_of<super_v2>();
    const auto *extent = reinterpret_cast<const tier_extent_t *>(slot);
    if (!extent_passes<super_v2>(no, extent, sb.sb_total_extent_size, "__dump_extent_v2")) {
        return;
    }
    fprintf(stdout, "\"meta_offset\": %ld,\"te_mapped_meta\":[", tier_extents(sb).slot(no));
    const uint64_t block = sb.sb_data_offset + no * sb.sb_block_size;
    const char *delim = "";
    for (uint32_t i = 0; i < sb.sb_map_cnt; i++) {
        tier_mapped_meta_v2_t piece;
        memcpy(&piece, slot + sb.sb_extent_size + i * sizeof(piece), sizeof(piece));
        if (piece.orig_len() != 0) {
            fprintf(stdout,
                    "%s{\"offset\":%lu,\"clean\":%u,\"orig_len\":%u,\"begin\":%hu,\"cnt\":%hu,"
                    "\"mapno\":%u,\"data_phy_offset\":%lu}",
                    delim, piece.offset, piece.clean(), piece.orig_len(), piece.begin, piece.cnt, i,
                    block + uint64_t{piece.begin} * SIZE_4K);
            delim = ",";
        }
    }
    fprintf(stdout, "]}");
}

/* Shards and extents of V3 */

bool packed_passes(uint64_t in_use, uint64_t owner)
{
    return g_walk.owner < 0 || (in_use != 0 && owner == static_cast<uint64_t>(g_walk.owner));
}

struct shard {
    uint32_t ino : 18;
    uint32_t in_use : 1;
    uint32_t reserved : 13;
    uint32_t index;
};

void show_shards_v3(uint64_t no, uint8_t *slot)
{
    if (!sealed(slot, SIZE_4K)) {
        damaged(no);
    }
    const auto *shards = reinterpret_cast<const shard *>(slot);
    const auto passes = [](const shard &s) { return packed_passes(s.in_use, s.ino); };
    if (std::none_of(shards + 1, shards + TIER_PACKED_SLOTS_V3, passes)) {
        return;
    }
    uint32_t head[2];
    memcpy(head, slot, sizeof(head));
    put_delim();
    fprintf(stdout,
            "{\"checksum\":\"0x%x\",\"magic\":\"0x%x\",\"meta_offset\": %ld,\"shards\":", head[0],
            head[1], tier_shards_v3(super_of<tier_super_block_v3_t>()).slot(no));
    fprintf(stdout, "[");
    const char *delim = "";
    for (uint32_t k = 1; k < TIER_PACKED_SLOTS_V3; k++) {
        const shard &s = shards[k];
        if (passes(s)) {
            fprintf(stdout, "%s", delim);
            fprintf(stdout, "{\"ino\":%u,\"in_use\":%u,\"reserved\":%u,\"sno\":%lu,\"index\":%u}",
                    s.ino, s.in_use, s.reserved, no * TIER_PACKED_SLOTS_V3 + k, s.index);
            delim = ",";
        } else {
            log_debug("__dump_shard_v3", "ignore shard:%d, in_use:%d, inode_no:%d",
                      static_cast<int>(no), s.in_use, s.ino);
        }
    }
    fprintf(stdout, "]}");
}

struct extent {
    uint64_t checksum : 1;
    uint64_t lba : 19;
    uint64_t shard : 19;
    uint64_t dirty : 1;
    uint64_t bitmap : 16;
    uint64_t in_use : 1;
    uint64_t sense : 4;
    uint64_t demote : 1;
    uint64_t dm_err : 1;
    uint64_t reserved : 1;
};

uint32_t stored_crc(const uint8_t *slot)
{
    void *copy = nullptr;
    if (posix_memalign(&copy, SIZE_4K, SIZE_4K) != 0) {
        abort();
    }
    memcpy(copy, slot, SIZE_4K);
    const auto *extents = static_cast<const extent *>(copy);
    uint32_t crc = 0;
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        crc |= static_cast<uint32_t>(extents[i].checksum) << i;
    }
    free(copy);
    return crc;
}

void show_extents_v3(uint64_t no, uint8_t *slot)
{
    auto *extents = reinterpret_cast<extent *>(slot);
    const uint32_t crc = stored_crc(slot);
    for (uint32_t i = 0; i < TIER_EXTENT_CRC_BITS_V3; i++) {
        extents[i].checksum = 0;
    }
    if (crc != crc32_bytewise(slot, SIZE_4K)) {
        damaged(no);
    }
    const auto passes = [](const extent &e) { return packed_passes(e.in_use, e.shard); };
    if (std::none_of(extents, extents + TIER_PACKED_SLOTS_V3, passes)) {
        return;
    }
    put_delim();
    fprintf(stdout, "{\"checksum\":\"0x%x\",\"meta_offset\": %ld,\"extents\":", crc,
            tier_extents_v3(super_of<tier_super_block_v3_t>()).slot(no));
    fprintf(stdout, "[");
    const char *delim = "";
    for (uint32_t k = 0; k < TIER_PACKED_SLOTS_V3; k++) {
        const extent &e = extents[k];
        if (passes(e)) {
            fprintf(stdout, "%s", delim);
            fprintf(stdout,
                    "{\"lba\":%u,\"shard\":%u,\"dirty\":%u,\"in_use\":%u,\"sense\":%u,"
                    "\"demote\":%u,\"dm_err\":%u,\"reserved\":%u,\"eno\":%lu,\"bitmap\":%u}",
                    static_cast<uint32_t>(e.lba), static_cast<uint32_t>(e.shard),
                    static_cast<uint32_t>(e.dirty), static_cast<uint32_t>(e.in_use),
                    static_cast<uint32_t>(e.sense), static_cast<uint32_t>(e.demote),
                    static_cast<uint32_t>(e.dm_err), static_cast<uint32_t>(e.reserved),
                    no * TIER_PACKED_SLOTS_V3 + k, static_cast<uint32_t>(e.bitmap));
            delim = ",";
        } else {
            log_debug("__dump_extent_v3", "ignore extent:%d, in_use:%d, shard_no:%d",
                      static_cast<int>(no), static_cast<int>(e.in_use), static_cast<int>(e.shard));
        }
    }
    fprintf(stdout, "]}");
}

struct table {
    const char *name;
    const char *before;
    const char *after;
    tier_region (*region)();
    void (*show)(uint64_t no, uint8_t *slot);
};

constexpr table TABLES[] = {
    {"v1_inode", "[", "]", [] { return tier_inodes(super_of<tier_super_block_v1_t>()); },
     show_inode_v1},
    {"v1_extent", "[", "]", [] { return tier_extents(super_of<tier_super_block_v1_t>()); },
     show_extent_v1},
    {"v2_inode", "{ \"inode\":[", "]}",
     [] { return tier_inodes(super_of<tier_super_block_v2_t>()); }, show_inode_v2},
    {"v2_extent", "[", "]", [] { return tier_extents(super_of<tier_super_block_v2_t>()); },
     show_extent_v2},
    {"v3_shard", "[", "]", [] { return tier_shards_v3(super_of<tier_super_block_v3_t>()); },
     show_shards_v3},
    {"v3_extent", "[", "]", [] { return tier_extents_v3(super_of<tier_super_block_v3_t>()); },
     show_extents_v3},
};

void walk_table(const table &t)
{
    void *buffer = nullptr;
    if (posix_memalign(&buffer, SIZE_4K, SIZE_1M) != 0) {
        abort();
    }
    const tier_region region = t.region();
    const int64_t end = region.slot(region.count);
    uint64_t no = 0;
    fprintf(stdout, "%s", t.before);
    for (int64_t offset = region.start; offset < end; offset += SIZE_1M) {
        const auto len = static_cast<size_t>(std::min<int64_t>(SIZE_1M, end - offset));
        if (pread(g_walk.fd, buffer, len, offset) != static_cast<ssize_t>(len)) {
            damaged(no);
        }
        for (size_t at = 0; at < len; at += SIZE_4K) {
            t.show(no++, static_cast<uint8_t *>(buffer) + at);
        }
    }
    fprintf(stdout, "%s", t.after);
    free(buffer);
}

} // namespace

int main(int argc, char *argv[])
{
    const auto named = [argv](const table &t) { return strcmp(t.name, argv[2]) == 0; };
    const table *t =
        argc < 3 ? std::end(TABLES) : std::find_if(std::begin(TABLES), std::end(TABLES), named);
    if (t == std::end(TABLES)) {
        fprintf(stderr, "usage: straightforward DEVICE TABLE [OWNER [LOG]]\n");
        return 2;
    }
    g_walk.fd = open(argv[1], O_RDONLY | O_DIRECT);
    g_walk.owner = argc > 3 ? atoi(argv[3]) : -1;
    g_walk.log_path = argc > 4 ? argv[4] : g_walk.log_path;
    void *super = nullptr;
    if (g_walk.fd < 0 || posix_memalign(&super, SIZE_4K, SIZE_4K) != 0 ||
        pread(g_walk.fd, super, SIZE_4K, TIER_SUPER_OFFSET) != SIZE_4K) {
        perror(argv[1]);
        return 1;
    }
    memcpy(g_walk.super, super, SIZE_4K);
    free(super);
    walk_table(*t);
    return fflush(stdout) == 0 ? 0 : 1;
}
