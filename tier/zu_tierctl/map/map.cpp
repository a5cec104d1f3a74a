#include "zu_tierctl/map/map.h"

#include "common/zutr_crc32.h"
#include "zu_tier/record/text.h"
#include "zu_tierctl/check/check.h"
#include "zu_tierctl/check/states.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/ages.h"
#include "zu_tierctl/entry/fields.h"
#include "zu_tierctl/entry/given_super.h"
#include "zu_tierctl/plan/plan_file.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>
#include <limits>
#include <map>
#include <utility>

namespace tierctl {

namespace {

constexpr uint64_t ANY = std::numeric_limits<uint64_t>::max();

/* No layout has more bricks; references to other numbers are counted together. */
constexpr size_t OWNERS = 300;
constexpr uint16_t OTHER_OWNER = uint16_t{OWNERS};

/* For each entry of a table the owner that uses it. */
class OwnerNumbers {
public:
    void set(uint64_t no, uint16_t owner)
    {
        if (no >= States::ENTRIES_MAX) { /* GCOVR_EXCL_BR_LINE: 64 GiB of entries */
            return;                      /* GCOVR_EXCL_LINE */
        }
        if (no >= numbers_.size()) {
            numbers_.resize(no + 1, OTHER_OWNER);
        }
        numbers_[no] = owner;
    }

    uint16_t get(uint64_t no) const { return no < numbers_.size() ? numbers_[no] : OTHER_OWNER; }

private:
    std::vector<uint16_t> numbers_;
};

/* Fills the tables of a map while they are read. */
class TableBuilder : public Watcher {
public:
    TableBuilder(Map &map, const Metadata &metadata, const CellsMax &cells_max)
        : map_(map), layout_(*metadata.layout), super_(metadata.super()), cells_max_(cells_max)
    {
        for (size_t no = 0; no < OWNERS; no++) {
            owners_.push_back({fmt::format("{}", no), "not in use, or damaged"});
        }
        owners_.push_back({"other", "not known"});
    }

    void begin_table(const Table &table) override;
    void add_lost(uint64_t first_slot, uint64_t slots, uint64_t Counts::*count) override;
    void add_sound(const SlotWords &words) override;

    /* Must be called when all tables have been read. */
    void finish();

private:
    MapTable &table() { return map_.tables.back(); }

    MapCell &cell_of(uint64_t no) { return table().cell(table_read_->index(no)); }

    void begin_use();
    void add_cells(uint64_t first, uint64_t end);
    void add_in_use(uint64_t no, const uint8_t *entry, MapCell &cell);
    bool is_dirty(uint64_t no, const uint8_t *entry);
    void add_owner(uint64_t no, const uint8_t *entry);
    void add_file(const uint8_t *entry, MapOwner &owner);

    Map &map_;
    const tier_layout &layout_;
    const void *super_;
    const CellsMax &cells_max_;
    std::vector<MapOwner> owners_;                     /* by number */
    std::map<std::string_view, OwnerNumbers> numbers_; /* by table */
    std::vector<uint64_t> accesses_;
    std::array<tier_piece, TIER_PIECES_MAX> pieces_{};

