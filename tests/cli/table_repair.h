#pragma once

// The rules that the repairs of all tables share. The test file of each kind of table instantiates
// them with its tables.

#include "repair_fixture.h"
#include "table.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace tier_test {

// A key with a JSON value of every type but its own.
inline std::vector<std::string> values_of_other_types(bool number)
{
    return {number ? "\"5\"" : "5", "null", "true", "false", "[]", "[5]", "{}", R"({"a":"5"})"};
}

template <class T>
class TableRepair : public RepairFixture {
protected:
    using Super = typename T::Super;
    using Entry = typename T::Entry;

    Super super = usual_super();
    const T &table = the_table();
    const Entry sample = table.repairable(2, 1);
    const RepairFile file = repair_file(table.keys, sample);

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

    std::uint32_t count() const { return static_cast<std::uint32_t>(super.*table.count); }
    LogLine error(const std::string &message) const { return error_line(table.parser, message); }

    const Key<Entry> &key(std::string_view name) const
    {
        return *std::ranges::find(table.keys, name, &Key<Entry>::name);
    }

    // What the log says of the keys of the entry in front of the key `end`.
    Log key_log(const Entry &entry, std::string_view end = {},
                const std::vector<std::string> &missing = {}) const
    {
        Log log;
        for (const Key<Entry> &each : table.keys) {
            if (each.name == end)
                break;
            if (!each.read_of(entry) || std::ranges::count(missing, each.name) != 0)
                continue;
            for (const std::string &line : logged(each, entry))
                log.push_back(debug_line(table.parser, line));
        }
        return log;
    }

    Repaired repaired(const Entry &entry, const std::string &out) const
    {
        const Entry whole = table.completed(entry, out);
        const std::int64_t offset = table.offset(super, whole.no);
        return {offset, table.encode(super, whole), table.json(super, whole, offset)};
    }

    void expect_entry(const std::string &document, const Entry &entry,
                      const std::vector<std::string> &missing = {})
    {
        expect_accepted(document, key_log(entry, {}, missing),
                        [&](const std::string &out) { return repaired(entry, out); });
    }

