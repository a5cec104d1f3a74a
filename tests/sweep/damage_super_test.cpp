// Every field of a sealed super block with every value that is of interest, under every command.
// All runs keep to the contract. Beyond that, a command whose fields have not changed does what it
// did before, a dumped super block shows the change, and a repair goes where the fields say.

#include "damage_device.h"
#include "damage_layout.h"
#include "damage_values.h"
#include "expect.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// A walk goes over as many slots as the super block counts, far past the end of the device, and
// reports that it cannot read them. That is right, but slow: so many slots are walked here, of
// longer tables only single entries are dumped.
constexpr std::int32_t LONGEST_SUPER_WALK = 4096;

struct Command {
    std::string name;
    std::vector<std::string> args{};
    Terms terms{};
    const FieldNames *uses = nullptr; // null: only that the super block is sound
    const DamagedTable *table = nullptr;
    bool is_walk = false;
    std::uint32_t entry = 0; // of a dump that is no walk
};

class DamagedSuper : public testing::TestWithParam<const DamagedLayout *> {
protected:
    const DamagedLayout &layout = *GetParam();
    SweptDevice device{layout.device(), damage_runs};
    const Block sound = device.block(4096);

    void TearDown() override { damage_runs.record_test(); }

    std::vector<Command> commands_of(const DamagedTable &table) const
    {
        std::vector<Command> commands;
        const Command walk{.name = table.dump,
                           .terms = {.situations = ABSURD_SUPER},
                           .uses = &table.dump_uses,
                           .table = &table,
                           .is_walk = true};
        commands.push_back(walk);
        for (const std::uint32_t entry : {0U, 0x7FFF'FFFEU, 0x7FFF'FFFFU}) {
            commands.push_back(walk);
            commands.back().is_walk = false;
            commands.back().entry = entry;
            commands.back().args = {"-n", std::to_string(entry)};
        }
        const auto repair = [&](bool commit) {
            Command command{.name = table.repair,
                            .args = {"-f", file(*table.sample)},
                            .terms = {.commit = commit, .situations = ABSURD_SUPER},
                            .uses = &table.repair_uses,
                            .table = &table};
            if (table.takes_place)
                command.terms.place = static_cast<std::uint64_t>(table.sample->parsed().place);
            if (commit)
                command.args.emplace_back("-y");
            commands.push_back(command);
        };
        repair(false);
        repair(true);
        return commands;
    }

    // Those that look at no field of the super block.
    std::vector<Command> other_commands() const
    {
        const std::string super_file = file(*layout.super);
        std::vector<Command> commands{
            {.name = "repair_super", .args = {"-f", super_file}},
            {.name = "repair_super", .args = {"-f", super_file, "-y"}, .terms = {.commit = true}}};
        for (const std::string &name : layout.others)
            commands.push_back({.name = name, .args = {"-f", super_file, "-y"}});
        return commands;
    }

    std::vector<Command> commands() const
    {
        std::vector<Command> all = other_commands();
        for (const DamagedTable &table : layout.tables)
            for (const Command &command : commands_of(table))
                all.push_back(command);
        return all;
    }

    RunResult run(const Command &command)
    {
        return device.run(command.name, command.args, command.terms);
    }

    // Puts the super block there with a right checksum.
    void put_sealed(Block super)
    {
        seal(super, layout.length);
        device.put(4096, super);
    }

    static std::int32_t walked(const Command &command, const Block &super)
    {
        return static_cast<std::int32_t>(command.table->count(super));
    }

private:
    std::string file(const RepairSample &sample) const
    {
        return device.file(sample.name + ".json", sample.document());
    }
};