    /* Of the table that is read. */
    const Table *table_read_ = nullptr;
    const tier_table *row_ = nullptr;
    const OwnerNumbers *used_ = nullptr; /* of the table that it refers to */
    OwnerNumbers *own_ = nullptr;        /* of its own entries, if others refer to them */
    bool is_owner_ = false;              /* whether its entries are the owners of all others */
    bool is_user_ = false;               /* whether they belong to the last of `use.users` */
    bool is_file_ = false;               /* whether they refer to an owner themselves */
    const tier_column *path_ = nullptr;  /* columns, null: there is none */
    const tier_column *size_ = nullptr;
    const tier_column *access_ = nullptr;
    tier_columns columns_;
};

/* The first column that is as described; null when there is none. */
template <class Is>
const tier_column *find_column(const tier_columns &columns, const Is &is)
{
    const auto column = std::ranges::find_if(columns, is);
    return column != columns.end() ? &*column : nullptr;
}

void TableBuilder::begin_table(const Table &table_read)
{
    table_read_ = &table_read;
    row_ = table_read.row;
    begin_use();
    const uint64_t entries = table_read.entries();
    map_.tables.push_back({row_->name, 1, {.entries = entries}});
    if (entries == 0) {
        return;
    }
    /* No cell has entries of both regions: a table with two has up to one cell more. */
    const uint64_t more = table_read.regions.size() - 1;
    const uint64_t cells = cells_max_(table_read.number(entries - 1));
    table().cell_entries = (entries - 1) / std::max<uint64_t>(1, cells - more) + 1;
    table().entries_before =
        more == 0 ? entries : table_read.regions.front().count * table_read.entries_a_slot();
    add_cells(0, table().entries_before);
    table().cells_before = table().cells.size();
    add_cells(table().entries_before, entries);
}

void TableBuilder::add_cells(uint64_t first, uint64_t end)
{
    while (first < end) {
        const uint64_t count = std::min(end - first, table().cell_entries);
        table().cells.push_back({table_read_->number(first),
                                 table_read_->number(first + count - 1),
                                 {.entries = count}});
        first += count;
    }
}

void TableBuilder::add_lost(uint64_t first_slot, uint64_t slots, uint64_t Counts::*count)
{
    const uint64_t a_slot = table_read_->entries_a_slot();
    uint64_t first = first_slot * a_slot;
    table().counts.*count += slots * a_slot;
    for (uint64_t left = slots * a_slot; left > 0;) {
        MapCell &cell = table().cell(first);
        const uint64_t here = std::min(left, table_read_->index(cell.last) + 1 - first);
        cell.counts.*count += here;
        first += here;
        left -= here;
    }
}

void TableBuilder::begin_use()
{
    MapUse &use = map_.use;
    const bool is_referred = is_referred_to(layout_, *row_);
    const std::string_view refers_to = row_->owner.table;
    is_owner_ = use.owner.empty() && refers_to.empty() && is_referred;
    is_file_ = !refers_to.empty() && refers_to == use.owner;
    is_user_ = is_file_ || std::ranges::find(use.users, refers_to) != use.users.end();
    if (is_user_) {
        use.users.push_back(row_->name);
        for (MapOwner &owner : owners_) {
            owner.entries.push_back(0);
        }
    }
    used_ = &numbers_[refers_to];
    own_ = is_referred ? &numbers_[row_->name] : nullptr;
    columns_ = row_->fields != nullptr ? row_->fields() : tier_columns{};
    const auto has_key = [](std::string_view key) {
        return [key](const tier_column &column) { return column.key == key; };
    };
    path_ = find_column(
        columns_, [](const tier_column &column) { return column.type == tier_column_type::text; });
    if (is_owner_) {
        use.owner = row_->name;
        use.text_key = path_ != nullptr ? path_->key : "";
    }
    size_ = is_file_ ? find_column(columns_, has_key("size")) : nullptr;
    access_ = is_file_ ? find_column(columns_, has_key("atime")) : nullptr;
    use.has_sizes = use.has_sizes || size_ != nullptr;
    map_.aged = access_ != nullptr ? row_->name : map_.aged;
}

/* Cell by cell; nearly always there is only one. */
void TableBuilder::add_sound(const SlotWords &words)
{
    const uint64_t no = words.slot * table_read_->end_word;
    std::span<const uint16_t> used = words.used;
    for (uint32_t first = words.first; first < words.end;) {
        MapCell &cell = cell_of(no + first);
        const uint64_t end = std::min<uint64_t>(words.end, cell.last + 1 - no);
        const auto in_use =
            used.first(static_cast<size_t>(std::ranges::lower_bound(used, end) - used.begin()));
        for (Counts *counts : {&cell.counts, &table().counts}) {
            counts->in_use += in_use.size();
            counts->free += end - first - in_use.size();
        }
        for (const uint16_t k : in_use) {
            add_in_use(no + k, Table::entry(words.data, k), cell);
        }
        used = used.subspan(in_use.size());
        first = static_cast<uint32_t>(end);
    }
}

void TableBuilder::add_in_use(uint64_t no, const uint8_t *entry, MapCell &cell)
{
    if (is_owner_) {
        add_owner(no, entry);
    }
    const uint64_t dirty = row_->data != nullptr && is_dirty(no, entry) ? 1 : 0;
    cell.dirty += dirty;
    table().dirty += dirty;
    if (!is_user_) {
        return;
    }
    const uint64_t refers_to = row_->owner.no.get(entry);
    /* An owner that is not in use counts as well. */
    const uint16_t owner = is_file_
                               ? static_cast<uint16_t>(std::min<uint64_t>(refers_to, OTHER_OWNER))
                               : used_->get(refers_to);
    owners_[owner].entries.back()++;
    owners_[owner].dirty += dirty;
    map_.use.has_dirty = map_.use.has_dirty || dirty != 0;
    if (is_file_) {
        add_file(entry, owners_[owner]);
    }
    if (own_ != nullptr) {
        own_->set(no, owner);
    }
}

bool TableBuilder::is_dirty(uint64_t no, const uint8_t *entry)
{
    const uint32_t count = row_->data->pieces(super_, entry, no, pieces_.data());
    return std::any_of(pieces_.begin(), pieces_.begin() + count,
                       [](const tier_piece &piece) { return !piece.clean; });
}

void TableBuilder::add_owner(uint64_t no, const uint8_t *entry)
{
    if (no >= OWNERS) {
        return;
    }
    own_->set(no, static_cast<uint16_t>(no));
    owners_[no].in_use = true;
    if (path_ != nullptr) {
        const auto *text = reinterpret_cast<const char *>(entry) + path_->at;
        owners_[no].path = shown_text(std::string(zutr_bounded(text, path_->size)));
    }
}

void TableBuilder::add_file(const uint8_t *entry, MapOwner &owner)
{
    if (size_ != nullptr) {
        owner.bytes += std::min(column_number(*size_, entry), ANY - owner.bytes);
    }
    if (access_ != nullptr && accesses_.size() < States::ENTRIES_MAX) {
        accesses_.push_back(column_number(*access_, entry));
    }
}

void TableBuilder::finish()
{
    for (MapOwner &owner : owners_) {
        const auto is_used = [](uint64_t entries) { return entries != 0; };
        if (owner.in_use || std::ranges::any_of(owner.entries, is_used)) {
            map_.use.owners.push_back(std::move(owner));
        }
    }
    std::ranges::stable_sort(map_.use.owners, [](const MapOwner &a, const MapOwner &b) {
        return std::lexicographical_compare(b.entries.rbegin(), b.entries.rend(),
                                            a.entries.rbegin(), a.entries.rend());
    });
    for (const AgeGroup &group : AGE_GROUPS) {
        map_.ages.push_back({group.name});
    }
    if (accesses_.empty()) {
        return;
    }
    const NewestTime newest = find_newest(accesses_);
    map_.odd = newest.odd;
    map_.odd_access = time_text(newest.latest);
    map_.accessed = time_text(newest.time);
    for (const uint64_t access : accesses_) {
        if (access <= newest.time) {
            map_.ages[age_group(newest, access)].entries++;
        }
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
            table.cell(index).findings++;
        }
        MapKind &kind = map_.kinds[finding.kind.name];
        kind.count++;
        if (kind.kept < Map::KIND_MAX && map_.findings.size() < Map::FINDINGS_MAX) {
            kind.kept++;
            map_.findings.push_back({finding.kind.severity, finding.kind.name, finding.table,
                                     about_text(finding), finding_text(finding), command(finding)});
        }
    }

