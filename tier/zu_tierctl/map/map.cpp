#include "zu_tierctl/map/map.h"

#include "zu_tier/record/text.h"
#include "zu_tierctl/check/check.h"
#include "zu_tierctl/check/states.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/fields.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <fmt/core.h>
#include <limits>
#include <map>
#include <utility>

namespace tierctl {

namespace {

constexpr uint64_t HOUR = 3600ULL * 1000 * 1000 * 1000;
constexpr uint64_t DAY = 24 * HOUR;
constexpr uint64_t ANY = std::numeric_limits<uint64_t>::max();

constexpr MapAge AGES[] = {
    {"hour", HOUR},      {"day", DAY},        {"week", 7 * DAY},
    {"month", 30 * DAY}, {"year", 365 * DAY}, {"older", ANY},
};

/* No layout has more bricks; references to other numbers are counted together. */
constexpr size_t BRICKS = 300;
constexpr uint16_t OTHER_BRICK = uint16_t{BRICKS};

/* For each entry of a table the brick that uses it. */
class BrickNumbers {
public:
    void set(uint64_t no, uint16_t brick)
    {
        if (no >= States::ENTRIES_MAX) { /* GCOVR_EXCL_BR_LINE: 64 GiB of entries */
            return;                      /* GCOVR_EXCL_LINE */
        }
        if (no >= numbers_.size()) {
            numbers_.resize(no + 1, OTHER_BRICK);
        }
        numbers_[no] = brick;
    }

    uint16_t get(uint64_t no) const { return no < numbers_.size() ? numbers_[no] : OTHER_BRICK; }

private:
    std::vector<uint16_t> numbers_;
};

/* Fills the tables of a map while they are read. */
class TableBuilder : public Watcher {
public:
    TableBuilder(Map &map, const tier_layout &layout, const CellsMax &cells_max)
        : map_(map), layout_(layout), cells_max_(cells_max)
    {
        for (size_t no = 0; no < BRICKS; no++) {
            bricks_.push_back({fmt::format("{}", no), "not in use, or damaged"});
        }
        bricks_.push_back({"other", "not known"});
    }

    void begin_table(const Table &table) override;
    void add_lost(uint64_t first_slot, uint64_t slots, uint64_t Counts::*count) override;
    void add_free(uint64_t no) override { add(no, &Counts::free); }
    void add_in_use(uint64_t no, const uint8_t *entry) override;

    /* Must be called when all tables have been read. */
    void finish();

private:
    MapTable &table() { return map_.tables.back(); }

    void add(uint64_t no, uint64_t Counts::*count)
    {
        const uint64_t cell = table_read_->index(no) / table().cell_entries;
        (table().cells[cell].counts.*count)++;
        (table().counts.*count)++;
    }

    void add_brick(uint64_t no, const uint8_t *entry);
    void add_file(const uint8_t *entry, MapBrick &brick);

