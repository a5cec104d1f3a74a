#include "zu_tierctl/rescue/rescue.h"

#include "zu_tierctl/check/check.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/rebuild.h"
#include "zu_tierctl/rescue/identity.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

namespace {

std::string number_line(const NumberReading &number)
{
    std::string line =
        fmt::format("{} {}, {}: {}", number.key, number.value(), certainty_text(number.certainty),
                    number.candidates.front().reason);
    if (number.candidates.size() > 1) {
        const Candidate &next = number.candidates[1];
        line += fmt::format("; runner-up {}: {}", next.value, next.reason);
    }
    if (number.range && number.range->last < ANY_NUMBER.last) {
        line += fmt::format("; else {}: {}", range_text(number.range->first, number.range->last),
                            number.range->reason);
    } else if (number.candidates.size() > 1) {
        line += "; or any other";
    }
    return line;
}

void tell(const Rescued &found)
{
    for (const std::string &note : found.notes) {
        complain(one_line(note));
    }
    for (const NumberReading &number : found.reading.numbers) {
        complain(one_line(number_line(number)));
    }
    for (const IdentityValue &value : found.identity) {
        complain(one_line(identity_line(value)));
    }
}

/* Counts what a check finds, and tells them on standard error. */
class CountReport : public Report {
public:
    explicit CountReport(const std::string &device) : Report(device, Detail::summary) {}

private:
    void write(const Finding & /*finding*/) override {}

    void write_end() override
    {
        for (const auto &[table, count] : counts()) {
            complain(fmt::format("check under it: {}: {} entries, {} in use, {} free, {} damaged, "
                                 "{} unreadable",
                                 table, count.entries, count.in_use, count.free, count.damaged,
                                 count.unreadable));
        }
        for (const auto &[kind, count] : kinds()) {
            complain(fmt::format("check under it: {} {}", count, kind));
        }
        complain(fmt::format("check under it: {} findings", findings()));
    }
};

/* The super block for a check of the tables: an unknown identity of the SSD is no finding. */
Block checked_block(const Rescued &found)
{
    const tier_layout &layout = *found.reading.layout;
    Block block = found.reading.block;
    for (const tier_column &column : layout.tables.front()->keys()) {
        if (column.type == tier_column_type::text) {
            memcpy(block.data() + column.at, TIER_SSD_UUID_SAMPLE,
                   std::min<size_t>(column.size, sizeof(TIER_SSD_UUID_SAMPLE)));
        }
    }
    return sealed(layout, block);
}

/* Among more entries the search for duplicates reads a table again and again, and takes longer than
 * everything else. */
constexpr uint64_t SEARCHED_MAX = uint64_t{1} << 25;

bool has_a_large_table(const Metadata &metadata)
{
    return std::ranges::any_of(metadata.tables, [](const Table &table) {
        return table.count() > SEARCHED_MAX / table.end_word;
    });
}

void verify(const RescueOptions &options, const Device &device, const Rescued &found)
{
    const Metadata metadata = make_metadata(*found.reading.layout, checked_block(found), device);
    CountReport report(options.device);
    CheckOptions check{.device = options.device};
    if (has_a_large_table(metadata)) {
        check.claims_memory = 0;
        complain("check under it: duplicates were not searched for among so many entries");
    }
    check_metadata(check, device, metadata, report, nullptr);
    report.finish();
}

/* What zu_tier would say of the file, and the command that takes it. */
void tell_repair(const RescueOptions &options, const Device &device, const Rescued &found)
{
    const tier_layout &layout = *found.reading.layout;
    const Block empty{};
    const Metadata metadata{&layout, empty, {Table(*layout.tables.front(), empty.data())}};
    if (found.complete) {
        const Rebuilt rebuilt =
            rebuild(device, metadata, metadata.tables.front(), found.file, false);
        for (const std::string &message : rebuilt.messages) {
            complain("zu_tier refuses this file as it stands: " + shown_text(message));
        }
    }
    complain(fmt::format("to repair it, with this file as FILE: {} -c repair_super -v {} -f FILE; "
                         "with -y it writes",
                         tool_command(options.device), layout.version));
}

} // namespace

bool rescue(const RescueOptions &options)
{
    check_given_values(options);
    const Device device(options.device, Access::read_only);
    hint_in_use(options.device);
    const Rescued found = find_super(device, options);
    print_text(found.file);
    finish_output();
    tell(found);
    if (options.verify) {
        verify(options, device, found);
    }
    tell_repair(options, device, found);
    return found.complete;
}

} // namespace tierctl