    void write_end() override {} /* GCOVR_EXCL_LINE: nothing is printed */

    Map &map_;
    const Metadata &metadata_;
};

/* Shows a plan in a map: its steps for blocks that are as it says. */
class PlanBuilder {
public:
    PlanBuilder(Map &map, const Device &device, const Metadata &metadata)
        : map_(map), device_(device), metadata_(metadata)
    {
    }

    void add(const Plan &plan)
    {
        uint64_t others = 0;
        uint64_t steps = 0;
        for (const Step &step : plan.steps) {
            if (step.action == Action::leave) {
                continue;
            }
            if (is_due(step)) {
                add(step);
                steps++;
            } else {
                others++;
            }
        }
        map_.plan = fmt::format("{} step{}", steps, steps == 1 ? "" : "s");
        if (others != 0) {
            map_.plan += fmt::format(", and {} for blocks that are not as it says", others);
        }
    }

private:
    /* Whether the block is still what it was when the plan was made. */
    bool is_due(const Step &step) const
    {
        alignas(SIZE_4K) std::array<uint8_t, SIZE_4K> block;
        if (!device_.read(step.offset, block.data(), SIZE_4K)) {
            return step.unreadable;
        }
        return !step.unreadable && zutr_crc32(block.data(), SIZE_4K) == step.crc;
    }

