#include "zu_tierctl/template/template.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/template/kinds.h"

#include <algorithm>
#include <array>

namespace tierctl {

namespace {

using draft_function = void (*)(Draft &draft, const Metadata &metadata);

/* What drafts an entry of a table, by layout. */
struct kind {
    std::string_view table;
    std::array<draft_function, 3> draft;
};

constexpr kind KINDS[] = {
    {"super", {draft_super_v1, draft_super_v2, draft_super_v3}},
    {"brick", {draft_brick, draft_brick, draft_brick}},
    {"inode", {draft_inode_v1, draft_inode_v2, draft_inode_v3}},
    {"shard", {nullptr, nullptr, draft_shards_v3}},
    {"hot", {nullptr, nullptr, draft_hot_v3}},
    {"extent", {draft_extent_v1, draft_extent_v2, draft_extents_v3}},
};

draft_function draft_of(std::string_view table, Version version)
{
    const auto *found = std::ranges::find(KINDS, table, &kind::table);
    return found->draft.at(static_cast<size_t>(version) - 1);
}

/* Whether the block has the magic and the version of the layout. */
bool looks_like(const SuperLayout &layout, const uint8_t *block)
{
    return layout.table().magic->place.get(block) == layout.magic &&
           SuperLayout::version_of(block) == layout.code;
}

/* The layout of that name or, without a name, the one that the block looks like. */
const SuperLayout &find_layout(const Device &device, std::string_view name, const uint8_t *block)
{
    for (const SuperLayout &layout : super_layouts()) {
        if (name.empty() ? looks_like(layout, block) : name == layout.name) {
            return layout;
        }
    }
    throw UsageError(name.empty() ? device.path() + " has no super block of a known layout, "
                                                    "--layout must say which it had"
                                  : "unknown layout " + std::string(name));
}

/* A super block in any state, as the only table. */
Metadata read_super(const Device &device, std::string_view layout_name)
{
    Metadata metadata{};
    metadata.super_block = read_super(device);
    const SuperLayout &layout = find_layout(device, layout_name, metadata.super_block.data());
    metadata.version = layout.version;
    metadata.layout_name = layout.name;
    metadata.tables = {layout.table()};
    return metadata;
}

/* Beyond the largest number that an entry can have, repairs would find another slot. */
void check_number(const Table &table, uint64_t no)
{
    if (no >= table.count()) {
        throw UsageError("there is no " + std::string(table.name) + " " + std::to_string(no) +
                         " among " + std::to_string(table.count()));
    }
    if (table.number && table.number->width < sizeof(no) && no >> 8 * table.number->width != 0) {
        throw std::runtime_error("no repair file can name " + std::string(table.name) + " " +
                                 std::to_string(no));
    }
}

struct flaw_name {
    uint32_t flaw;
    const char *name;
};

constexpr flaw_name FLAW_NAMES[] = {
    {BAD_MAGIC, "magic"},
    {BAD_NUMBER, "number"},
    {BAD_CHECKSUM, "checksum"},
};

void note_flaws(Draft &draft)
{
    const uint32_t flaws = draft.table.flaws(draft.no, draft.block);
    std::string names;
    for (const auto &[flaw, name] : FLAW_NAMES) {
        if ((flaws & flaw) != 0) {
            names += (names.empty() ? "" : ", ") + std::string(name);
        }
    }
    if (!names.empty()) {
        draft.note("damaged: " + names);
    }
    if ((flaws & BAD_NUMBER) != 0) {
        draft.note("has number " + std::to_string(draft.table.number->get(draft.block)) +
                   ", the file has " + std::to_string(draft.no));
    }
}

/* The option that a device without a sound super block needs: the layout as the tool knows it. */
std::string version_option(const Draft &draft, const Metadata &metadata)
{
    const size_t index = static_cast<size_t>(metadata.version) - 1;
    return looks_like(super_layouts()[index], metadata.super_block.data()) &&
                   draft.table.flaws(0, draft.block) == 0
               ? ""
               : " -v " + std::to_string(index + 1);
}

void note_command(Draft &draft, const Metadata &metadata)
{
    const std::string option =
        draft.table.name == SUPER_TABLE ? version_option(draft, metadata) : "";
    draft.note("to repair it, with this file as FILE: zu_tier -p " +
               shell_word(draft.device.path()) + " -c repair_" + std::string(draft.table.name) +
               option + " -f FILE; with -y it writes");
}

} // namespace

Template make_template(const Device &device, std::string_view table_name, uint64_t no,
                       std::string_view layout)
{
    if (table_name != SUPER_TABLE && !layout.empty()) {
        throw UsageError("--layout is for the super block only");
    }
    const Metadata metadata =
        table_name == SUPER_TABLE ? read_super(device, layout) : read_metadata(device);
    const Table &table = find_table(metadata.tables, table_name);
    check_number(table, no);
    alignas(SIZE_4K) std::array<uint8_t, SIZE_4K> block;
    if (!device.read(table.slot(no), block.data(), SIZE_4K)) {
        throw_errno("cannot read " + std::string(table_name) + " " + std::to_string(no) + " of " +
                    device.path());
    }
    Draft draft{device, table, no, block.data()};
    if (table.fits()) {
        note_flaws(draft);
    }
    draft_of(table_name, metadata.version)(draft, metadata);
    for (const std::string &why : draft.refusals) {
        draft.note("zu_tier refuses this file as it stands: " + why);
    }
    note_command(draft, metadata);
    return {draft.file.take(), std::move(draft.notes)};
}

} // namespace tierctl
