#include "zu_tierctl/check/check.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/sql/rows.h"

#include <array>
#include <fmt/format.h>
#include <stdexcept>
#include <utility>

namespace tierctl {

struct FindingRow {
    Finding finding;
    std::string text;
    std::string command;
};

namespace {

/* More are not kept, of all devices together: then one that is asked again is checked again. */
constexpr size_t FINDINGS_MAX = size_t{1} << 16;

/* Bytes for the search for duplicates: less than `check` takes, and so more passes. */
constexpr size_t CLAIMS_MEMORY = size_t{48} << 20;

enum FindingColumn {
    TABLE_COLUMN = BASE_COLUMNS,
    LAST_COLUMN,
    COUNT_COLUMN,
    UNIT_COLUMN,
    KIND_COLUMN,
    SEVERITY_COLUMN,
    TEXT_COLUMN,
    COMMAND_COLUMN,
};

/* Keeps what a check finds. */
class KeepingReport : public Report {
public:
    explicit KeepingReport(const SqlDevice &device)
        : Report(device.device.path(), Detail::runs), path_(device.device.path())
    {
    }

    FindingList take() { return std::make_shared<std::vector<FindingRow>>(std::move(rows_)); }

private:
    void write(const Finding &finding) override
    {
        if (rows_.size() == FINDINGS_MAX) {
            throw std::runtime_error(fmt::format(
                "{} has more than {} findings: ask zu_tierctl check", path_, FINDINGS_MAX));
        }
        rows_.push_back({finding, finding_text(finding), command(finding)});
        rows_.back().finding.text.clear();
    }

    void write_end() override {}

    std::string path_;
    std::vector<FindingRow> rows_;
};

class FindingRows : public Rows {
public:
    FindingRows(const SqlDevices &devices, FindingLists &known, RowRange range)
        : known_(known), range_(std::move(range)), device_(devices.begin()),
          next_device_(devices.begin()), end_(devices.end())
    {
    }

    bool next() override
    {
        do {
            row_++;
            while (rows_ == nullptr || row_ >= rows_->size()) {
                if (next_device_ == end_) {
                    return false;
                }
                device_ = next_device_++;
                device_no_++;
                rows_ = !range_.device || *range_.device == device_->name ? findings() : nullptr;
                row_ = 0;
            }
        } while (!is_wanted(rows_->at(row_).finding.no));
        return true;
    }

    void put(int column, sqlite3_context *to) override
    {
        const auto &[finding, text, command] = rows_->at(row_);
        switch (column) {
        case DEVICE_COLUMN:
            return put_constant(to, device_->name);
        case NO_COLUMN:
            return put_number(to, finding.no);
        case OFFSET_COLUMN:
            return put_number(to, static_cast<uint64_t>(finding.offset));
        case STATE_COLUMN:
            return put_constant(to, state_of(finding));
        case TABLE_COLUMN:
            return put_constant(to, finding.table);
        case LAST_COLUMN:
            return put_number(to, finding.last);
        case COUNT_COLUMN:
            return put_number(to, finding.count);
        case UNIT_COLUMN:
            return put_constant(to, finding.unit);
        case KIND_COLUMN:
            return put_text(to, finding.kind.name);
        case SEVERITY_COLUMN:
            return put_constant(to, severity_name(finding.kind.severity));
        case TEXT_COLUMN:
            return put_text(to, valid_utf8(text));
        default:
            return put_text(to, valid_utf8(command));
        }
    }

    int64_t id() const override { return static_cast<int64_t>(device_no_ << 32 | row_); }

private:
    bool is_wanted(uint64_t no) const { return no >= range_.first && no <= range_.last; }

    FindingList findings()
    {
        const auto found = known_.find(&*device_);
        if (found != known_.end()) {
            return found->second;
        }
        FindingList list = check();
        size_t kept = list->size();
        for (const auto &[device, rows] : known_) {
            kept += rows->size();
        }
        if (kept > FINDINGS_MAX) {
            known_.clear();
        }
        known_[&*device_] = list;
        return list;
    }

    FindingList check() const
    {
        KeepingReport report(*device_);
        const CheckOptions options{.device = device_->device.path(),
                                   .claims_memory = CLAIMS_MEMORY};
        check_metadata(options, device_->device, device_->metadata, report, nullptr);
        report.finish();
        return report.take();
    }

    /* That of the first entry, read once more. */
    const char *state_of(const Finding &finding) const
    {
        const Table &table = find_table(device_->metadata.tables, finding.table);
        const uint64_t no = finding.table == SUPER_TABLE ? 0 : finding.slot;
        alignas(SIZE_4K) std::array<uint8_t, SIZE_4K> slot;
        if (!device_->device.read(table.slot(no), slot.data(), SIZE_4K)) {
            return "unreadable";
        }
        return table.identifies() && table.flaws(no, slot.data()) == 0 ? "ok" : "damaged";
    }

    FindingLists &known_;
    const RowRange range_;
    SqlDevices::const_iterator device_;
    SqlDevices::const_iterator next_device_;
    SqlDevices::const_iterator end_;
    FindingList rows_; /* of the device; null: none are wanted */
    size_t row_ = 0;
    uint64_t device_no_ = 0;
};

} // namespace

std::vector<SqlColumn> finding_columns()
{
    return {{"device", "TEXT"},   {"no", "INTEGER"},    {"meta_offset", "INTEGER"},
            {"state", "TEXT"},    {"tbl_name", "TEXT"}, {"last", "INTEGER"},
            {"count", "INTEGER"}, {"unit", "TEXT"},     {"kind", "TEXT"},
            {"severity", "TEXT"}, {"text", "TEXT"},     {"command", "TEXT"}};
}

std::unique_ptr<Rows> make_finding_rows(const SqlDevices &devices, FindingLists &known,
                                        RowRange range)
{
    return std::make_unique<FindingRows>(devices, known, std::move(range));
}

} // namespace tierctl