    void add(const Step &step)
    {
        MapTable &table = *std::ranges::find(map_.tables, step.table, &MapTable::name);
        const uint64_t entries = find_table(metadata_.tables, step.table).entries_a_slot();
        table.steps++;
        for (uint64_t index = step.no * entries, end = index + entries; index < end;) {
            MapCell &cell = table.cell(index);
            const uint64_t here = std::min(end - index, cell_end(table, index) - index);
            cell.steps++;
            cell.repaired += step.action == Action::free ? 0 : here;
            index += here;
        }
    }

    /* The index of the entry after the last of a cell. */
    static uint64_t cell_end(const MapTable &table, uint64_t index)
    {
        const uint64_t first = index < table.entries_before ? 0 : table.entries_before;
        return first + ((index - first) / table.cell_entries + 1) * table.cell_entries;
    }

    Map &map_;
    const Device &device_;
    const Metadata &metadata_;
};

void show_plan(Map &map, const std::string &path, const Device &device, const Metadata &metadata)
{
    const Plan plan = read_plan(path);
    if (plan.super_block != metadata.super_block || plan.size != device.size()) {
        throw std::runtime_error(
            fmt::format("{} is a plan for another device than {}", path, device.path()));
    }
    PlanBuilder(map, device, metadata).add(plan);
}

} // namespace

Look MapCell::look() const
{
    if (steps != 0 && repaired >= counts.unreadable + counts.damaged) {
        return Look::planned;
    }
    if (counts.unreadable != 0) {
        return Look::unreadable;
    }
    if (counts.damaged != 0) {
        return Look::damaged;
    }
    if (findings != 0) {
        return Look::finding;
    }
    if (dirty != 0) {
        return Look::dirty;
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

Map read_map(const std::string &device_path, const CellsMax &cells_max,
             const std::string &super_file, bool quick, const std::string &plan_file,
             const std::string &mapfile)
{
    const Device device(device_path, Access::read_only, mapfile);
    hint_in_use(device_path);
    const Metadata metadata = read_metadata(device, super_file);
    Map map;
    map.device = device_path;
    map.super_file = super_file;
    map.quick = quick;
    map.layout = metadata.layout->name;
    for (const tier_column &column : metadata.tables.front().row->fields()) {
        if (column.type == tier_column_type::uuid) {
            map.identity = zutr_uuid_utoa(metadata.super_block.data() + column.at);
        } else if (column.form == zutr_form::hex_and_time) {
            map.created = time_text(column_number(column, metadata.super()));
        }
    }
    TableBuilder tables(map, metadata, cells_max);
    MapReport report(map, metadata);
    CheckOptions options{.device = device_path, .super_file = super_file};
    if (quick) {
        options.claims_memory = 0;
    }
    check_metadata(options, device, metadata, report, &tables);
    tables.finish();
    if (!plan_file.empty()) {
        show_plan(map, plan_file, device, metadata);
    }
    return map;
}

std::string ages_heading(const Map &map)
{
    return fmt::format("{} ages: time from the last access to the newest one", map.aged);
}

std::string expansion_text(const MapTable &table)
{
    return fmt::format("expansion: {} to {}", table.cells[table.cells_before].first,
                       table.cells.back().last);
}

std::string findings_count_text(const Map &map)
{
    return fmt::format("{}{}", map.quick ? "at least " : "", map.findings_count);
}

std::string odd_text(const Map &map)
{
    return map.odd == 0
               ? ""
               : fmt::format("{} left out: more than a year later than all others, up to {}",
                             map.odd, map.odd_access);
}

std::string dirty_text(const MapOwner &owner)
{
    const uint64_t entries = owner.entries.back();
    const uint64_t share = owner.dirty == 0 ? 0 : owner.dirty * 100 / entries;
    return fmt::format("{}%", owner.dirty != 0 && share == 0 ? 1 : share);
}

std::string counts_text(const Counts &counts, uint64_t findings, uint64_t steps, uint64_t dirty)
{
    const std::pair<uint64_t, const char *> parts[] = {
        {counts.in_use, "in use"},
        {dirty, "dirty"},
        {counts.free, "free"},
        {counts.damaged, "damaged"},
        {counts.unreadable, "unreadable"},
        {findings, findings == 1 ? "finding" : "findings"},
        {steps, steps == 1 ? "step" : "steps"},
    };
    std::string text;
    for (const auto &[count, what] : parts) {
        if (count != 0) {
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, what);
        }
    }
    if (text.empty()) {
        return "nothing";
    }
    return text;
}

} // namespace tierctl
