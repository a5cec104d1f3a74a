// Every kind of damage to entries of every table, and to the super block, under every command.

#include "damage_device.h"
#include "damage_kinds.h"
#include "damage_layout.h"
#include "dump_text.h"
#include "expect.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

// The tables in whose blocks damage can be detected.
bool is_checked(const DamagedTable &table) { return table.dump != "dump_hot"; }

class DamagedEntries : public testing::TestWithParam<const DamagedLayout *> {
protected:
    const DamagedLayout &layout = *GetParam();
    SweptDevice device{layout.device(), damage_runs};
    const Block super = device.block(4096);

    void TearDown() override { damage_runs.record_test(); }

    std::uint64_t blocks(const DamagedTable &table) const { return table.count(super); }

    std::string record(const DamagedTable &table, int error, std::uint64_t no) const
    {
        return error_record(error, table.number_key.c_str(), static_cast<std::int64_t>(no),
                            static_cast<std::int64_t>(table.place(super, no)));
    }

    // The texts of all entries, as single dumps show them.
    std::vector<std::string> items(const DamagedTable &table)
    {
        std::vector<std::string> all;
        for (std::uint64_t no = 0; no < blocks(table); ++no) {
            const RunResult run = device.run(table.dump, {"-n", std::to_string(no)});
            EXPECT_EQ(run.status, 0) << run;
            all.push_back(run.out);
        }
        return all;
    }

    std::string walk_of(const DamagedTable &table, const std::vector<std::string> &shown) const
    {
        return table.before_walk + joined(shown) + table.after_walk;
    }

    void expect_walk(const DamagedTable &table, const std::vector<std::string> &args,
                     const std::vector<std::string> &shown, const RunOptions &options)
    {
        const RunResult run = device.run(table.dump, args, {}, options);
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out, walk_of(table, shown));
    }

    // All dumps of the table when one entry is bad.
    void expect_bad(const DamagedTable &table, const std::vector<std::string> &sound,
                    std::uint64_t no, int error, const RunOptions &options = {})
    {
        const std::string bad = record(table, error, no);
        std::vector<std::string> shown = sound;
        shown[no] = bad;
        expect_walk(table, {}, shown, options);
        expect_walk(table, {"-g", "error=1"}, {bad}, options);
        shown.erase(shown.begin() + static_cast<std::ptrdiff_t>(no));
        expect_walk(table, {"-g", "error=0"}, shown, options);
        for (std::uint64_t other = 0; other < sound.size(); ++other) {
            const RunResult run =
                device.run(table.dump, {"-n", std::to_string(other)}, {}, options);
            EXPECT_EQ(run.status, other == no ? error : 0) << run;
            EXPECT_EQ(run.out, other == no ? "" : sound[other]);
        }
    }

    // The other tables are as they were, and every repair makes its block, whatever is damaged.
    void expect_the_rest(const DamagedTable &damaged,
                         const std::map<std::string, std::string> &usual,
                         const RunOptions &options = {})
    {
        for (const DamagedTable &table : layout.tables) {
            if (&table != &damaged) {
                EXPECT_EQ(device.run(table.dump, {}, {}, options).out, usual.at(table.dump));
            }
            const std::vector<std::string> args{"-f",
                                                device.file("conf", table.sample->document())};
            EXPECT_EQ(device.run(table.repair, args, {}, options).status, 0);
            EXPECT_EQ(device
                          .run(table.repair, {args[0], args[1], "-y"},
                               {.commit = true,
                                .place = table.place(super, table.entry),
                                .block = table.sample->block()},
                               options)
                          .status,
                      0);
        }
        EXPECT_EQ(device.run("dump_super", {}, {}, options).out, usual.at("dump_super"));
    }

    std::map<std::string, std::string> usual_dumps()
    {
        std::map<std::string, std::string> usual{{"dump_super", device.run("dump_super", {}).out}};
        for (const DamagedTable &table : layout.tables)
            usual[table.dump] = device.run(table.dump, {}).out;
        return usual;
    }
};

TEST_P(DamagedEntries, EveryKindInEveryTable)
{
    const std::map<std::string, std::string> usual = usual_dumps();
    for (const DamagedTable &table : layout.tables) {
        const std::vector<std::string> sound = items(table);
        EXPECT_EQ(usual.at(table.dump), walk_of(table, sound));
        for (const std::uint64_t no : {std::uint64_t{0}, blocks(table) - 1}) {
            for (const DamageKind &kind : damage_kinds()) {
                if (!kind.applies(table))
                    continue;
                SCOPED_TRACE(text("%s %lu: %s", table.dump.c_str(), no, kind.name.c_str()));
                const std::uint64_t place = table.place(super, no);
                const Block old = device.block(place);
                Block slot = old;
                kind.spoil(table, slot);
                device.put(place, slot);
                if (is_checked(table))
                    expect_bad(table, sound, no, 14);
                else
                    expect_walk(table, {}, sound, {});
                expect_the_rest(table, usual);
                device.put(place, old);
            }
        }
    }
}

