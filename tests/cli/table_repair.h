#pragma once

// The rules that the repairs of all tables share. The test file of each kind of table instantiates
// them with its tables.

#include "repair_fixture.h"
#include "table.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

namespace tier_test {

template <class T>
class TableRepair : public RepairFixture {
protected:
    using Super = typename T::Super;
    using Entry = typename T::Entry;

    Super super = usual_super();
    const T &table = the_table();
    const Entry sample = table.repairable(2, 1);
    const RepairFile file = table.file_of(super, sample);

    TableRepair()
        : RepairFixture(the_table().repair, the_table().repair_code,
                        std::stoi(Layout<Super>::VERSION), Layout<Super>::device(usual_super()))
    {
    }

    static const T &the_table() { return tier_test::table<Super, Entry>(); }
    static Super usual_super() { return Layout<Super>::super(5, 6, 7); }

    void set_super(const Super &changed)
    {
        super = changed;
        device.write(SUPER_OFFSET, encode(changed));
    }

    static Entry freed(const Entry &entry)
    {
        Entry result;
        result.no = entry.no;
        return result;
    }

    std::uint32_t count() const { return static_cast<std::uint32_t>(super.*table.counter); }
    LogLine error(const std::string &message) const { return error_line(table.parser, message); }

    // The keys that such a file gives; `end` is the first that is left out.
    std::string file_text(const Entry &entry) const { return table.file_of(super, entry).text(); }
    Log key_log(const Entry &entry, const std::string &end = {}) const
    {
        Log log = parsed(table, encode(super), file_text(entry)).log;
        const auto is_end = [&](const LogLine &line) {
            return line.level != "DEBUG" || line.text.starts_with(end + ": ");
        };
        log.erase(std::ranges::find_if(log, is_end), log.end());
        return log;
    }

    // The tool makes up the identity of a free brick.
    Repaired repaired(Entry entry, const std::string &out) const
    {
        if constexpr (requires { entry.brickid; })
            if (entry.use == 0)
                entry.uuid = shown_uuid(out);
        const std::int64_t offset = table.offset(super, entry.no);
        return {offset, table.encoded(super, entry), table.json(super, entry, offset)};
    }

    // The file describes this entry.
    void expect_entry(const std::string &document, const Entry &entry)
    {
        expect_accepted(document, parsed(table, encode(super), document).log,
                        [&](const std::string &out) { return repaired(entry, out); });
    }

    // The same for a document in a form that the model does not read.
    void expect_spelt(const std::string &document, const Entry &entry)
    {
        expect_accepted(document, key_log(entry),
                        [&](const std::string &out) { return repaired(entry, out); });
    }

    // The keys before `key` are accepted, then the parse ends with this message.
    void expect_refused_at(const std::string &key, const std::string &document,
                           const std::string &message)
    {
        Log lines = key_log(sample, key);
        lines.push_back(error(message));
        expect_refused(document, lines);
    }

    // The file describes this entry, which is refused if its numbers lie out of bounds.
    void expect_entry_or_bounds_error(const std::string &document, const Entry &entry)
    {
        const Log errors = table.bounds_errors(super, entry);
        if (errors.empty())
            return expect_entry(document, entry);
        Log lines = key_log(entry);
        std::ranges::copy(errors, std::back_inserter(lines));
        expect_refused(document, lines);
    }
};

TYPED_TEST_SUITE_P(TableRepair);

TYPED_TEST_P(TableRepair, EntryInUseOfEverySlot)
{
    for (std::uint32_t no = 0; no < this->count(); ++no) {
        SCOPED_TRACE(no);
        const auto entry = this->table.repairable(no, 4 - no % 5);
        this->expect_entry(this->file_text(entry), entry);
    }
}

TYPED_TEST_P(TableRepair, EntryNumberMustBeBelowTheCount)
{
    for (const auto &entry : {this->sample, this->freed(this->sample)}) {
        for (const std::uint32_t no : {this->count() - 1, this->count(), this->count() + 1}) {
            SCOPED_TRACE(no);
            auto numbered = entry;
            numbered.no = no;
            this->expect_entry_or_bounds_error(this->file_text(numbered), numbered);
        }
    }
}

TYPED_TEST_P(TableRepair, EmptyTableTakesNoEntry)
{
    auto changed = this->super;
    changed.*this->table.counter = 0;
    this->set_super(changed);
    const typename TypeParam::Entry entry;
    this->expect_entry_or_bounds_error(this->file_text(entry), entry);
}

TYPED_TEST_P(TableRepair, OffsetBehind4GiB)
{
    auto changed = this->super;
    changed.*this->table.counter = this->table.largest_no + 1;
    changed.brick_table_size = 0x1'0000'0000;
    this->set_super(changed);
    auto entry = this->sample;
    entry.no = this->table.largest_no;
    const LoggedRun run = this->repair(this->file_text(entry));
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, this->repaired(entry, run.out).json);
}

TYPED_TEST_P(TableRepair, EntryGoesToStandardOutputAndNotToTheOutputFile)
{
    const std::string out = this->device.directory().path("out");
    const LoggedRun run = this->repair(this->file.text(), {"-o", out});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, this->repaired(this->sample, run.out).json);
    EXPECT_EQ(read_file(out), "");
}

TYPED_TEST_P(TableRepair, OffsetFollowsTheSuperBlock)
{
    for (const auto &moved : Layout<typename TypeParam::Super>::displaced(this->super)) {
        this->set_super(moved);
        this->expect_entry(this->file.text(), this->sample);
    }
}

TYPED_TEST_P(TableRepair, ForcedVersionAborts)
{
    const std::vector<std::uint8_t> before = this->device.bytes();
    expect_abort(
        this->repair(this->file.text(), {"-v", Layout<typename TypeParam::Super>::VERSION, "-y"}),
        this->table.without_super);
    EXPECT_EQ(this->device.bytes(), before);
}

REGISTER_TYPED_TEST_SUITE_P(TableRepair, EntryInUseOfEverySlot, EntryNumberMustBeBelowTheCount,
                            EmptyTableTakesNoEntry, OffsetBehind4GiB,
                            EntryGoesToStandardOutputAndNotToTheOutputFile,
                            OffsetFollowsTheSuperBlock, ForcedVersionAborts);

} // namespace tier_test
