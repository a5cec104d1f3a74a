#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/entry/fields.h"
#include "zu_tierctl/sql/rows.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <sqlite3.h>
#include <utility>

namespace tierctl {

namespace {

constexpr uint32_t NO_PART = ~uint32_t{0};

/* Ids of rows: the device, the number of the entry, the part of a piece. */
constexpr unsigned DEVICE_SHIFT = 52;
constexpr unsigned PART_SHIFT = 9;

/* A JSON string without its quotation marks. */
std::string unquoted(std::string text)
{
    text.pop_back();
    text.erase(0, 1);
    return text;
}

class EntryRows : public Rows {
public:
    EntryRows(const SqlDevices &devices, const SqlTable &sql_table, SlotCaches &caches,
              RowRange range)
        : devices_(devices), sql_table_(sql_table), caches_(caches), range_(std::move(range)),
          device_(devices.begin()), next_device_(devices.begin())
    {
    }

    bool next() override
    {
        while (!next_word()) {
            if (!next_slot()) {
                return false;
            }
        }
        return true;
    }

    void put(int column, sqlite3_context *to) override
    {
        switch (column) {
        case DEVICE_COLUMN:
            return put_constant(to, device_->name);
        case NO_COLUMN:
            return put_number(to, no_);
        case OFFSET_COLUMN:
            return put_number(to, static_cast<uint64_t>(slots_.offset) + slot_ * SIZE_4K);
        case STATE_COLUMN:
            return put_constant(to, slots_.data == nullptr ? "unreadable"
                                    : is_damaged_          ? "damaged"
                                                           : "ok");
        default:
            return put_field(layout_->sources[static_cast<size_t>(column) - BASE_COLUMNS], to);
        }
    }

    int64_t id() const override
    {
        const uint64_t parts = sql_table_.is_parts ? PART_SHIFT : 0;
        const uint64_t part = sql_table_.is_parts ? part_ % (1U << PART_SHIFT) : 0;
        return static_cast<int64_t>((device_no_ << DEVICE_SHIFT) ^ (no_ << parts) ^ part);
    }

private:
    /* Goes to the next row of the slot. */
    bool next_word()
    {
        if (!has_slot_) {
            return false;
        }
        if (sql_table_.is_parts) {
            return next_part();
        }
        if (word_ == table_->end_word || no_of(word_) > range_.last) {
            has_slot_ = false;
            return false;
        }
        no_ = no_of(word_++);
        has_part_ = false;
        return true;
    }

    uint64_t no_of(uint32_t word) const { return slot_no() * table_->end_word + word; }
    uint64_t slot_no() const { return base_ + slots_.first_no + slot_; }

    /* Of an entry of which no piece can be told there is a single row. */
    bool next_part()
    {
        const uint32_t first = part_ == NO_PART ? 0 : part_ + 1;
        no_ = slot_no();
        if (slots_.data == nullptr || is_damaged_ || !table_->fits()) {
            has_slot_ = part_ == NO_PART;
            part_ = 0;
            has_part_ = false;
            return has_slot_;
        }
        const tier_parts &parts = *layout_->row->parts;
        const void *sb = device_->metadata.super();
        for (part_ = first; has_part(); part_++) {
            parts.show(sb, slot(), no_, part_, record_.data());
            if (parts.is_shown == nullptr || parts.is_shown(record_.data())) {
                has_part_ = true;
                return true;
            }
        }
        has_slot_ = false;
        return false;
    }

    bool has_part() const
    {
        const tier_table &row = *layout_->row;
        const void *sb = device_->metadata.super();
        const bool is_known =
            row.data == nullptr || row.data->is_known == nullptr || row.data->is_known(sb);
        const Entry entry = {device_->metadata, *table_, no_, slot()};
        return is_known && table_->in_use(slot()) && part_ < row.parts->count(sb) &&
               part_offset(entry, part_) + row.parts->size <= SIZE_4K;
    }