    // The keys in front of `key` are accepted, then the parse ends with this message.
    void expect_refused_at(std::string_view key, const std::string &document,
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

    void expect_number(const Key<Entry> &each, const JsonNumber &number)
    {
        SCOPED_TRACE(each.name + ": " + number.text);
        Entry entry = sample;
        store(entry, each, number.value);
        expect_entry_or_bounds_error(RepairFile(file).set(each.name, number.text).text(),
                                     entry.use != 0 ? entry : freed(entry));
    }

    // UUID texts that are accepted in either case, and those that are not.
    void expect_uuid_rules(const std::string &name)
    {
        const std::string good = uuid_text(sample.uuid);
        std::string upper = good;
        for (char &c : upper)
            c = static_cast<char>(std::toupper(c));
        ASSERT_NE(upper, good);
        expect_entry(RepairFile(file).string(name, upper).text(), sample);

        for (const std::string &bad :
             {std::string(), std::string("abc"), good.substr(1), good + "0", " " + good, good + " ",
              "{" + good + "}", "g" + good.substr(1), std::string(36, '-'), std::string(36, 'a'),
              std::string(32, 'a')}) {
            SCOPED_TRACE(bad);
            expect_refused_at(name, RepairFile(file).string(name, bad).text(),
                              "parse uuid " + bad + " failed:-1");
        }
    }
};

TYPED_TEST_SUITE_P(TableRepair);

TYPED_TEST_P(TableRepair, EntryInUseOfEverySlot)
{
    for (std::uint32_t no = 0; no < this->count(); ++no) {
        SCOPED_TRACE(no);
        const auto entry = this->table.repairable(no, 4 - no % 5);
        this->expect_entry(repair_file(this->table.keys, entry).text(), entry);
    }
}

TYPED_TEST_P(TableRepair, FreeEntryReadsOnlyUseAndNumber)
{
    for (std::uint32_t no = 0; no < this->count(); ++no) {
        SCOPED_TRACE(no);
        const auto entry = free_entry<typename TypeParam::Entry>(no);
        const RepairFile two_keys = repair_file(this->table.keys, entry);
        this->expect_entry(two_keys.text(), entry);
        for (const std::string value : {"7", "\"text\"", "null", "[{}]"}) {
            SCOPED_TRACE(value);
            RepairFile more = two_keys;
            for (const auto &key : this->table.keys)
                if (key.reading != Reading::ALWAYS)
                    more.set(key.name, value);
            this->expect_entry(more.text(), entry);
        }
    }
}

TYPED_TEST_P(TableRepair, KeysInReverseOrderAreLoggedInReadingOrder)
{
    RepairFile reversed;
    std::for_each(this->table.keys.rbegin(), this->table.keys.rend(),
                  [&](const auto &key) { reversed.set(key.name, json_value(key, this->sample)); });
    this->expect_entry(reversed.text(), this->sample);
}

TYPED_TEST_P(TableRepair, RequiredKeyMissing)
{
    for (const auto &key : this->table.keys) {
        if (!key.required() || key.is_array())
            continue;
        SCOPED_TRACE(key.name);
        this->expect_refused_at(key.name, RepairFile(this->file).erase(key.name).text(),
                                "parse " + key.name + " failed");
    }
    this->expect_refused("{}", {this->error("parse " + this->table.keys[0].name + " failed")});
}

TYPED_TEST_P(TableRepair, OptionalKeysMissing)
{
    auto bare = this->sample;
    RepairFile bare_file = this->file;
    std::vector<std::string> missing;
    for (const auto &key : this->table.keys) {
        if (key.required())
            continue;
        SCOPED_TRACE(key.name);
        auto entry = this->sample;
        clear(entry, key);
        this->expect_entry(RepairFile(this->file).erase(key.name).text(), entry, {key.name});
        clear(bare, key);
        bare_file.erase(key.name);
        missing.push_back(key.name);
    }
    this->expect_entry(bare_file.text(), bare, missing);
}

TYPED_TEST_P(TableRepair, KeyOfAnotherType)
{
    for (const auto &key : this->table.keys) {
        if (key.is_array())
            continue;
        for (const std::string &value : values_of_other_types(key.is_number())) {
            SCOPED_TRACE(key.name + ": " + value);
            this->expect_refused_at(key.name, RepairFile(this->file).set(key.name, value).text(),
                                    "parse " + key.name + " failed");
        }
    }
}

TYPED_TEST_P(TableRepair, NumbersAreNarrowedToTheirFields)
{
    for (const JsonNumber &number : boundary_numbers()) {
        SCOPED_TRACE(number.text);
        auto entry = this->sample;
        RepairFile numbers = this->file;
        for (const auto &key : this->table.keys) {
            auto owned_elsewhere = this->sample;
            store(owned_elsewhere, key, 1e6L);
            const bool bounded = !this->table.bounds_errors(this->super, owned_elsewhere).empty();
            if (!key.is_number() || key.reading == Reading::ALWAYS || bounded)
                continue;
            store(entry, key, number.value);
            numbers.set(key.name, number.text);
        }
        this->expect_entry(numbers.text(), entry);
    }
}

TYPED_TEST_P(TableRepair, UseAndNumberAreNarrowedBeforeTheyDecide)
{
    for (const auto &key : this->table.keys)
        if (key.reading == Reading::ALWAYS)
            for (const JsonNumber &number : boundary_numbers())
                this->expect_number(key, number);
}

TYPED_TEST_P(TableRepair, EntryNumberMustBeBelowTheCount)
{
    for (const auto &entry : {this->sample, this->freed(this->sample)}) {
        for (const std::uint32_t no : {this->count() - 1, this->count(), this->count() + 1}) {
            SCOPED_TRACE(no);
            auto numbered = entry;
            numbered.no = no;
            this->expect_entry_or_bounds_error(repair_file(this->table.keys, numbered).text(),
                                               numbered);
        }
    }
}

TYPED_TEST_P(TableRepair, EmptyTableTakesNoEntry)
{
    auto changed = this->super;
    changed.*this->table.count = 0;
    this->set_super(changed);
    const typename TypeParam::Entry entry;
    this->expect_entry_or_bounds_error(repair_file(this->table.keys, entry).text(), entry);
}

TYPED_TEST_P(TableRepair, OffsetBehind4GiB)
{
    auto changed = this->super;
    changed.*this->table.count = this->table.largest_no + 1;
    changed.brick_table_size = 0x1'0000'0000;
    this->set_super(changed);
    auto entry = this->sample;
    entry.no = this->table.largest_no;
    const LoggedRun run = this->repair(repair_file(this->table.keys, entry).text());
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, this->repaired(entry, run.out).json);
}

TYPED_TEST_P(TableRepair, OtherKeysAreIgnored)
{
    RepairFile more;
    for (const std::string &name : this->table.unread_keys)
        more.number(name, 3);
    for (const auto &key : this->table.keys)
        more.set(key.name, json_value(key, this->sample));
    this->expect_entry(more.text(), this->sample);
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
        this->table.assertion_without_super);
    EXPECT_EQ(this->device.bytes(), before);
}

REGISTER_TYPED_TEST_SUITE_P(TableRepair, EntryInUseOfEverySlot, FreeEntryReadsOnlyUseAndNumber,
                            KeysInReverseOrderAreLoggedInReadingOrder, RequiredKeyMissing,
                            OptionalKeysMissing, KeyOfAnotherType, NumbersAreNarrowedToTheirFields,
                            UseAndNumberAreNarrowedBeforeTheyDecide, EntryNumberMustBeBelowTheCount,
                            EmptyTableTakesNoEntry, OffsetBehind4GiB, OtherKeysAreIgnored,
                            EntryGoesToStandardOutputAndNotToTheOutputFile,
                            OffsetFollowsTheSuperBlock, ForcedVersionAborts);

} // namespace tier_test
