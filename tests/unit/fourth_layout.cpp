#include "fourth_layout.h"

#include <cerrno>

namespace tier_test {

namespace {

extern const tier_table SUPER;
extern const tier_table SHELVES;
extern const tier_table BOXES;

const DepotSuper &depot(const void *sb) { return tier_super<DepotSuper>(sb); }

std::uint32_t crc_of_record(void *record, std::uint32_t length) { return tier_crc(record, length); }

// The super block

constexpr auto SUPER_FIELDS = std::tuple{
    zutr_field{"checksum", &DepotSuper::checksum, zutr_form::hex},
    zutr_field{"magic", &DepotSuper::magic, zutr_form::hex},
    zutr_field{"version", &DepotSuper::version, zutr_form::hex},
    zutr_field{"shelf_cnt", &DepotSuper::shelf_cnt},
    zutr_field{"box_blocks", &DepotSuper::box_blocks},
    zutr_field{"spare", &DepotSuper::spare},
    zutr_field{"shelves_at", &DepotSuper::shelves_at},
    zutr_field{"boxes_at", &DepotSuper::boxes_at},
    zutr_field{"made", &DepotSuper::made, zutr_form::hex_and_time},
    zutr_field{"uuid", &DepotSuper::uuid},
};

constexpr auto SUPER_KEYS = std::tuple{
    zutr_hex_key{"version", &DepotSuper::version, zutr_form::hex, 31, "version"},
    zutr_key{"shelf_cnt", &DepotSuper::shelf_cnt, zutr_to_u64},
    zutr_key{"box_blocks", &DepotSuper::box_blocks, zutr_to_u64},
    zutr_key{"shelves_at", &DepotSuper::shelves_at, zutr_to_u64},
    zutr_key{"boxes_at", &DepotSuper::boxes_at, zutr_to_u64},
    zutr_hex_key{"made", &DepotSuper::made, zutr_form::hex_and_time, 18, "made"},
    zutr_key{"uuid", &DepotSuper::uuid},
};

constexpr tier_rule RULES[] = {
    {{"bad_shelf_table"},
     [](const void *sb) { return depot(sb).shelf_cnt >= 1 && depot(sb).shelf_cnt <= 100; },
     [](const char *func, const void *sb) {
         zutr_error(func, "a depot of %u shelves", depot(sb).shelf_cnt);
     },
     [](const void *sb, const tier_kind &kind, tier_findings &to) {
         to.add(kind, "it has %u shelves", depot(sb).shelf_cnt);
     }},
    {{"odd_spare", tier_severity::warning},
     [](const void *sb) { return depot(sb).spare == 0; },
     nullptr,
     [](const void *sb, const tier_kind &kind, tier_findings &to) {
         to.add(kind, "its spare bytes are %u", depot(sb).spare);
     }},
};

std::int64_t parse_super(zutr_params_t *params, const cJSON *document, void *m)
{
    auto *sb = static_cast<DepotSuper *>(m);
    sb->magic = DEPOT_MAGIC;
    zutr_json_reader in(__func__, document);
    in.read(SUPER_KEYS, sb);
    if (!in.failed() && params->force == 0 && tier_check_rules(__func__, RULES, sb) != 0)
        return -EINVAL;
    return tier_finish(in, SUPER, sb, sb, 0);
}

constexpr tier_claim SUPER_CLAIMS[] = {
    {"identity", tier_number_at(offsetof(DepotSuper, uuid), 8), tier_claim_type::identity}};

constexpr tier_table SUPER = {
    .name = "super",
    .regions =
        [](const void *) {
            return tier_regions{{{TIER_SUPER_OFFSET, 1}}};
        },
    .record_length = [](const void *) { return std::uint64_t{sizeof(DepotSuper)}; },
    .crc = crc_of_record,
    .checksum = &TIER_HEAD_CHECKSUM,
    .magic = tier_number_at(offsetof(DepotSuper, magic), 4),
    .magic_value = DEPOT_MAGIC,
    .fields = [] { return tier_make_columns(SUPER_FIELDS); },
    .keys = [] { return tier_make_columns(SUPER_KEYS); },
    .repair = {parse_super, nullptr},
    .claims = SUPER_CLAIMS,
    .rules = RULES,
};

// The shelves

constexpr auto SHELF_FIELDS = std::tuple{
    zutr_field{"checksum", &DepotShelf::checksum, zutr_form::hex},
    zutr_field{"magic", &DepotShelf::magic, zutr_form::hex},
    zutr_field{"no", &DepotShelf::no},
    zutr_field{"use", &DepotShelf::use},
    zutr_field{"uuid", &DepotShelf::uuid},
    zutr_field{"label", &DepotShelf::label},
};

constexpr auto SHELF_KEYS = std::tuple{
    zutr_key{"no", &DepotShelf::no, zutr_to_u64},
    zutr_key{"use", &DepotShelf::use, zutr_to_u64},
    zutr_key{"uuid", &DepotShelf::uuid},
    zutr_key{"label", &DepotShelf::label},
};

struct Level {
    std::uint64_t word;
};

constexpr tier_parts LEVELS = {
    .key = "levels",
    .prefix = "level",
    .size = sizeof(Level),
    .at = [](const void *) { return std::uint32_t{sizeof(DepotShelf)}; },
    .count = [](const void *) { return DEPOT_LEVELS; },
    .show =
        [](const void *, const std::uint8_t *slot, std::uint64_t, std::uint32_t k, void *record) {
            memcpy(record, slot + sizeof(DepotShelf) + k * sizeof(Level), sizeof(Level));
        },
    .fields = [] { return tier_columns{tier_make_column("", &Level::word, zutr_form::hex16)}; },
    .keys = [] { return tier_columns{tier_make_column("", &Level::word, zutr_form::plain)}; },
};

std::int64_t parse_shelf(zutr_params_t *params, const cJSON *document, void *m)
{
    auto *shelf = static_cast<DepotShelf *>(m);
    shelf->magic = SHELF_MAGIC;
    zutr_json_reader in(__func__, document);
    in.read(SHELF_KEYS, shelf);
    if (shelf->label[0] == '\0')
        in.refuse(__func__, "shelf %u has no label", shelf->no);
    in.each(in.item("levels"), [&](std::int32_t index) {
        const std::uint64_t word = zutr_to_u64(zutr_json_number(in.object()));
        memcpy(static_cast<std::uint8_t *>(m) + sizeof(DepotShelf) + 8 * index, &word, 8);
    });
    return tier_finish(in, SHELVES, params->sb, shelf, shelf->no);
}

void check_shelf(const void *, const std::uint8_t *entry, tier_findings &to)
{
    const auto *shelf = reinterpret_cast<const DepotShelf *>(entry);
    if (shelf->label[0] == '\0')
        to.add({"no_label"}, "shelf %u has no label", shelf->no);
}

constexpr tier_claim SHELF_CLAIMS[] = {
    {"identity", tier_number_at(offsetof(DepotShelf, uuid), 8), tier_claim_type::identity}};

constexpr tier_table SHELVES = {
    .name = "shelf",
    .number_key = "no",
    .regions =
        [](const void *sb) {
            return tier_regions{
                {{static_cast<std::int64_t>(depot(sb).shelves_at), depot(sb).shelf_cnt}}};
        },
    .record_length = [](const void *) { return sizeof(DepotShelf) + DEPOT_LEVELS * sizeof(Level); },
    .crc = crc_of_record,
    .checksum = &TIER_HEAD_CHECKSUM,
    .magic = tier_number_at(offsetof(DepotShelf, magic), 4),
    .magic_value = SHELF_MAGIC,
    .number = tier_number_at(offsetof(DepotShelf, no), 4),
    .fields = [] { return tier_make_columns(SHELF_FIELDS); },
    .keys = [] { return tier_make_columns(SHELF_KEYS); },
    .parts = &LEVELS,
    .repair = {parse_shelf, nullptr},
    .in_use = tier_number_at(offsetof(DepotShelf, use), 4),
    .claims = SHELF_CLAIMS,
    .check = check_shelf,
};

// The boxes

struct Box {
    std::uint64_t word;
    std::uint64_t no;
};

constexpr auto BOX_KEYS = std::tuple{
    zutr_key{"no", &Box::no, zutr_to_u64},
    zutr_bits_key{BOX_SHELF, &Box::word},
    zutr_bits_key{BOX_PLACE, &Box::word},
    zutr_bits_key{BOX_WEIGHT, &Box::word},
};

struct BoxHead {
    std::uint32_t checksum;
    std::uint32_t magic;
};

constexpr auto HEAD_FIELDS = std::tuple{
    zutr_field{"checksum", &BoxHead::checksum, zutr_form::hex},
    zutr_field{"magic", &BoxHead::magic, zutr_form::hex},
};

constexpr std::uint64_t WORDS = BLOCK_SIZE / 8;

constexpr tier_parts BOX_PARTS = {
    .key = "boxes",
    .prefix = "box",
    .size = 8,
    .first = 1,
    .show =
        [](const void *, const std::uint8_t *slot, std::uint64_t no, std::uint32_t k,
           void *record) {
            Box box = {0, no * WORDS + k};
            memcpy(&box.word, slot + 8 * std::size_t{k}, 8);
            memcpy(record, &box, sizeof(box));
        },
    .fields =
        [] {
            return tier_make_columns(
                std::tuple{zutr_bits{BOX_SHELF, &Box::word}, zutr_bits{BOX_PLACE, &Box::word},
                           zutr_bits{BOX_IN_USE, &Box::word}, zutr_bits{BOX_WEIGHT, &Box::word}});
        },
    .keys = [] { return tier_make_columns(BOX_KEYS); },
};

struct Place {
    std::uint64_t offset;
};

std::int64_t parse_boxes(zutr_params_t *, const cJSON *document, void *m)
{
    Place place = {};
    auto *words = static_cast<std::uint64_t *>(m);
    words[0] = std::uint64_t{BOX_MAGIC} << 32;
    zutr_json_reader in(__func__, document);
    in.read(zutr_key{"meta_offset", &Place::offset, zutr_to_u64}, &place);
    in.each(in.item("boxes"), [&](std::int32_t) {
        Box box = {};
        in.read(BOX_KEYS, &box);
        words[box.no % WORDS] = BOX_IN_USE.put(box.word, 1);
    });
    tier_seal(BOXES, m, BLOCK_SIZE);
    return in.failed() ? -EINVAL : static_cast<std::int64_t>(place.offset);
}

constexpr tier_claim BOX_CLAIMS[] = {{"place", {0, BOX_PLACE.mask()}}};

constexpr tier_table BOXES = {
    .name = "box",
    .number_key = "box_no",
    .regions =
        [](const void *sb) {
            return tier_regions{
                {{static_cast<std::int64_t>(depot(sb).boxes_at), depot(sb).box_blocks}}};
        },
    .record_length = [](const void *) { return std::uint64_t{BLOCK_SIZE}; },
    .crc = crc_of_record,
    .checksum = &TIER_HEAD_CHECKSUM,
    .magic = tier_number_at(offsetof(BoxHead, magic), 4),
    .magic_value = BOX_MAGIC,
    .fields = [] { return tier_make_columns(HEAD_FIELDS); },
    .parts = &BOX_PARTS,
    .repair = {parse_boxes, nullptr},
    .in_use = {0, BOX_IN_USE.mask()},
    .owner = {"shelf", {0, BOX_SHELF.mask()}},
    .ends_with_owner = true,
    .claims = BOX_CLAIMS,
};

// The layout

constexpr const tier_table *TABLES[] = {&SUPER, &SHELVES, &BOXES};

std::vector<tier_area> areas(const void *sb)
{
    return {{"super block area", TIER_SUPER_OFFSET, BLOCK_SIZE},
            tier_table_area("shelves", SHELVES.regions(sb)[0], 0),
            tier_table_area("boxes", BOXES.regions(sb)[0], 0)};
}

// A block that begins with a record and has its checksum.
template <class Record>
Block sealed(const Record &record, std::size_t length)
{
    Block block{};
    memcpy(block.data(), &record, sizeof(record));
    seal(block, length);
    return block;
}

} // namespace

constinit const tier_layout DEPOT_LAYOUT = {
    .name = "depot",
    .version = 9,
    .version_number = tier_number_at(offsetof(DepotSuper, version), 4),
    .version_value = DEPOT_VERSION,
    .tables = TABLES,
    .areas = areas,
};

std::uint64_t box_word(std::uint64_t shelf, std::uint64_t place, std::uint64_t weight)
{
    return BOX_WEIGHT.put(BOX_IN_USE.put(BOX_PLACE.put(shelf, place), 1), weight);
}

void put_box(Device &device, std::uint64_t block, std::uint64_t slot, std::uint64_t word)
{
    const std::uint64_t offset = DEPOT.boxes_at + block * BLOCK_SIZE;
    Block boxes = device.block(offset);
    put_u64(boxes, 8 * slot, word);
    seal(boxes, BLOCK_SIZE);
    device.write(offset, boxes);
}

Device make_depot()
{
    Device device((2 + 8) * BLOCK_SIZE);
    device.write(TIER_SUPER_OFFSET, sealed(DEPOT, sizeof(DEPOT)));
    for (std::uint32_t no = 0; no < DEPOT.shelf_cnt; ++no) {
        DepotShelf shelf = {.checksum = 0,
                            .magic = SHELF_MAGIC,
                            .no = no,
                            .use = no % 2 == 0 ? 1U : 0U,
                            .uuid = {static_cast<std::uint8_t>(no + 1)},
                            .label = "by the door"};
        Block block = sealed(shelf, sizeof(shelf));
        put_u64(block, sizeof(shelf), 0x11 * no);
        seal(block, sizeof(shelf) + 8 * DEPOT_LEVELS);
        device.write(DEPOT.shelves_at + no * BLOCK_SIZE, block);
    }
    for (std::uint64_t no = 0; no < DEPOT.box_blocks; ++no)
        device.write(DEPOT.boxes_at + no * BLOCK_SIZE, sealed(BoxHead{0, BOX_MAGIC}, BLOCK_SIZE));
    put_box(device, 0, 1, box_word(0, 7, 100));
    put_box(device, 0, 511, box_word(0, 8, 101));
    put_box(device, 1, 5, box_word(2, 7, 102));
    return device;
}

} // namespace tier_test