    const uint8_t *slot() const { return slots_.slot(slot_); }

    /* Goes to the next slot of any device. */
    bool next_slot()
    {
        while (!is_in_run_ || ++slot_ == slots_.count) {
            is_in_run_ = next_run();
            if (!is_in_run_) {
                return false;
            }
            slot_ = ~uint64_t{0}; /* before the first */
        }
        const bool is_asked = range_.has_state || sql_table_.is_parts;
        is_damaged_ = is_asked && slots_.data != nullptr &&
                      (!table_->identifies() || table_->flaws(slot_no(), slot()) != 0);
        word_ = table_->first_word;
        if (slot_no() == range_.first / table_->end_word) {
            word_ = std::max(word_, static_cast<uint32_t>(range_.first % table_->end_word));
        }
        part_ = NO_PART;
        computed_of_ = nullptr;
        has_slot_ = true;
        return true;
    }

    /* Makes slot `no` of a region, which begins with slot `begin`, the next run. */
    void read_single(const tier_region &region, uint64_t begin, uint64_t no)
    {
        SlotCache &cache = caches_.of(device_->device, *table_);
        const bool is_read = cache.read(region, begin, no, single_.data());
        single_run_ = {.first_no = 0,
                       .count = 1,
                       .offset = region.slot(no - begin),
                       .data = is_read ? single_.data() : nullptr,
                       .error = 0};
    }

    bool next_run()
    {
        while (!take_single() && (!reader_ || !reader_->next(&slots_))) {
            reader_.reset();
            if (!next_region()) {
                return false;
            }
        }
        return true;
    }

    bool take_single()
    {
        if (!single_run_) {
            return false;
        }
        slots_ = *single_run_;
        single_run_.reset();
        return true;
    }

    /* Begins to read what is wanted of the next region of any device. */
    bool next_region()
    {
        while (true) {
            if (!is_on_device_ && !next_device()) {
                return false;
            }
            if (region_no_ == table_->regions.size()) {
                is_on_device_ = false;
                continue;
            }
            const tier_region &region = table_->regions[region_no_++];
            const uint64_t begin = before_;
            before_ += region.count;
            const uint64_t present = slots_on_device(region, device_->device.size());
            const uint64_t first = std::max(range_.first / table_->end_word, begin);
            const uint64_t last = std::min(range_.last / table_->end_word, begin + present - 1);
            if (present == 0 || first > last) {
                continue;
            }
            base_ = first;
            if (first == last) {
                read_single(region, begin, first);
            } else {
                wanted_[0] = {region.slot(first - begin), last - first + 1};
                reader_.emplace(device_->device, wanted_);
            }
            return true;
        }
    }

    bool next_device()
    {
        while (next_device_ != devices_.end()) {
            device_ = next_device_++;
            device_no_++;
            layout_ = sql_table_.of(*device_->metadata.layout);
            if (layout_ != nullptr && (!range_.device || *range_.device == device_->name)) {
                table_ = &find_table(device_->metadata.tables, layout_->row->name);
                region_no_ = 0;
                before_ = 0;
                is_on_device_ = true;
                return true;
            }
        }
        return false;
    }

    void put_field(const Source &source, sqlite3_context *to)
    {
        if (source.from == From::nowhere || slots_.data == nullptr || !table_->fits()) {
            return; /* NULL */
        }
        if (source.from == From::slot && source.column.compute != nullptr) {
            return put_number(to, computed(source));
        }
        if (source.from == From::slot) {
            return put_column(source.column, slot(), to);
        }
        if (source.from == From::words) {
            return put_words(source.column, to);
        }
        if (sql_table_.is_parts && !has_part_) {
            return;
        }
        if (!has_part_) {
            layout_->row->parts->show(device_->metadata.super(), slot(), slot_no(), word_ - 1,
                                      record_.data());
            has_part_ = true;
        }
        put_column(source.column, record_.data(), to);
    }

