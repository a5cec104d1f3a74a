#include "configuration_rules.h"

#include <algorithm>

namespace tier_test {

namespace {

bool within(std::uint64_t value, std::uint64_t first, std::uint64_t last)
{
    return value >= first && value <= last;
}

// The head of V1 and V2.

std::uint64_t inodes_start(const Block &b)
{
    return get_u32(b, 116) + 4096U + get_u64(b, 8);
}

std::uint64_t padded_inodes(const Block &b)
{
    return round_up(inodes_start(b) + get_u32(b, 124) * std::uint64_t{4096}, MIB) - inodes_start(b);
}

std::uint64_t data_offset(const Block &b)
{
    return round_up(inodes_start(b) + get_u64(b, 16) + get_u64(b, 24) + 2 * MIB, MIB);
}

const GeometryRule SIZE{[](const Block &b) { return get_u32(b, 116) == MIB; },
                        [](const Block &b) {
                            return text("sb size is invalid. expect:1048576, real:%u",
                                        get_u32(b, 116));
                        }};
const GeometryRule BRICKS_OF_HEAD{
    [](const Block &b) {
        return within(get_u32(b, 120), 1, 300) && get_u64(b, 8) == get_u32(b, 120) * 4096U;
    },
    [](const Block &b) {
        return text("brick params is invalid. brick_cnt:%u, brick_table_size:%lu, expect "
                    "brick_cnt:[1-300]",
                    get_u32(b, 120), get_u64(b, 8));
    }};
const GeometryRule INODES_OF_HEAD{
    [](const Block &b) {
        return within(get_u32(b, 124), 1, 100000) && get_u64(b, 16) == padded_inodes(b);
    },
    [](const Block &b) {
        return text("inode params is invalid. inode_cnt:%u, itable_size:%lu, expect "
                    "inode_cnt:[1-100000]",
                    get_u32(b, 124), get_u64(b, 16));
    }};
const GeometryRule BLOCKS_OF_HEAD{
    [](const Block &b) {
        return within(get_u32(b, 128), 262144, 4194304) && get_u32(b, 128) % 4096 == 0;
    },
    [](const Block &b) {
        return text("block size(%u) is invalid. expect block_size:[262144-4194304] and must 4k "
                    "aligned",
                    get_u32(b, 128));
    }};
const GeometryRule EXTENTS_V1{[](const Block &b) { return within(get_u32(b, 136), 56, 4096); },
                              [](const Block &b) {
                                  return text("extent size(%u) is invalid. expect size:[56-4096]",
                                              get_u32(b, 136));
                              }};
const GeometryRule EXTENTS_V2{
    [](const Block &b) { return within(get_u32(b, 136), 56, 4096) && get_u32(b, 164) <= 4096; },
    [](const Block &b) {
        return text("extent size(%u) is invalid. totoal extent_size:%u, expect size:[56-4096]",
                    get_u32(b, 136), get_u32(b, 164));
    }};
const GeometryRule EXTENT_TABLE{
    [](const Block &b) { return get_u64(b, 24) == get_u32(b, 132) * std::uint64_t{4096}; },
    [](const Block &b) {
        return text("extent table size(%lu) is invalid. block_cnt:%u", get_u64(b, 24),
                    get_u32(b, 132));
    }};
const GeometryRule PIECES_V2{[](const Block &b) { return get_u32(b, 144) <= get_u32(b, 128); },
                             [](const Block &b) {
                                 return text("min_alloc_size(%u) is invalid. block_size:%u",
                                             get_u32(b, 144), get_u32(b, 128));
                             }};
const GeometryRule MAPS_V2{
    [](const Block &b) {
        return get_u32(b, 152) <= 64 &&
               get_u32(b, 148) == std::uint64_t{get_u32(b, 156)} * get_u32(b, 152);
    },
    [](const Block &b) {
        return text("map params is invalid. map_cnt:%u, map_size:%u, total_map_size:%u",
                    get_u32(b, 152), get_u32(b, 156), get_u32(b, 148));
    }};
const GeometryRule DATA{[](const Block &b) { return get_u64(b, 32) == data_offset(b); },
                        [](const Block &b) {
                            return text("data offset(%lu) is invalid. expect:%lu", get_u64(b, 32),
                                        data_offset(b));
                        }};

// Of all layouts.
const GeometryRule SSD_UUID{[](const Block &b) { return get_text(b, 64).size() == 38; },
                            [](const Block &b) {
                                return text("ssd uuid(%s) length(%zu) is invalid. expect:38",
                                            get_text(b, 64).c_str(), get_text(b, 64).size());
                            }};

// V3.

const GeometryRule SIZE_V3{[](const Block &b) { return get_u64(b, 16) == MIB; },
                           [](const Block &b) {
                               return text("sb size is invalid. expect:1048576, real:%lu",
                                           get_u64(b, 16));
                           }};
const GeometryRule BLOCKS_V3{
    [](const Block &b) {
        return within(get_u64(b, 248), 8192, 65536) && get_u64(b, 248) % 4096 == 0;
    },
    [](const Block &b) {
        return text("block size(%lu) is invalid. expect block_size:[8192-65536] and must 4k "
                    "aligned",
                    get_u64(b, 248));
    }};
const GeometryRule BRICKS_V3{
    [](const Block &b) {
        return within(get_u64(b, 136), 1, 300) && get_u64(b, 128) >= get_u64(b, 136) * 4096;
    },
    [](const Block &b) {
        return text("brick params is invalid. brick_cnt:%lu, brick_table_size:%lu, expect "
                    "brick_cnt:[1-300]",
                    get_u64(b, 136), get_u64(b, 128));
    }};

// A table whose size follows its offset, and its count the size.
GeometryRule table_v3(const char *label, std::size_t size, std::uint64_t entry, std::uint64_t most)
{
    return {[=](const Block &b) {
                return within(get_u64(b, size + 8), 1, most) &&
                       get_u64(b, size) == get_u64(b, size + 8) * entry;
            },
            [=](const Block &b) {
                return text("%s params is invalid. %s_cnt:%lu, itable_size:%lu, expect "
                            "%s_cnt:[1-%lu]",
                            label, label, get_u64(b, size + 8), get_u64(b, size), label, most);
            }};
}

const GeometryRule DATA_V3{
    [](const Block &b) { return get_u64(b, 240) == get_u64(b, 248) * get_u64(b, 256); },
    [](const Block &b) {
        return text("data params is invalid. sb_block_size:%lu, sb_block_cnt:%lu", get_u64(b, 248),
                    get_u64(b, 256));
    }};

} // namespace

const std::vector<GeometryRule> &rules_v1()
{
    static const std::vector<GeometryRule> RULES{SIZE,           BRICKS_OF_HEAD, INODES_OF_HEAD,
                                                 BLOCKS_OF_HEAD, EXTENTS_V1,     EXTENT_TABLE,
                                                 DATA,           SSD_UUID};
    return RULES;
}

const std::vector<GeometryRule> &rules_v2()
{
    static const std::vector<GeometryRule> RULES{
        SIZE,         BRICKS_OF_HEAD, INODES_OF_HEAD, BLOCKS_OF_HEAD, EXTENTS_V2,
        EXTENT_TABLE, PIECES_V2,      MAPS_V2,        DATA,           SSD_UUID};
    return RULES;
}

const std::vector<GeometryRule> &rules_v3()
{
    static const std::vector<GeometryRule> RULES{SIZE_V3,
                                                 BLOCKS_V3,
                                                 BRICKS_V3,
                                                 table_v3("inode", 152, 4096, 262144),
                                                 table_v3("shard", 176, 8, 524288),
                                                 table_v3("extent", 200, 8, 1073741824),
                                                 DATA_V3,
                                                 SSD_UUID};
    return RULES;
}

Log first_broken(const char *func, const std::vector<GeometryRule> &rules, const Block &block)
{
    const auto broken =
        std::ranges::find_if(rules, [&](const GeometryRule &rule) { return !rule.holds(block); });
    return broken == rules.end() ? Log{} : Log{error_line(func, broken->message(block))};
}

} // namespace tier_test
