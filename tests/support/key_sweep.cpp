#include "key_sweep.h"

#include "packed_table.h"
#include "probe_log.h"
#include "v3_device.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <ostream>
#include <regex>
#include <stdexcept>

namespace tier_test {

namespace {

constexpr std::uint32_t NO = 2;   // of the sample entries
constexpr std::uint32_t SLOT = 5; // of the samples in packed blocks

using Type = SweptKey::Type;

Device device_v1() { return make_v1_device(super_v1(3, 4, 3)); }
Device device_v2() { return make_v2_device(super_v2(3, 4, 3)); }
Device device_v3() { return make_v3_device(super_v3(3, 4)); }
Device other_device_v1() { return make_v1_device(super_v1(1, 1, 1)); }
Device other_device_v2() { return make_v2_device(super_v2(1, 1, 1)); }
Device other_device_v3() { return make_v3_device(super_v3(1, 1)); }

std::vector<std::string> strings(const std::vector<std::string> &plain)
{
    std::vector<std::string> values;
    for (const std::string &each : plain)
        values.push_back(json_string(each));
    return values;
}

std::vector<std::string> of_lengths(const std::vector<std::size_t> &lengths)
{
    std::vector<std::string> values;
    for (const std::size_t length : lengths)
        values.push_back(json_string(std::string(length, 's')));
    return values;
}

const std::vector<std::string> UUIDS =
    strings({"00000000-0000-0000-0000-000000000000", "FFFFFFFF-ffff-FFFF-ffff-fffFFFfffFFF",
             "a1B2c3D4-E5f6-0718-293a-4B5C6d7E8f90", "", "abc",
             "00000000-0000-0000-0000-00000000000", "00000000-0000-0000-0000-0000000000000",
             "g0000000-0000-0000-0000-000000000000", " 00000000-0000-0000-0000-000000000000",
             "00000000-0000-0000-0000-000000000000 ", "{00000000-0000-0000-0000-000000000000}",
             std::string(36, '-'), std::string(36, 'a'), std::string(32, 'a')});

const std::vector<std::string> CTIMES = strings(
    {"", "none", "0x1f", "1F(1970-01-01 00:00:00)", "0xffffffffffffffff", "0xffffffffffffffff0",
     "10000000000000000", "1000000000000000000", "0x16345785dffbcd15(2020-09-13 12:26:40)",
     "0X5F5e1000", " 10", "12 34", "1fg2", "000123456789abcdef99"});

// The layout's own, written in many ways, and others.
std::vector<std::string> versions(int version)
{
    const std::string own = text("%d0000", version);
    return strings({own, "0x" + own, "0X" + own, "00" + own, own + " and more",
                    std::string(26, '0') + own, std::string(26, '0') + own + "0", "",
                    version == 1 ? "0x20000" : "0x10000", text("%d0001", version),
                    std::to_string(version * 0x10000), "version", "ffffffffffffffff", "1000" + own,
                    "100000000000" + own, std::string(40, '2')});
}

// The numbers around the bounds of the fields of that name.
const std::vector<std::pair<std::string, std::vector<std::string>>> BOUNDS{
    {"bi_no", {"2", "3", "4"}},
    {"i_no", {"3", "4", "5"}},
    {"i_brick_no", {"2", "3", "4"}},
    {"te_no", {"2", "3", "4"}},
    {"te_inode_no", {"3", "4", "5"}},
    {"i_size", {"131071", "131072"}},
    {"extent_size", {"55", "56", "4096", "4097"}},
    {"mapno", {"31", "32"}},
    {"len", {"1048575", "1048576", "1048577"}},
    {"sno", {"511", "512", "513", "1024"}},
    {"eno", {"511", "512", "513", "1024"}},
};

std::vector<std::string> block_sizes(int version)
{
    return version == 3 ? std::vector<std::string>{"4096",  "8191",  "8192", "12288",
                                                   "12289", "65536", "69632"}
                        : std::vector<std::string>{"262143",  "262144",  "264192", "266240",
                                                   "4194304", "4194305", "4198400"};
}

std::vector<std::string> values_of(const TableModel &table, const Key &key)
{
    if (key.name == "block_size")
        return block_sizes(table.version);
    if (key.name == "exp_inode_magic")
        return strings({"", "0x4559", "0x455", "4558", std::string(200, '4')});
    if (key.name == "version")
        return versions(table.version);
    if (key.field.form == FieldForm::HEX_AND_TIME)
        return CTIMES;
    if (key.field.form == FieldForm::UUID)
        return UUIDS;
    if (key.field.form == FieldForm::TEXT)
        return key.length != 0 ? of_lengths({0, 1, 92, 93, 94, 126, 127, 128, 200, 300})
                               : of_lengths({0, 1, 37, 38, 39, 46, 47, 48, 60, 200});
    const auto bounds = std::ranges::find(BOUNDS, key.name,
                                          &std::pair<std::string, std::vector<std::string>>::first);
    return bounds == BOUNDS.end() ? std::vector<std::string>() : bounds->second;
}

SweptKey swept(const TableModel &table, const Key &key)
{
    const std::vector<std::string> values = values_of(table, key);
    return {.name = key.name,
            .type = key.is_number() ? Type::NUMBER : Type::STRING,
            .need = key.need,
            .width = key.name == "exp_inode_cnt" ? 32 : key.field.width,
            .decides = key.need == Need::ALWAYS ||
                       (key.is_number() && key.name != "i_size" && !values.empty()),
            .values = values};
}

SweptKey swept_array(const std::string &name, const std::string &item)
{
    return {.name = name,
            .type = Type::ARRAY,
            .need = Need::IN_USE,
            .decides = true,
            .values = {"[5]", "[null]", "[[]]", "[{}]", "[" + item + ",\"text\"]",
                       "[" + item + ",{}]", "[true," + item + "]"}};
}

// The places around the bounds of the table's area.
SweptKey swept_place(const TableModel &table, const Block &super)
{
    SweptKey key{.name = "meta_offset", .decides = true};
    const std::uint64_t start = table.start(super);
    const std::uint64_t end = table.end(super);
    for (const std::uint64_t value :
         {start - 1, start, start + 1, start + 4096, end - 4096, end - 1, end, end + 1})
        key.values.push_back(std::to_string(value));
    return key;
}

RepairSample sample_of(const std::string &name, const TableModel &table, Device (*device)(),
                       const Block &super, const Block &block)
{
    RepairSample sample{
        .name = name, .table = &table, .device = device, .super = super, .members = {}, .keys = {}};
    const std::uint64_t target = table.takes_place ? table.start(super) + BLOCK_SIZE : 0;
    sample.members =
        json_members(repair_file(table, super, block, static_cast<std::int64_t>(target)).text());
    if (table.takes_place)
        sample.keys.push_back(swept_place(table, super));
    for (const Key &key : table.keys)
        if (key.name != "exp_inode_inuse") // which is read of an area that is formatted
            sample.keys.push_back(swept(table, key));
    if (table.name == "extent" && !table.takes_place && table.version == 1)
        sample.keys.push_back({.name = "te_bitmap",
                               .type = Type::ARRAY,
                               .need = Need::IN_USE,
                               .decides = true,
                               .values = {"[]", "[1]", "[1,2,3]", "[null,2]", "[1,\"2\"]",
                                          "[[1],2]", "[1,{}]", "[true,false]", "[-1,1e400]"}});
    if (table.items) {
        const std::string array = sample.members.back().second;
        sample.keys.push_back(swept_array(table.items->name, array.substr(1, array.size() - 2)));
    }
    return sample;
}

// The item of the sample's array in place of the whole file.
RepairSample item_of(const std::string &name, const RepairSample &whole)
{
    RepairSample sample = whole;
    sample.name = name;
    const std::string item = json_items(whole.members.back().second).front();
    const std::string document = whole.document();
    const std::size_t at = document.find(item);
    sample.before = document.substr(0, at);
    sample.after = document.substr(at + item.size());
    sample.members = json_members(item);
    sample.keys.clear();
    for (const Key &key : whole.table->items->keys) {
        sample.keys.push_back(swept(*whole.table, key));
        sample.keys.back().decides =
            key.name == "mapno" || key.name == "len" || key.name == "sno" || key.name == "eno";
    }
    return sample;
}

ExtentV2 extent_sample_v2()
{
    ExtentV2 extent = extent_v2(NO);
    extent.use = 1;
    extent.inode_no = 1;
    extent.sampling_low = 0x01223344;
    extent.sampling_mid = 0xFFFF'FFFDU;
    extent.sampling_high = 0xFFFF'FFFCU;
    extent.maps[3] = {0xFFFF'FFFF'FFFF'0000U, 1, 32768, 24, 0x8001};
    return extent;
}

RepairSample super_sample_v2()
{
    RepairSample sample = sample_of("SuperV2", model(2, "super"), other_device_v2,
                                    encode(super_v2(1, 1, 1)), encode(super_v2(3, 4, 5)));
    const auto maps =
        std::ranges::find(sample.members, "min_alloc_size", &Members::value_type::first);
    sample.members.insert(maps, {{"exp_inode_cnt", "1"}, {"exp_inode_magic", "\"none\""}});
    return sample;
}

std::vector<RepairSample> make_samples()
{
    const Block v1 = encode(super_v1(3, 4, 3));
    const Block v2 = encode(super_v2(3, 4, 3));
    const Block v3 = encode(super_v3(3, 4));
    SuperV3 super = super_v3(3, 4);
    super.reserved = 0x8765'4321;
    std::vector<RepairSample> samples{
        sample_of("SuperV1", model(1, "super"), other_device_v1, encode(super_v1(1, 1, 1)),
                  encode(super_v1(3, 4, 5))),
        super_sample_v2(),
        sample_of("SuperV3", model(3, "super"), other_device_v3, encode(super_v3(1, 1)),
                  encode(super)),
        sample_of("BrickV1", model(1, "brick"), device_v1, v1, encode(brick_used(NO))),
        sample_of("BrickV2", model(2, "brick"), device_v2, v2, encode(brick_used(NO))),
        sample_of("BrickV3", model(3, "brick"), device_v3, v3, encode(brick_v3_used(NO))),
        sample_of("InodeV1", model(1, "inode"), device_v1, v1, encode(inode_used(NO, 1))),
        sample_of("InodeV2", model(2, "inode"), device_v2, v2, encode(inode_v2_used(NO, 1))),
        sample_of("InodeV3", model(3, "inode"), device_v3, v3, encode(inode_v3_used(NO, 1))),
        sample_of("ExtentV1", model(1, "extent"), device_v1, v1, encode(extent_used(NO, 1), 72)),
        sample_of("ExtentV2", model(2, "extent"), device_v2, v2,
                  encode(extent_sample_v2(), super_v2(3, 4, 3))),
        sample_of("ShardBlockV3", model(3, "shard"), device_v3, v3,
                  encode(ShardBlockV3{.shards = {{.slot = SLOT,
                                                  .ino = 0x3FFFE,
                                                  .reserved = 0x1FFD,
                                                  .index = 0xFFFF'FFFCU}}})),
        sample_of("ExtentBlockV3", model(3, "extent"), device_v3, v3,
                  encode(ExtentBlockV3{.extents = {{.slot = SLOT,
                                                    .lba = 0x7FFFE,
                                                    .shard = 0x7FFFD,
                                                    .dirty = 1,
                                                    .bitmap = 0xFFFC,
                                                    .sense = 0xB,
                                                    .demote = 1,
                                                    .dm_err = 1,
                                                    .reserved = 1}}})),
        sample_of("HotV3", model(3, "hot"), device_v3, v3, {}),
    };
    const auto add_item = [&samples](const std::string &name, const std::string &of) {
        samples.push_back(item_of(name, *std::ranges::find(samples, of, &RepairSample::name)));
    };
    add_item("PieceV2", "ExtentV2");
    add_item("ShardV3", "ShardBlockV3");
    add_item("PackedExtentV3", "ExtentBlockV3");
    return samples;
}

void mask_addresses(Log &log)
{
    static const std::regex ADDRESS("(bitmap|te_mapped_meta|shards_json|value):0x[0-9a-f]+");
    for (LogLine &line : log)
        if (line.text.find(":0x") != std::string::npos)
            line.text = std::regex_replace(line.text, ADDRESS, "$1:<address>");
}

} // namespace

std::string RepairSample::document(const Members &changed) const
{
    std::string object;
    for (const auto &[key, value] : changed)
        object.append(object.empty() ? "{" : ",\n ").append(json_string(key) + ": " + value);
    return before + object.append(object.empty() ? "{}" : "}") + after;
}

const std::vector<RepairSample> &repair_samples()
{
    static const std::vector<RepairSample> SAMPLES = make_samples();
    return SAMPLES;
}

const RepairSample &repair_sample(const std::string &name)
{
    return *std::ranges::find(repair_samples(), name, &RepairSample::name);
}

std::vector<std::string> values_of_other_types(Type type)
{
    std::vector<std::string> values{"null", "true", "false", "{}", R"({"a":"5"})"};
    if (type != Type::NUMBER)
        values.emplace_back("5");
    if (type != Type::STRING)
        values.emplace_back("\"5\"");
    if (type != Type::ARRAY)
        values.insert(values.end(), {"[]", "[5]"});
    return values;
}

Members KeySweep::with(const std::string &key, const std::string &value) const
{
    Members members = sample.members;
    std::ranges::find(members, key, &Members::value_type::first)->second = value;
    return members;
}

Members KeySweep::without(const std::string &key) const
{
    Members members = sample.members;
    std::erase_if(members, [&](const auto &member) { return member.first == key; });
    return members;
}

// A super block that breaks a rule is refused, and written by force.
void KeySweep::expect_document(const std::string &document)
{
    SCOPED_TRACE(document);
    const Parsed expected = parsed(table, sample.super, document);
    if (table.name != "super")
        return expect_parsed(document, expected, false);
    const Parsed forced = parsed(table, sample.super, document, {.forced = true});
    if (!expected.block)
        expect_parsed(document, expected, false);
    if (forced.block)
        expect_parsed(document, forced, true);
}

void KeySweep::expect_parsed(const std::string &document, const Parsed &expected, bool forced)
{
    // Of a free brick the identity is known once it is written.
    const bool dry_too = expected.block && !(table.makes_uuid && expected.is_free);
    if (dry_too)
        expect_run_of(document, expected, forced, false);
    expect_run_of(document, expected, forced, true);
}

bool KeySweep::is_writable(std::int64_t place) const
{
    return place % 512 == 0 && static_cast<std::uint64_t>(place) < device.size();
}

Log KeySweep::log_of(const Parsed &expected, bool commit) const
{
    const std::string conf = device.directory().path("conf.json");
    const std::string where =
        text(", cmd:%d, dev:%s, conf:%s", table.repair_code, device.path().c_str(), conf.c_str());
    Log log = probe_log(device, table.repair, table.version, {.repair_conf = conf}, expected.log);
    if (!expected.block)
        log.push_back(error_line("zutr_repair_common",
                                 text("parse meta info failed:-%d", expected.status) + where));
    else if (!commit)
        log.push_back(
            debug_line("zutr_repair_common", text("'commit' flag not set, won't write dev. cmd:%d, "
                                                  "conf:%s",
                                                  table.repair_code, conf.c_str())));
    else if (!is_writable(expected.place))
        log.push_back(
            error_line("zutr_repair_common",
                       text("write meta on offset %ld failed:-1", expected.place) + where));
    return log;
}

void KeySweep::expect_run_of(const std::string &document, const Parsed &expected, bool forced,
                             bool commit)
{
    std::vector<std::string> args{"-f", device.directory().write("conf.json", document)};
    if (forced)
        args.emplace_back("-F");
    if (commit)
        args.emplace_back("-y");
    const bool written = commit && expected.block && is_writable(expected.place);
    const auto place = static_cast<std::uint64_t>(expected.place);
    Block old{};
    if (written) { // nothing of what the slot held may stay
        old = device.block(place);
        Block noise;
        noise.fill(0xEE);
        if (table.name != "super")
            device.write(place, noise);
    }
    Expected wanted{.log = log_of(expected, commit)};
    LoggedRun result = run(args);
    mask_addresses(result.log);
    mask_addresses(result.errors);

    Block block = expected.block.value_or(Block{});
    if (table.makes_uuid && expected.is_free && expected.block) {
        const Uuid made_up = shown_uuid(result.out);
        EXPECT_NE(made_up, Uuid{});
        put_bytes(block, 16, made_up);
        seal(table, sample.super, block);
    }
    if (!expected.block)
        wanted.status = expected.status;
    else if (commit && !written)
        wanted.status = 5;
    else if (!table.takes_place)
        wanted.out = entry_text(table, sample.super, block, expected.place);
    expect_run(result, wanted);
    if (written)
        put_bytes(content, place, block);
    EXPECT_EQ(device.bytes(), content);
    if (written) {
        put_bytes(content, place, old);
        device.write(place, old);
    }
}

void KeySweep::expect_missing_keys()
{
    for (const SweptKey &key : sample.keys)
        expect(without(key.name));
}

void KeySweep::expect_other_types()
{
    for (const SweptKey &key : sample.keys)
        for (const std::string &value : values_of_other_types(key.type))
            expect(with(key.name, value));
}

void KeySweep::expect_own_values()
{
    for (const SweptKey &key : sample.keys)
        for (const std::string &value : key.values)
            expect(with(key.name, value));
}

void KeySweep::expect_numbers(const std::vector<std::string> &numbers)
{
    for (const SweptKey &key : sample.keys) {
        if (key.type != Type::NUMBER)
            continue;
        for (const std::string &number : numbers)
            expect(with(key.name, number));
        if (key.width < 32) {
            const std::uint64_t bound = std::uint64_t{1} << key.width;
            for (const std::uint64_t value :
                 {bound / 2 - 1, bound / 2, bound - 1, bound, bound + 1})
                expect(with(key.name, std::to_string(value)));
        }
    }
}

void KeySweep::expect_any_case()
{
    const auto raised = [](std::string name, std::size_t step) {
        for (std::size_t i = 0; i < name.size(); i += step)
            name[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[i])));
        return name;
    };
    for (const std::size_t step : {1U, 2U}) {
        Members members = sample.members;
        for (auto &[name, value] : members)
            name = raised(name, step);
        expect(members);
    }
    for (const SweptKey &key : sample.keys) {
        for (const std::string &name : {key.name, raised(key.name, 1)}) {
            Members twice = sample.members;
            twice.emplace_back(name, "true");
            expect(twice);
            std::ranges::rotate(twice, twice.end() - 1);
            expect(twice);
        }
    }
}

std::vector<const RepairSample *> all_samples()
{
    std::vector<const RepairSample *> all;
    for (const RepairSample &sample : repair_samples())
        all.push_back(&sample);
    return all;
}

std::string sample_name(const testing::TestParamInfo<const RepairSample *> &info)
{
    return info.param->name;
}

std::ostream &operator<<(std::ostream &out, const RepairSample *sample)
{
    return out << sample->name;
}

} // namespace tier_test