    /* A number that takes work, the same in all rows of a slot. */
    uint64_t computed(const Source &source)
    {
        if (computed_of_ != &source) {
            computed_of_ = &source;
            computed_ = column_number(source.column, slot());
        }
        return computed_;
    }

    static void put_column(const tier_column &column, const void *record, sqlite3_context *to)
    {
        const auto *bytes = static_cast<const uint8_t *>(record) + column.at;
        switch (column.type) {
        case tier_column_type::text:
            return put_text(
                to, valid_utf8(zutr_bounded(reinterpret_cast<const char *>(bytes), column.size)));
        case tier_column_type::uuid:
            return put_text(to, zutr_uuid_utoa(bytes));
        default:
            break;
        }
        const uint64_t number = column_number(column, record);
        if (column.form == zutr_form::swapped_hex8) {
            return put_text(to, unquoted(number_text(column.form, number)));
        }
        put_number(to, number);
    }

    /* The words of a bitmap, as a dump shows them. */
    void put_words(const tier_column &column, sqlite3_context *to)
    {
        std::string text;
        each_part({device_->metadata, *table_, no_, slot()}, [&](uint32_t, const void *record) {
            text += text.empty() ? "" : " ";
            text += unquoted(number_text(column.form, column_number(column, record)));
        });
        put_text(to, text);
    }

    const SqlDevices &devices_;
    const SqlTable &sql_table_;
    SlotCaches &caches_;
    const RowRange range_;

    SqlDevices::const_iterator device_;
    SqlDevices::const_iterator next_device_;
    uint64_t device_no_ = 0;
    bool is_on_device_ = false; /* not all of its table has been read; of that: */
    const LayoutTable *layout_ = nullptr;
    const Table *table_ = nullptr;
    size_t region_no_ = 0; /* of the next region */
    uint64_t before_ = 0;  /* slots of those before it */

    std::array<tier_region, 1> wanted_{}; /* what is read of a region */
    uint64_t base_ = 0;                   /* number of its first slot */
    std::optional<TableReader> reader_;
    alignas(uint64_t) std::array<uint8_t, SIZE_4K> single_{}; /* a slot that is read by itself */
    std::optional<Slots> single_run_;
    Slots slots_{};
    bool is_in_run_ = false;
    uint64_t slot_ = 0; /* of the run */
    bool has_slot_ = false;
    bool is_damaged_ = false;
    uint32_t word_ = 0; /* of the next row */
    uint32_t part_ = NO_PART;
    const Source *computed_of_ = nullptr; /* of which `computed_` is the value in the slot */
    uint64_t computed_ = 0;

    uint64_t no_ = 0;
    bool has_part_ = false; /* the record of the row is there */
    alignas(uint64_t) std::array<uint8_t, 64> record_{};
};

} // namespace

std::unique_ptr<Rows> make_entry_rows(const SqlDevices &devices, const SqlTable &table,
                                      SlotCaches &caches, RowRange range)
{
    return std::make_unique<EntryRows>(devices, table, caches, std::move(range));
}

uint64_t count_rows(const SqlDevices &devices, const SqlTable &sql_table)
{
    uint64_t rows = 0;
    for (const SqlDevice &device : devices) {
        const LayoutTable *layout = sql_table.of(*device.metadata.layout);
        if (layout == nullptr) {
            continue;
        }
        const Table &table = find_table(device.metadata.tables, layout->row->name);
        for (const tier_region &region : table.regions) {
            rows += slots_on_device(region, device.device.size()) * table.entries_a_slot();
        }
    }
    return rows;
}

void put_number(sqlite3_context *to, uint64_t number)
{
    if (number <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        sqlite3_result_int64(to, static_cast<int64_t>(number));
    } else {
        put_text(to, fmt::format("{}", number));
    }
}

void put_constant(sqlite3_context *to, std::string_view text)
{
    sqlite3_result_text(to, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void put_text(sqlite3_context *to, std::string_view text)
{
    sqlite3_result_text(to, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

} // namespace tierctl