    Map &map_;
    const tier_layout &layout_;
    const CellsMax &cells_max_;
    std::vector<MapBrick> bricks_;                     /* by number */
    std::map<std::string_view, BrickNumbers> numbers_; /* by table */
    const BrickNumbers *owners_ = nullptr;             /* of the table that this one refers to */
    BrickNumbers *own_ = nullptr;                      /* of this table */
    const Table *table_read_ = nullptr;                /* this table */
    const tier_table *row_ = nullptr;                  /* and its row */
    const tier_table *bricks_row_ = nullptr;           /* it refers to none; others refer to it */
    tier_columns columns_;                             /* of this table */
    bool is_owner_ = false;                            /* whether other tables refer to this one */
    std::vector<uint64_t> accesses_;
};

void TableBuilder::begin_table(const Table &table_read)
{
    table_read_ = &table_read;
    row_ = table_read.row;
    owners_ = &numbers_[row_->owner.table];
    own_ = &numbers_[row_->name];
    columns_ = row_->fields != nullptr ? row_->fields() : tier_columns{};
    is_owner_ = is_referred_to(layout_, *row_);
    if (row_->owner.table.empty() && is_owner_) {
        bricks_row_ = row_;
    }
    const uint64_t entries = table_read.entries();
    map_.tables.push_back({row_->name, 1, {.entries = entries}});
    if (entries == 0) {
        return;
    }
    const uint64_t cells = cells_max_(table_read.number(entries - 1));
    table().cell_entries = (entries - 1) / cells + 1;
    for (uint64_t first = 0, left = entries; left > 0;) {
        const uint64_t count = std::min(left, table().cell_entries);
        table().cells.push_back(
            {table_read.number(first), table_read.number(first + count - 1), {.entries = count}});
        first += count;
        left -= count;
    }
}

void TableBuilder::add_lost(uint64_t first_slot, uint64_t slots, uint64_t Counts::*count)
{
    const uint64_t a_slot = table_read_->entries_a_slot();
    uint64_t first = first_slot * a_slot;
    table().counts.*count += slots * a_slot;
    for (uint64_t left = slots * a_slot; left > 0;) {
        const uint64_t cell_entries = table().cell_entries;
        const uint64_t here = std::min(left, cell_entries - first % cell_entries);
        table().cells[first / cell_entries].counts.*count += here;
        first += here;
        left -= here;
    }
}

void TableBuilder::add_in_use(uint64_t no, const uint8_t *entry)
{
    add(no, &Counts::in_use);
    if (row_ == bricks_row_) {
        add_brick(no, entry);
        return;
    }
    if (row_->owner.table.empty()) {
        return;
    }
    const uint64_t owner = row_->owner.no.get(entry);
    uint16_t brick = owners_->get(owner);
    if (bricks_row_ != nullptr && row_->owner.table == bricks_row_->name) {
        /* A brick that is not in use counts as well. */
        brick = static_cast<uint16_t>(std::min<uint64_t>(owner, OTHER_BRICK));
        add_file(entry, bricks_[brick]);
    }
    if (is_owner_) {
        own_->set(no, brick);
    } else {
        bricks_[brick].extents++;
    }
}

void TableBuilder::add_brick(uint64_t no, const uint8_t *entry)
{
    if (no >= BRICKS) {
        return;
    }
    own_->set(no, static_cast<uint16_t>(no));
    bricks_[no].in_use = true;
    const auto path = std::ranges::find(columns_, tier_column_type::text, &tier_column::type);
    if (path != columns_.end()) {
        const auto *text = reinterpret_cast<const char *>(entry) + path->at;
        bricks_[no].path = shown_text(std::string(zutr_bounded(text, path->size)));
    }
}

void TableBuilder::add_file(const uint8_t *entry, MapBrick &brick)
{
    brick.inodes++;
    for (const tier_column &column : columns_) {
        if (column.key == "size") {
            brick.bytes += std::min(column_number(column, entry), ANY - brick.bytes);
        } else if (column.key == "atime" && accesses_.size() < States::ENTRIES_MAX) {
            accesses_.push_back(column_number(column, entry));
        }
    }
}

void TableBuilder::finish()
{
    for (MapBrick &brick : bricks_) {
        if (brick.in_use || brick.inodes != 0 || brick.extents != 0) {
            map_.bricks.push_back(std::move(brick));
        }
    }
    std::ranges::stable_sort(map_.bricks, std::ranges::greater{}, [](const auto &brick) {
        return std::pair(brick.extents, brick.inodes);
    });
    map_.ages.assign(std::begin(AGES), std::end(AGES));
    if (accesses_.empty()) {
        return;
    }
    const uint64_t newest = *std::ranges::max_element(accesses_);
    map_.accessed = time_text(newest);
    for (const uint64_t access : accesses_) {
        const uint64_t age = newest - access;
        std::ranges::find_if(map_.ages, [age](const auto &known) {
            return age <= known.end;
        })->inodes++;
    }
}

/* Adds the findings of a check to a map. */
class MapReport : public Report {
public:
    MapReport(Map &map, const Metadata &metadata)
        : Report(map.device), map_(map), metadata_(metadata)
    {
    }

private:
    void write(const Finding &finding) override
    {
        map_.findings_count++;
        MapTable &table = *std::ranges::find(map_.tables, finding.table, &MapTable::name);
        table.findings++;
        const Table &checked = find_table(metadata_.tables, finding.table);
        const bool is_block = finding.unit == "block";
        const uint64_t index =
            is_block ? finding.no * checked.entries_a_slot() : checked.index(finding.no);
        if (!table.cells.empty()) {
            table.cells[index / table.cell_entries].findings++;
        }
        if (map_.findings.size() < Map::FINDINGS_MAX) {
            map_.findings.push_back(
                {finding.kind.severity,
                 fmt::format("{}{} {}", finding.table, is_block ? " block" : "", finding.no),
                 finding.text, command(finding)});
        }
    }

    void write_end() override {} /* GCOVR_EXCL_LINE: nothing is printed */

    Map &map_;
    const Metadata &metadata_;
};

} // namespace

Look MapCell::look() const
{
    if (counts.unreadable != 0) {
        return Look::unreadable;
    }
    if (counts.damaged != 0) {
        return Look::damaged;
    }
    if (findings != 0) {
        return Look::finding;
    }
    return counts.in_use != 0 ? Look::in_use : Look::free;
}

unsigned MapCell::level() const
{
    if (counts.in_use == 0 || counts.in_use == counts.entries) {
        return counts.in_use == 0 ? 0 : 8;
    }
    return static_cast<unsigned>(1 + counts.in_use * 7 / counts.entries);
}

Map read_map(const std::string &device_path, const CellsMax &cells_max)
{
    const Device device(device_path, Access::read_only);
    const Metadata metadata = read_metadata(device);
    Map map;
    map.device = device_path;
    map.layout = metadata.layout->name;
    for (const tier_column &column : metadata.tables.front().row->fields()) {
        if (column.type == tier_column_type::uuid) {
            map.identity = zutr_uuid_utoa(metadata.super_block.data() + column.at);
        } else if (column.form == zutr_form::hex_and_time) {
            map.created = time_text(column_number(column, metadata.super()));
        }
    }
    TableBuilder tables(map, *metadata.layout, cells_max);
    MapReport report(map, metadata);
    check_metadata({.device = device_path}, device, metadata, report, &tables);
    tables.finish();
    return map;
}

std::string bytes_text(uint64_t bytes)
{
    constexpr const char *UNITS[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return fmt::format("{}", bytes);
    }
    const size_t power = (std::bit_width(bytes) - 1) / 10; /* of 1024 */
    const double unit = std::ldexp(1.0, static_cast<int>(10 * power));
    return fmt::format("{:.1f} {}", static_cast<double>(bytes) / unit, UNITS[power - 1]);
}

std::string counts_text(const Counts &counts, uint64_t findings)
{
    const std::pair<uint64_t, const char *> parts[] = {
        {counts.in_use, "in use"},
        {counts.free, "free"},
        {counts.damaged, "damaged"},
        {counts.unreadable, "unreadable"},
        {findings, findings == 1 ? "finding" : "findings"},
    };
    std::string text;
    for (const auto &[count, what] : parts) {
        if (count != 0) {
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, what);
        }
    }
    return text.empty() ? "nothing" : text;
}

} // namespace tierctl
