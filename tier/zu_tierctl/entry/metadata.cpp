#include "zu_tierctl/entry/metadata.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/diagnosis.h"

#include <algorithm>
#include <cstring>
#include <fmt/core.h>

namespace tierctl {

bool looks_like(const tier_layout &layout, const Block &block)
{
    const tier_table &super = *layout.tables.front();
    return super.magic.get(block.data()) == super.magic_value &&
           layout.version_number.get(block.data()) == layout.version_value;
}

bool is_super(const tier_layout &layout, const Block &block)
{
    if (!looks_like(layout, block)) {
        return false;
    }
    const Table table(*layout.tables.front(), block.data());
    return table.fits() && table.flaws(0, block.data()) == 0;
}

const tier_layout *layout_of(const Block &block)
{
    const auto layouts = tier_layouts();
    const auto found = std::ranges::find_if(
        layouts, [&block](const tier_layout *layout) { return is_super(*layout, block); });
    return found == layouts.end() ? nullptr : *found;
}

Block read_super(const Device &device)
{
    alignas(SIZE_4K) Block block;
    if (!device.read(TIER_SUPER_OFFSET, block.data(), SIZE_4K)) {
        const int error = errno;
        throw std::runtime_error(
            fmt::format("cannot read the super block of {}: {}", device.path(), error_text(error)) +
            text_if(error == EIO, "; what helps: " + super_ways(device.path())));
    }
    return block;
}

namespace {

/* Throws unless the list of unreadable blocks is one of these tables. */
void require_list_of(const std::vector<Table> &tables, const Device &device)
{
    for (const UnreadableRun &run : device.unreadable().runs()) {
        const auto table = std::ranges::find(tables, run.table, &Table::name);
        if (table == tables.end() || run.no >= table->count() ||
            run.count > table->count() - run.no || run.offset != table->slot(run.no)) {
            throw std::runtime_error(
                fmt::format("{} names blocks that are not in {}: {} {}, {} of them, at {}",
                            unreadable_path(device.path()), device.path(), run.table, run.no,
                            run.count, run.offset));
        }
    }
}

} // namespace

Metadata make_metadata(const tier_layout &layout, const Block &super_block, const Device &device)
{
    Metadata metadata{&layout, super_block, tables_of(layout, super_block.data())};
    require_list_of(metadata.tables, device);
    return metadata;
}

Metadata read_metadata(const Device &device)
{
    const Block block = read_super(device);
    const tier_layout *layout = layout_of(block);
    if (layout == nullptr) {
        throw std::runtime_error(diagnose_super(device.path(), block));
    }
    return make_metadata(*layout, block, device);
}

} // namespace tierctl