std::size_t occurrences(const std::string &text, const std::string &part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

void expect_same(const RunResult &run, const RunResult &usual)
{
    EXPECT_EQ(run.status, usual.status) << run;
    EXPECT_EQ(run.signal, usual.signal) << run;
    EXPECT_EQ(run.out, usual.out) << run;
    EXPECT_EQ(run.err, usual.err) << run;
}

// A repair that succeeds goes to the slot of its entry.
void expect_place(const RunResult &run, const DamagedTable &table, const Block &super)
{
    const std::string key = "\"meta_offset\":";
    const std::size_t at = run.out.find(key);
    if (run.status != 0 || at == std::string::npos)
        return;
    EXPECT_EQ(std::stoull(run.out.substr(at + key.size())), table.place(super, table.entry)) << run;
    EXPECT_LT(table.entry, table.count(super)) << run;
}

// A dump reads the slots that the super block counts, and fails where the device has none.
void expect_slots(const RunResult &run, const Command &command, const Block &super,
                  std::uint64_t device_size)
{
    const DamagedTable &table = *command.table;
    const auto count = static_cast<std::int32_t>(table.count(super));
    const auto missing = [&](std::uint64_t no) {
        return table.place(super, no) > device_size - BLOCK_SIZE;
    };
    const bool behind_end =
        !command.is_walk && command.entry >= static_cast<std::uint32_t>(table.count(super));
    if (table.refuses(super)) {
        EXPECT_EQ(run.status, 14) << run;
    } else if (table.aborts(super)) {
        EXPECT_EQ(run.signal, SIGABRT) << run;
    } else if (table.bounds_first && behind_end) {
        EXPECT_EQ(run.status, 22) << run;
    } else if (count <= 0 || table.place(super, 0) % BLOCK_SIZE != 0) {
        EXPECT_EQ(run.signal, SIGABRT) << run;
    } else if (table.has_no_size(super) && !behind_end) {
        expect_abort(run, "ex && ex_size");
    } else if (!command.is_walk) {
        const int whole = run.status == 14 ? 14 : 0; // some slots hold no entry of this table
        EXPECT_EQ(run.status, behind_end ? 22 : missing(command.entry) ? 5 : whole) << run;
    } else {
        EXPECT_EQ(run.status, 0) << run;
        const auto blocks = static_cast<std::uint64_t>(count);
        const bool wraps = static_cast<std::int64_t>(table.place(super, blocks)) <
                           static_cast<std::int64_t>(table.place(super, 0)); // has no end
        std::size_t expected = 0;
        for (std::uint64_t no = 0; no < blocks && !wraps; ++no)
            expected += missing(no) ? 1 : 0;
        EXPECT_EQ(occurrences(run.out, "{\"error\":5, "), expected) << run;
    }
}

TEST_P(DamagedSuper, EveryFieldUnderEveryCommand)
{
    const std::vector<Command> all = commands();
    std::vector<RunResult> usual;
    for (const Command &command : all)
        usual.push_back(run(command));
    for (const SuperField &field : layout.fields) {
        if (field.name == "magic" || field.name == "version")
            continue; // of another layout, or of none
        for (const std::uint64_t value : damage_values(field, get_field(sound, field))) {
            SCOPED_TRACE(text("%s = %lu", field.name.c_str(), value));
            Block super = sound;
            put_field(super, field, value);
            put_sealed(super);
            for (std::size_t i = 0; i < all.size(); ++i) {
                SCOPED_TRACE(all[i].name);
                const bool used =
                    all[i].uses != nullptr && std::ranges::count(*all[i].uses, field.name) != 0;
                if (used ? all[i].is_walk && walked(all[i], super) > LONGEST_SUPER_WALK
                         : all[i].entry != 0) // after its table as it was
                    continue;
                const RunResult result = run(all[i]);
                if (!used)
                    expect_same(result, usual[i]);
                else if (all[i].uses == &all[i].table->dump_uses)
                    expect_slots(result, all[i], super, device.size());
                else
                    expect_place(result, *all[i].table, super);
            }
        }
    }
}

// Each number stands in the line of the super block in its record's order.
TEST_P(DamagedSuper, DumpShowsWhatIsThere)
{
    const RunResult usual = device.run("dump_super", {});
    ASSERT_EQ(usual.status, 0) << usual;
    for (const SuperField &field : layout.fields) {
        if (field.name == "magic" || field.name == "version")
            continue;
        for (const std::uint64_t value : damage_values(field, get_field(sound, field))) {
            SCOPED_TRACE(text("%s = %lu", field.name.c_str(), value));
            Block super = sound;
            put_field(super, field, value);
            put_sealed(super);
            const RunResult run = device.run("dump_super", {});
            EXPECT_EQ(run.status, 0) << run;
            EXPECT_NE(run.out, usual.out);
            const std::string shown = text("\"%s\":%lu,", field.name.c_str(), value);
            const std::string last = text("\"%s\":%lu}", field.name.c_str(), value);
            if (usual.out.find("\"" + field.name + "\":") != std::string::npos &&
                field.name != "ctime") {
                EXPECT_TRUE(run.out.find(shown) != std::string::npos || run.out.ends_with(last))
                    << run;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sweep, DamagedSuper, testing::ValuesIn(layouts_to_damage()),
                         [](const auto &test) { return test.param->name; });

} // namespace
