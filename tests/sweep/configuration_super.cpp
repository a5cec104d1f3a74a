#include "configuration_keys.h"
#include "configuration_rules.h"
#include "v3_device.h"

#include <algorithm>
#include <iterator>

namespace tier_test {

namespace {

constexpr Needed ALWAYS = Needed::ALWAYS;

ConfigKey wide(const char *name, std::size_t byte)
{
    return number(name, byte, 64, Taken::UNSIGNED_64, ALWAYS);
}
ConfigKey super_word(const char *name, std::size_t byte)
{
    return number(name, byte, 32, Taken::SIGNED_64, ALWAYS);
}

// The first 18 characters count.
ConfigKey ctime()
{
    const auto refused = [](const char *text_18) {
        return text("ctime %s is invalid:Numerical result out of range. cmd:9", text_18);
    };
    return {.name = "ctime",
            .holds = Holds::HEX,
            .needed = ALWAYS,
            .byte = 40,
            .width = 64,
            .texts = {{.given = ""},
                      {.given = "none"},
                      {.given = "0x1f", .number = 0x1F},
                      {.given = "1F(1970-01-01 00:00:00)", .number = 0x1F},
                      {.given = "0xffffffffffffffff", .number = ~std::uint64_t{0}},
                      {.given = "0xffffffffffffffff0", .number = ~std::uint64_t{0}},
                      {.given = "10000000000000000", .error = refused("10000000000000000")},
                      {.given = "1000000000000000000", .error = refused("100000000000000000")}}};
}

// One that the layout has, in hexadecimal, and others that it has not.
ConfigKey exact_version(const char *own, std::uint32_t value, const char *other)
{
    const auto refused = [](const std::string &given, const char *why) {
        return TextCase{.given = given,
                        .error = text("version str %s is invalid:%s. cmd:9", given.c_str(), why)};
    };
    const std::string digits = own;
    return {.name = "version",
            .holds = Holds::HEX,
            .needed = ALWAYS,
            .byte = 112,
            .width = 32,
            .texts = {{.given = digits, .number = value},
                      {.given = "0X" + digits, .number = value},
                      {.given = std::string(26, '0') + digits + "0", .number = value},
                      refused("", "Success"),
                      refused(other, "Success"),
                      refused("1000" + digits, "Success"),
                      refused("10000000000000000", "Numerical result out of range")}};
}

// The low 32 bits count.
ConfigKey version_v2()
{
    ConfigKey key = exact_version("20000", 0x20000, "0x10000");
    key.texts = {{.given = "20000", .number = 0x20000},
                 {.given = "0X20000", .number = 0x20000},
                 {.given = "100020000", .number = 0x20000},
                 {.given = "", .error = "version 0 is invalid, cmd:9"},
                 {.given = "0x10000", .error = "version 65536 is invalid, cmd:9"},
                 {.given = "10000000000000000",
                  .error = "version str 10000000000000000 is invalid:Numerical result out of "
                           "range. cmd:9"}};
    return key;
}

ConfigKey uuid()
{
    return {
        .name = "uuid", .holds = Holds::UUID, .needed = ALWAYS, .byte = 48, .texts = uuid_cases()};
}

ConfigKey ssd_uuid()
{
    ConfigKey key{.name = "ssd_uuid", .holds = Holds::TEXT, .needed = ALWAYS, .byte = 64};
    for (const std::size_t length : {0U, 1U, 37U, 38U, 39U, 46U, 47U, 48U, 200U})
        key.texts.push_back({.given = std::string(length, 's'),
                             .stored = std::string(std::min<std::size_t>(length, 47), 's')});
    return key;
}

std::vector<ConfigKey> head_keys(const ConfigKey &version)
{
    ConfigKey block_size = super_word("block_size", 128);
    block_size.more = {"262143", "262144", "264192", "266240", "4194304", "4194305", "4198400"};
    ConfigKey extent_size = super_word("extent_size", 136);
    extent_size.more = {"55", "56", "4096", "4097"};
    return {wide("brick_table_size", 8),
            wide("inode_table_size", 16),
            wide("extent_table_size", 24),
            wide("data_offset", 32),
            ctime(),
            uuid(),
            ssd_uuid(),
            version,
            super_word("super block size", 116),
            super_word("brick_cnt", 120),
            super_word("inode_cnt", 124),
            block_size,
            super_word("block_cnt", 132),
            extent_size};
}

// A count with any other magic removes the area: nothing of the three keys is stored.
std::vector<ConfigKey> expansion_keys()
{
    const char *func = "__repair_super_exp_inode";
    return {{.name = "exp_inode_cnt",
             .needed = Needed::OPTIONAL,
             .width = 32,
             .sample = "1",
             .func = func,
             .apply = [](Made &, std::uint64_t) {}},
            {.name = "exp_inode_magic",
             .holds = Holds::TEXT,
             .needed = ALWAYS,
             .sample = "none",
             .texts = {{.given = ""},
                       {.given = "0x4559"},
                       {.given = "0x455"},
                       {.given = "4558"},
                       {.given = std::string(200, '4')}},
             .func = func,
             .apply = [](Made &, std::uint64_t) {}}};
}

std::vector<ConfigKey> map_keys()
{
    return {super_word("min_alloc_size", 144), super_word("total_map_size", 148),
            super_word("map_cnt", 152), super_word("size_mapped_meta", 156),
            super_word("hot_size", 160)};
}

std::vector<ConfigKey> keys_v3()
{
    ConfigKey block_size = wide("block_size", 248);
    block_size.more = {"4096", "8191", "8192", "12288", "12289", "65536", "69632"};
    return {wide("sb_offset", 8),
            wide("super block size", 16),
            wide("reserved_offset", 24),
            wide("reserved_size", 32),
            ctime(),
            uuid(),
            ssd_uuid(),
            exact_version("30000", 0x30000, "0x20000"),
            super_word("reserved", 116),
            wide("brick_table_offset", 120),
            wide("brick_table_size", 128),
            wide("brick_cnt", 136),
            wide("inode_table_offset", 144),
            wide("inode_table_size", 152),
            wide("inode_cnt", 160),
            wide("shard_table_offset", 168),
            wide("shard_table_size", 176),
            wide("shard_table_cnt", 184),
            wide("extent_table_offset", 192),
            wide("extent_table_size", 200),
            wide("extent_table_cnt", 208),
            wide("hot_table_offset", 216),
            wide("hot_table_size", 224),
            wide("data_offset", 232),
            wide("data_table_size", 240),
            block_size,
            wide("block_cnt", 256)};
}

ConfigTable super_config(const std::string &version, Device (*device)(), const Block &sample,
                         std::vector<ConfigKey> keys)
{
    return {
        .name = "SuperV" + version,
        .command = "repair_super",
        .code = 9,
        .parser = "parse_sb_from_json_v" + version,
        .device = device,
        .sample = {.block = sample},
        .keys = std::move(keys),
        .place = [](const Made &) { return std::int64_t{4096}; },
        .seal = {},
        .forced = true,
        .checksum_key = "checksum",
    };
}

ConfigTable super_config_v1()
{
    ConfigTable table = super_config(
        "1", [] { return make_v1_device(super_v1(1, 1, 1)); }, encode(super_v1(3, 4, 5)),
        head_keys(exact_version("10000", 0x10000, "0x20000")));
    table.seal = [](Block &block) { seal(block, SuperV1::LENGTH); };
    table.refusals = [](const Block &block) {
        return first_broken("__check_sb_params_v1", rules_v1(), block);
    };
    return table;
}

ConfigTable super_config_v2()
{
    std::vector<ConfigKey> keys = head_keys(version_v2());
    std::ranges::copy(expansion_keys(), std::back_inserter(keys));
    std::ranges::copy(map_keys(), std::back_inserter(keys));
    ConfigTable table = super_config(
        "2", [] { return make_v2_device(super_v2(1, 1, 1)); }, encode(super_v2(3, 4, 5)), keys);
    table.seal = [](Block &block) {
        put_u32(block, 164, get_u32(block, 136) + get_u32(block, 148) + get_u32(block, 160));
        seal(block, SuperV2::LENGTH);
    };
    table.refusals = [](const Block &block) {
        return first_broken("__check_sb_params_v2", rules_v2(), block);
    };
    return table;
}

ConfigTable super_config_v3()
{
    SuperV3 sb = super_v3(3, 4);
    sb.reserved = 0x8765'4321;
    ConfigTable table = super_config(
        "3", [] { return make_v3_device(super_v3(1, 1)); }, encode(sb), keys_v3());
    table.seal = [](Block &block) { seal(block, SuperV3::LENGTH); };
    table.refusals = [](const Block &block) {
        return first_broken("__check_sb_params_v3", rules_v3(), block);
    };
    return table;
}

} // namespace

std::vector<ConfigTable> super_configs()
{
    return {super_config_v1(), super_config_v2(), super_config_v3()};
}

} // namespace tier_test
