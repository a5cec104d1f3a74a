#include "configuration_keys.h"

#include "v3_device.h"

namespace tier_test {

namespace {

constexpr std::uint32_t BRICKS = 3; // of each device
constexpr std::uint32_t INODES = 4;
constexpr std::uint32_t NO = 2; // of the sample entries

const SuperV1 V1 = super_v1(BRICKS, INODES, 3);
const SuperV2 V2 = super_v2(BRICKS, INODES, 3);
const SuperV3 V3 = super_v3(BRICKS, INODES);

template <std::size_t Length>
void seal_record(Block &block)
{
    seal(block, Length);
}

const std::vector<TextCase> UUIDS{
    {.given = "00000000-0000-0000-0000-000000000000", .stored = std::string(16, '\0')},
    {.given = "FFFFFFFF-ffff-FFFF-ffff-fffFFFfffFFF", .stored = std::string(16, '\xFF')},
    {.given = "", .error = "parse uuid  failed:-1"},
    {.given = "00000000-0000-0000-0000-00000000000",
     .error = "parse uuid 00000000-0000-0000-0000-00000000000 failed:-1"},
    {.given = "00000000-0000-0000-0000-0000000000000",
     .error = "parse uuid 00000000-0000-0000-0000-0000000000000 failed:-1"},
    {.given = "g0000000-0000-0000-0000-000000000000",
     .error = "parse uuid g0000000-0000-0000-0000-000000000000 failed:-1"},
};

TextCase brick_path(std::size_t length)
{
    const std::string path(length, 'b');
    if (length == 93)
        return {.given = path, .stored = path};
    return {.given = path,
            .error = text("bi_brickid(%s) is invalid, expect_len:93", path.substr(0, 127).c_str())};
}

std::vector<ConfigKey> brick_keys(Needed unlink)
{
    return {
        number("bi_use", 8, 32, Taken::SIGNED_64, Needed::ALWAYS),
        bounded(number("bi_no", 12, 32, Taken::SIGNED_64, Needed::ALWAYS), BRICKS),
        {.name = "bi_uuid", .holds = Holds::UUID, .byte = 16, .texts = UUIDS},
        {.name = "bi_brickid",
         .holds = Holds::TEXT,
         .byte = 32,
         .texts = {brick_path(0), brick_path(92), brick_path(93), brick_path(94), brick_path(127),
                   brick_path(128), brick_path(200)}},
        number("bi_unlink", 160, 32, Taken::SIGNED_64, unlink),
    };
}

template <class Super, class Brick>
ConfigTable brick_config(const char *version, const Super &super, Device (*device)(), Brick brick)
{
    brick.reserved = 0;
    const std::string parser = std::string("parse_brick_from_json_v") + version;
    return {
        .name = std::string("BrickV") + version,
        .command = "repair_brick",
        .code = 10,
        .parser = parser,
        .device = device,
        .sample = {.block = encode(brick)},
        .keys = brick_keys(*version == '3' ? Needed::IN_USE : Needed::OPTIONAL),
        .use = "bi_use",
        .magic = brick.magic,
        .makes_uuid = true,
        .place = [super](const Made &made) { return brick_offset(super, get_u32(made.block, 12)); },
        .seal = seal_record<Brick::LENGTH>,
        .refusals = [super, parser](const Block &block) -> Log {
            if (get_u32(block, 12) < super.brick_cnt)
                return {};
            return {error_line(parser, text("bi_no %u is invalid, max: %lu", get_u32(block, 12),
                                            std::uint64_t{super.brick_cnt}))};
        },
        .checksum_key = "bi_checksum",
    };
}

// The conversions that V3 does in another way are given.
std::vector<ConfigKey> inode_keys(Taken use, Taken priority, Taken unlink)
{
    constexpr Taken WIDE = Taken::UNSIGNED_64;
    constexpr Needed OPTIONAL = Needed::OPTIONAL;
    return {
        bounded(number("i_no", 68, 32, Taken::SIGNED_64, Needed::ALWAYS), INODES),
        number("i_use", 78, 16, use, Needed::ALWAYS),
        number("i_atime", 8, 64, WIDE, OPTIONAL),
        number("i_ctime", 16, 64, WIDE, OPTIONAL),
        number("i_mtime", 24, 64, WIDE, OPTIONAL),
        number("i_dtime", 32, 64, WIDE, OPTIONAL),
        {.name = "i_uuid", .holds = Holds::UUID, .byte = 40, .texts = UUIDS},
        number("i_size", 56, 64, WIDE),
        number("i_priority", 64, 32, priority),
        bounded(number("i_brick_no", 72, 32, WIDE), BRICKS),
        number("i_unlink", 76, 16, unlink, OPTIONAL),
    };
}

// Those of V2 and V3.
void add_counts(std::vector<ConfigKey> &keys)
{
    keys.push_back(number("new_data", 80, 64, Taken::UNSIGNED_64, Needed::OPTIONAL));
    keys.push_back(number("i_blocks", 88, 64, Taken::UNSIGNED_64, Needed::OPTIONAL));
}

template <class Super, class Inode>
ConfigTable inode_config(const char *version, const Super &super, Device (*device)(),
                         const Inode &inode)
{
    ConfigTable table{
        .name = std::string("InodeV") + version,
        .command = "repair_inode",
        .code = 11,
        .parser = std::string("parse_inode_from_json_v") + version,
        .device = device,
        .sample = {.block = encode(inode)},
        .keys = inode_keys(Taken::SIGNED_32, Taken::SIGNED_64, Taken::SIGNED_32),
        .use = "i_use",
        .magic = inode.magic,
        .place = [super](const Made &made) { return inode_offset(super, get_u32(made.block, 68)); },
        .seal = seal_record<Inode::LENGTH>,
        .checksum_key = "checksum",
    };
    return table;
}

Log inode_refusals_v1(const Block &block)
{
    const std::uint32_t no = get_u32(block, 68);
    const std::uint32_t brick = get_u32(block, 72);
    if (no < V1.inode_cnt && brick < V1.brick_cnt)
        return {};
    return {
        error_line("parse_inode_from_json_v1",
                   text("i_no %u or brick_no %u is invalid, max i_cnt:4, max b_cnt:3", no, brick))};
}

Log inode_refusals_v2(const Block &block)
{
    const std::uint32_t no = get_u32(block, 68);
    const std::uint32_t brick = get_u32(block, 72);
    Log log;
    if (brick < V2.brick_cnt && no < V2.inode_cnt)
        return log;
    if (brick < V2.brick_cnt) // else the number is not looked at
        log.push_back(invalid_inode_v2(no, V2));
    log.push_back(error_line(
        "parse_inode_from_json_v2",
        text("repiar_file i_no %u input ino: -1 or brick_no %u is invalid, exp_magic :0x0 exp "
             "exp_inuse: 0x0max i_cnt:4, max b_cnt:3",
             no, brick)));
    return log;
}

// The number is signed.
Log inode_refusals_v3(const Block &block)
{
    const std::uint32_t no = get_u32(block, 68);
    const std::uint32_t brick = get_u32(block, 72);
    if (no < V3.inode_cnt && brick < V3.brick_cnt)
        return {};
    return {
        error_line("parse_inode_from_json_v3",
                   text("i_no %u or brick_no %u is invalid, max i_cnt:4, max b_cnt:3", no, brick))};
}

ConfigTable inode_config_v1()
{
    InodeV1 inode = inode_used(NO, 1);
    inode.reserved1 = inode.reserved2 = 0;
    ConfigTable table = inode_config(
        "1", V1, [] { return make_v1_device(V1); }, inode);
    table.refusals = inode_refusals_v1;
    return table;
}

ConfigTable inode_config_v2()
{
    ConfigTable table = inode_config(
        "2", V2, [] { return make_v2_device(V2); }, inode_v2_used(NO, 1));
    add_counts(table.keys);
    table.refusals = inode_refusals_v2;
    return table;
}

ConfigTable inode_config_v3()
{
    ConfigTable table = inode_config(
        "3", V3, [] { return make_v3_device(V3); }, inode_v3_used(NO, 1));
    table.keys = inode_keys(Taken::UNSIGNED_64, Taken::UNSIGNED_64, Taken::UNSIGNED_64);
    add_counts(table.keys);
    table.keys.back().fallback = [](const Block &block) { return get_u64(block, 56) / 131072; };
    table.refusals = inode_refusals_v3;
    return table;
}

} // namespace

LogLine invalid_inode_v2(std::uint32_t no, const SuperV2 &super)
{
    return error_line("inode_is_valid",
                      text("invalid inode no %d max inode_cnt:%u inode_max: 500000 inode_sum:%u "
                           "exp_magic: 0x0 exp_inuse: 0x0",
                           static_cast<int>(no), super.inode_cnt, super.inode_cnt));
}

const std::vector<TextCase> &uuid_cases()
{
    return UUIDS;
}

std::vector<ConfigTable> brick_configs()
{
    return {
        brick_config(
            "1", V1, [] { return make_v1_device(V1); }, brick_used(NO)),
        brick_config(
            "2", V2, [] { return make_v2_device(V2); }, brick_used(NO)),
        brick_config(
            "3", V3, [] { return make_v3_device(V3); }, brick_v3_used(NO)),
    };
}

std::vector<ConfigTable> inode_configs()
{
    return {inode_config_v1(), inode_config_v2(), inode_config_v3()};
}

} // namespace tier_test