TEST_P(DamagedEntries, WithoutALog)
{
    ASSERT_TRUE(default_log_is_missing());
    for (const DamagedTable &table : layout.tables) {
        const std::uint64_t place = table.place(super, 1);
        const Block old = device.block(place);
        device.put(place, Block{});
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{}, {"-n", "1"}, {"-g", "error=0"}}) {
            SCOPED_TRACE(table.dump);
            const RunResult run = device.run_without_log(table.dump, args);
            if (!table.without_log.empty())
                expect_abort(run, table.without_log);
            else
                EXPECT_EQ(run.status,
                          is_checked(table) && args.size() == 2 && args[0] == "-n" ? 14 : 0);
        }
        device.put(place, old);
    }
}

TEST_P(DamagedEntries, Unreadable)
{
    const std::map<std::string, std::string> usual = usual_dumps();
    for (const DamagedTable &table : layout.tables) {
        const std::vector<std::string> sound = items(table);
        for (std::uint64_t no = 0; no < sound.size(); ++no) {
            SCOPED_TRACE(text("%s %lu", table.dump.c_str(), no));
            const RunOptions faults{.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                                                    {"ZUTR_FAULTS", text("pread@%lu+4096=EIO",
                                                                         table.place(super, no))}}};
            expect_bad(table, sound, no, 5, faults);
            expect_the_rest(table, usual, faults);
        }
    }
}

// The device ends within the table, or before it.
TEST_P(DamagedEntries, BehindTheEnd)
{
    for (const DamagedTable &table : layout.tables) {
        const std::vector<std::string> sound = items(table);
        for (std::uint64_t first = 0; first < sound.size(); ++first) {
            SCOPED_TRACE(text("%s %lu", table.dump.c_str(), first));
            Device shorter = layout.device();
            shorter.truncate(table.place(super, first));
            SweptDevice cut(std::move(shorter), damage_runs);
            std::vector<std::string> shown(sound.begin(),
                                           sound.begin() + static_cast<std::ptrdiff_t>(first));
            for (std::uint64_t no = first; no < sound.size(); ++no)
                shown.push_back(record(table, 5, no));
            const RunResult run = cut.run(table.dump, {});
            EXPECT_EQ(run.status, 0) << run;
            EXPECT_EQ(run.out, walk_of(table, shown));
        }
    }
}

struct SuperKind {
    const char *name;
    void (*spoil)(const DamagedLayout &, Block &);
};

const SuperKind SUPER_KINDS[] = {
    {"checksum", [](const DamagedLayout &, Block &super) { super[0] ^= 1; }},
    {"bit", [](const DamagedLayout &, Block &super) { super[40] ^= 0x80; }},
    {"last byte",
     [](const DamagedLayout &layout, Block &super) { super[layout.length - 1] ^= 0x80; }},
    {"magic",
     [](const DamagedLayout &layout, Block &super) {
         super[5] ^= 0x20;
         seal(super, layout.length);
     }},
    {"version",
     [](const DamagedLayout &layout, Block &super) {
         super[115] = 1;
         seal(super, layout.length);
     }},
    {"zero", [](const DamagedLayout &, Block &super) { super.fill(0); }},
    {"ones", [](const DamagedLayout &, Block &super) { super.fill(0xFF); }},
    {"torn",
     [](const DamagedLayout &layout, Block &super) {
         const Block other = layout.super->block();
         std::copy_n(other.begin(), 140, super.begin());
         super[139] ^= 1;
     }},
};

// No layout knows the super block: every command does nothing.
TEST_P(DamagedEntries, SuperBlock)
{
    std::vector<std::vector<std::string>> commands{
        {"dump_super"},
        {"convert_super", "-f", device.file("super", layout.super->document())},
        {"repair_super", "-y", "-f", device.file("super", layout.super->document())}};
    for (const DamagedTable &table : layout.tables) {
        const std::string conf = device.file(table.sample->name, table.sample->document());
        commands.push_back({table.dump});
        commands.push_back({table.dump, "-n", "0"});
        commands.push_back({table.repair, "-f", conf});
        commands.push_back({table.repair, "-f", conf, "-y"});
    }
    const auto expect_all = [&](int status, const std::string &message, const RunOptions &options) {
        for (const std::vector<std::string> &command : commands) {
            SCOPED_TRACE(command[0]);
            const RunResult run =
                device.run(command[0], {command.begin() + 1, command.end()}, {}, options);
            EXPECT_EQ(run.status, status) << run;
            EXPECT_EQ(run.out, "");
            EXPECT_NE(run.err.find(message + device.path()), std::string::npos) << run;
        }
    };
    for (const SuperKind &kind : SUPER_KINDS) {
        SCOPED_TRACE(kind.name);
        Block changed = super;
        kind.spoil(layout, changed);
        device.put(4096, changed);
        expect_all(14, "super block may corrupt. path:", {});
    }
    device.put(4096, super);
    expect_all(
        5, "read super failed. path:",
        {.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB}, {"ZUTR_FAULTS", "pread@4096+4096=EIO"}}});
}

INSTANTIATE_TEST_SUITE_P(Sweep, DamagedEntries, testing::ValuesIn(layouts_to_damage()),
                         [](const auto &test) { return test.param->name; });

} // namespace
