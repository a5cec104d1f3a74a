#include "configuration_keys.h"

#include <algorithm>
#include <iterator>

namespace tier_test {

namespace {

const SuperV1 SUPER_V1 = super_v1(3, 4, 3);
const SuperV2 SUPER_V2 = super_v2(3, 4, 3);

constexpr std::uint32_t EXTENT_NO = 2; // of the sample extents
constexpr std::uint32_t OWNER = 1;     // their inode
constexpr std::uint32_t MAP = 3;       // the sample piece
constexpr std::size_t PIECE = 16;      // bytes

ConfigKey sampling_low()
{
    ConfigKey key = number("te_sampling_low", 20, 32);
    key.reversed = true;
    return key;
}

std::vector<ConfigKey> keys_v1()
{
    constexpr Needed OPTIONAL = Needed::OPTIONAL;
    return {
        number("te_use", 32, 16, Taken::SIGNED_32, Needed::ALWAYS),
        bounded(number("te_no", 48, 64, Taken::UNSIGNED_64, Needed::ALWAYS), SUPER_V1.block_cnt),
        number("te_block", 4, 32),
        number("te_size", 8, 64, Taken::UNSIGNED_64),
        bounded(number("te_inode_no", 16, 32), SUPER_V1.inode_cnt),
        sampling_low(),
        number("te_sampling_mid", 24, 32, Taken::SIGNED_64, OPTIONAL),
        number("te_sampling_high", 28, 32, Taken::SIGNED_64, OPTIONAL),
        number("te_clean", 34, 16, Taken::SIGNED_32),
        number("te_ntime", 36, 32, Taken::SIGNED_64, OPTIONAL),
        number("te_hot", 40, 64, Taken::UNSIGNED_64, OPTIONAL),
        {.name = "te_bitmap",
         .holds = Holds::ARRAY,
         .sample = "[81985529216486895,2]", // 0x123456789ABCDEF
         .texts = {{"[]", "te_bitmap is invalid. bitmap:<address>, cnt:2"},
                   {"[1]", "te_bitmap is invalid. bitmap:<address>, cnt:2"},
                   {"[1,2,3]", "te_bitmap is invalid. bitmap:<address>, cnt:2"},
                   {"[null,2]", "te_bitmap index 0 is invalid, value:<address>"},
                   {"[1,\"2\"]", "te_bitmap index 1 is invalid, value:<address>"},
                   {"[[1],2]", "te_bitmap index 0 is invalid, value:<address>"}},
         .mistyped = "te_bitmap is invalid. bitmap:<address>, cnt:2",
         .missing = "te_bitmap is invalid. bitmap:(nil), cnt:2"},
    };
}

LogLine refused(const char *parser, const Block &block)
{
    return error_line(parser, text("te_no %lu or i_no %u is invalid, block_cnt:3, inode_cnt:4",
                                   get_u64(block, 48), get_u32(block, 16)));
}

Log refusals_v1(const Block &block)
{
    if (get_u64(block, 48) < SUPER_V1.block_cnt && get_u32(block, 16) < SUPER_V1.inode_cnt)
        return {};
    return {refused("parse_extent_from_json_v1", block)};
}

// The inode is looked at only when the extent's number is right.
Log refusals_v2(const Block &block)
{
    Log log;
    const bool number_is_right = get_u64(block, 48) < SUPER_V2.block_cnt;
    if (number_is_right && get_u32(block, 16) < SUPER_V2.inode_cnt)
        return log;
    if (number_is_right)
        log.push_back(invalid_inode_v2(get_u32(block, 16), SUPER_V2));
    log.push_back(refused("parse_extent_from_json_v2", block));
    return log;
}

ConfigTable extent_config_v1()
{
    ExtentV1 extent = extent_used(EXTENT_NO, OWNER);
    extent.bitmap = {0x0123'4567'89AB'CDEFU, 2};
    return {
        .name = "ExtentV1",
        .command = "repair_extent",
        .code = 12,
        .parser = "parse_extent_from_json_v1",
        .device = [] { return make_v1_device(SUPER_V1); },
        .sample = {.block = encode(extent, SUPER_V1.extent_size)},
        .keys = keys_v1(),
        .use = "te_use",
        .place = [](const Made &made) { return extent_offset(SUPER_V1, get_u64(made.block, 48)); },
        .seal = [](Block &block) { seal(block, SUPER_V1.extent_size); },
        .refusals = refusals_v1,
        .checksum_key = "te_checksum",
    };
}

ExtentV2 sample_v2()
{
    ExtentV2 extent = extent_v2(EXTENT_NO);
    extent.use = 1;
    extent.inode_no = OWNER;
    extent.sampling_low = 0x01223344;
    extent.sampling_mid = 0xFFFF'FFFDU;
    extent.sampling_high = 0xFFFF'FFFCU;
    extent.maps[MAP] = {0xFFFF'FFFF'FFFF'0000U, 1, 32768, 24, 0x8001};
    return extent;
}

// The record of a map number.
auto record(Block &block, std::uint64_t map)
{
    return block.begin() + static_cast<std::ptrdiff_t>(SUPER_V2.extent_size + PIECE * map);
}

void move_piece(Made &made, std::uint64_t map)
{
    Block moved = made.block;
    std::fill_n(record(moved, MAP), PIECE, std::uint8_t{0});
    std::copy_n(record(made.block, MAP), PIECE, record(moved, map));
    made.block = moved;
}

std::vector<ConfigKey> piece_keys()
{
    const std::size_t at = SUPER_V2.extent_size + PIECE * MAP;
    ConfigKey map = number("mapno", at, 32);
    map.sample = std::to_string(MAP);
    map.more = {"31", "32"};
    map.apply = move_piece;
    map.refuse = [](std::uint64_t value) {
        return value < SUPER_V2.map_cnt
                   ? std::string()
                   : text("te_mapped_meta mapno %d is invalid, index:0, map_cnt:32",
                          static_cast<int>(static_cast<std::uint32_t>(value)));
    };
    ConfigKey clean = number("clean", at + 8, 1, Taken::UNSIGNED_64);
    ConfigKey length = number("len", at + 8, 31, Taken::UNSIGNED_64);
    length.shift = 1;
    length.more = {"1048575", "1048576", "1048577"};
    length.refuse = [](std::uint64_t value) {
        return value <= SUPER_V2.block_size ? std::string()
                                            : text("map 3 orig_len(%lu) is invalid, block_size:%u",
                                                   value, SUPER_V2.block_size);
    };
    return {
        map,
        number("offset", at, 64, Taken::UNSIGNED_64),
        clean,
        length,
        number("begin", at + 12, 16, Taken::SIGNED_32),
        number("cnt", at + 14, 16, Taken::SIGNED_32),
    };
}

ConfigTable extent_config_v2()
{
    return {
        .name = "ExtentV2",
        .command = "repair_extent",
        .code = 12,
        .parser = "parse_extent_from_json_v2",
        .device = [] { return make_v2_device(SUPER_V2); },
        .sample = {.block = encode(sample_v2(), SUPER_V2)},
        .keys = {},
        .use = "te_use",
        .place = [](const Made &made) { return extent_offset(SUPER_V2, get_u64(made.block, 48)); },
        .seal = [](Block &block) { seal(block, SUPER_V2.total_extent_size); },
        .refusals = refusals_v2,
        .checksum_key = "te_checksum",
    };
}

std::vector<ConfigTable> configs_v2()
{
    ConfigTable pieces = extent_config_v2();
    pieces.name = "PieceV2";
    pieces.keys = piece_keys();
    pieces.use.clear();

    ConfigTable extents = extent_config_v2();
    extents.keys = {
        number("te_use", 32, 16, Taken::SIGNED_32, Needed::ALWAYS),
        bounded(number("te_no", 48, 64, Taken::UNSIGNED_64, Needed::ALWAYS), SUPER_V2.block_cnt),
        bounded(number("te_inode_no", 16, 32), SUPER_V2.inode_cnt),
        sampling_low(),
        number("te_sampling_mid", 24, 32, Taken::SIGNED_64, Needed::OPTIONAL),
        number("te_sampling_high", 28, 32, Taken::SIGNED_64, Needed::OPTIONAL),
        {.name = "te_mapped_meta",
         .holds = Holds::ARRAY,
         .sample = "[" + object_text(pieces) + "]",
         .texts = {{"[5]", "te_mapped_meta index 0 is invalid, value:<address>"},
                   {"[null]", "te_mapped_meta index 0 is invalid, value:<address>"},
                   {"[[]]", "te_mapped_meta index 0 is invalid, value:<address>"},
                   {"[{}]", "parse mapno failed"}},
         .mistyped = "te_mapped_meta is invalid. te_mapped_meta:<address>",
         .missing = "te_mapped_meta is invalid. te_mapped_meta:(nil)"},
    };
    const std::string whole = object_text(extents);
    const std::size_t at = whole.find(object_text(pieces));
    pieces.before = whole.substr(0, at);
    pieces.behind = whole.substr(at + object_text(pieces).size());
    return {extents, pieces};
}

} // namespace

std::vector<ConfigTable> extent_configs()
{
    std::vector<ConfigTable> tables = configs_v2();
    tables.insert(tables.begin(), extent_config_v1());
    return tables;
}

} // namespace tier_test
