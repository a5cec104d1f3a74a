#include "zu_tierctl/salvage/domain.h"

#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/mapfile.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/entry/given_super.h"
#include "zu_tierctl/salvage/plan.h"

#include <algorithm>
#include <optional>

namespace tierctl {

namespace {

struct Stretch {
    uint64_t start;
    uint64_t length;
};

/* Of super block and tables, in the order of the device. */
std::vector<Stretch> metadata_stretches(const Metadata &metadata)
{
    std::vector<Stretch> stretches;
    for (const Table &table : metadata.tables) {
        for (const tier_region &region : table.regions) {
            stretches.push_back(
                {static_cast<uint64_t>(region.start), tier_multiply(region.count, SIZE_4K)});
        }
    }
    std::ranges::sort(stretches, {}, &Stretch::start);
    return stretches;
}

/* The whole blocks of a piece, as they are read. */
Stretch blocks_of(const DataPiece &piece)
{
    const uint64_t blocks = (uint64_t{piece.length} + SIZE_4K - 1) / SIZE_4K;
    return {piece.start, blocks * SIZE_4K};
}

} // namespace

bool print_domain(const DomainOptions &options)
{
    const Device device(options.device, Access::read_only, options.mapfile);
    hint_in_use(options.device);
    const Metadata metadata = read_metadata(device, options.super_file);
    const std::vector<Stretch> tables = metadata_stretches(metadata);
    std::optional<DataPlan> plan;
    if (options.domain != Domain::metadata) {
        plan.emplace(device, metadata, DataChoice{.all = options.domain == Domain::all});
    }
    MapfileWriter writer(device.size(), print_text);
    auto table = tables.begin();
    const auto add_tables = [&](uint64_t end) {
        for (; table != tables.end() && table->start < end; ++table) {
            writer.add(table->start, table->length, CopyStatus::finished);
        }
    };
    if (plan) {
        for (const DataPiece &piece : plan->pieces()) {
            const Stretch blocks = blocks_of(piece);
            add_tables(blocks.start);
            writer.add(blocks.start, blocks.length, CopyStatus::finished);
        }
    }
    add_tables(device.size());
    writer.finish();
    finish_output();
    return !plan || plan->tell_unknown();
}

} // namespace tierctl
