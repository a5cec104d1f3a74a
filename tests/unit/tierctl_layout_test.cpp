// A layout that joins the others needs nothing in the companion: every command works on it.

#include "fourth_layout.h"
#include "run.h"
#include "zu_tierctl/check/check.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/diff/diff.h"
#include "zu_tierctl/entry/rebuild.h"
#include "zu_tierctl/entry/table.h"
#include "zu_tierctl/map/map.h"
#include "zu_tierctl/plan/apply.h"
#include "zu_tierctl/plan/plan.h"
#include "zu_tierctl/plan/undo.h"
#include "zu_tierctl/rescue/rescue.h"
#include "zu_tierctl/revert/revert.h"
#include "zu_tierctl/save/save.h"
#include "zu_tierctl/template/template.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tier_test;
using nlohmann::ordered_json;

namespace {

using Notes = std::vector<std::string>;

class FourthLayout : public testing::Test {
protected:
    static void SetUpTestSuite() { tier_register_layout(&DEPOT_LAYOUT); }

    Device device = make_depot();

    static std::string printed(const std::function<void()> &function)
    {
        testing::internal::CaptureStdout();
        function();
        return testing::internal::GetCapturedStdout();
    }

    ordered_json check() const
    {
        return ordered_json::parse(
            printed([this] { tierctl::check({.device = device.path(), .json = true}); }));
    }

    // "bad_magic: shelf 1"
    Notes findings() const
    {
        const ordered_json report = check();
        Notes found;
        for (const auto &finding : report["findings"])
            found.push_back(text("%s: %s %lu", finding["kind"].get<std::string>().c_str(),
                                 finding["table"].get<std::string>().c_str(),
                                 finding["no"].get<std::uint64_t>()));
        return found;
    }

    tierctl::Template make_template(const std::string &table, std::uint64_t no,
                                    const std::string &layout = "") const
    {
        const tierctl::Device opened(device.path(), tierctl::Access::read_only);
        const auto metadata = tierctl::read_template_metadata(opened, table, layout);
        return tierctl::make_template(opened, metadata, tierctl::find_table(metadata.tables, table),
                                      no, "");
    }

    std::string save() const
    {
        const std::string saved = device.directory().path("saved");
        EXPECT_TRUE(tierctl::save({.device = device.path(), .file = saved}));
        return saved;
    }

    void change_shelf(std::uint64_t no, std::size_t at, std::uint64_t value)
    {
        const std::uint64_t offset = DEPOT.shelves_at + no * BLOCK_SIZE;
        Block block = device.block(offset);
        put_u64(block, at, value);
        device.write(offset, block);
    }

    // Of a map, but for its findings.
    static std::string tables_of(const tierctl::Map &map)
    {
        std::string tables;
        for (const tierctl::MapTable &table : map.tables)
            tables += text("%s: %s; ", table.name.data(),
                           tierctl::counts_text(table.counts, table.findings).c_str());
        return tables;
    }
};

// A super block is put back where it, or else the shelves, say that it is the same depot.
TEST_F(FourthLayout, RevertOfTheSuperBlock)
{
    const std::string saved = save();
    const Block then = device.block(TIER_SUPER_OFFSET);
    const tierctl::RevertOptions options = {.saved = saved,
                                            .device = device.path(),
                                            .entries = tierctl::read_operands("super", "0"),
                                            .commit = true};
    device.write(TIER_SUPER_OFFSET, Block{});
    printed([&] { tierctl::revert(options); });
    EXPECT_TRUE(device.block(TIER_SUPER_OFFSET) == then);
    Block other = then;
    other[offsetof(DepotSuper, uuid)] ^= 1;
    seal(other, sizeof(DepotSuper));
    device.write(TIER_SUPER_OFFSET, other);
    EXPECT_THROW(tierctl::revert(options), std::runtime_error);
    device.write(TIER_SUPER_OFFSET, Block{});
    Block shelf = device.block(DEPOT.shelves_at);
    shelf[offsetof(DepotShelf, uuid)] ^= 0x80;
    seal(shelf, sizeof(DepotShelf) + 8 * DEPOT_LEVELS);
    device.write(DEPOT.shelves_at, shelf);
    EXPECT_THROW(tierctl::revert(options), std::runtime_error);
    EXPECT_TRUE(device.block(TIER_SUPER_OFFSET) == Block{});
}

// How a depot's super block follows from its shelves, which always lie at the same place.
tierctl::SuperReading read_depot(const tier_layout &layout, tierctl::Remains &remains,
                                 const std::vector<tierctl::Hint> &hints)
{
    alignas(BLOCK_SIZE) tierctl::Block shelf{};
    const bool is_read =
        remains.blocks().device().read(DEPOT.shelves_at, shelf.data(), shelf.size());
    tierctl::SuperReading reading{.layout = &layout};
    if (!is_read ||
        !tierctl::is_sound(*layout.tables[1], shelf.data(), sizeof(DepotShelf) + 8 * DEPOT_LEVELS))
        return reading;
    tierctl::Readings readings(layout, hints);
    DepotSuper super = DEPOT;
    super.magic = DEPOT_MAGIC;
    super.version = DEPOT_VERSION;
    super.shelf_cnt = static_cast<std::uint32_t>(
        readings.add("shelf_cnt", tierctl::Certainty::likely, {{4, "a shelf"}}, {1, 100, "room"}));
    readings.add("boxes_at", tierctl::Certainty::likely, DEPOT.boxes_at, "after the shelves");
    memcpy(reading.block.data(), &super, sizeof(super));
    reading.explained = 1;
    reading.explained_text = "a shelf";
    reading.numbers = readings.take();
    return reading;
}

constexpr tierctl::RescueLayout RESCUE_DEPOT = {"depot", read_depot};

// A layout without a reading is told from its block; one that has registered its own from its
// tables, beside all others.
TEST_F(FourthLayout, RescueOfTheSuperBlock)
{
    const tierctl::RescueOptions options = {.device = device.path(),
                                            .uuid = "d3000000-0000-4000-8000-000000000000"};
    const auto told = [&] {
        testing::internal::CaptureStderr();
        const std::string file = printed([&] { EXPECT_FALSE(tierctl::rescue(options)); });
        return file + testing::internal::GetCapturedStderr();
    };
    const auto has = [](const std::string &text, const std::string &part) {
        EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
    };
    const Block sound = device.block(TIER_SUPER_OFFSET);
    {
        const tierctl::Device opened(device.path(), tierctl::Access::read_only);
        const tierctl::Rescued found = tierctl::find_super(opened, options);
        EXPECT_TRUE(found.complete);
        EXPECT_EQ(found.reading.layout, &DEPOT_LAYOUT);
        EXPECT_EQ(found.notes.back(),
                  "uuid: the block itself, which is sound says "
                  "\"d3000000-0000-0000-0000-000000000000\", which is not taken");
    }
    device.write(TIER_SUPER_OFFSET, Block{});
    EXPECT_THROW(tierctl::rescue(options), std::runtime_error);
    tierctl::register_rescue(&RESCUE_DEPOT);
    std::string text = told();
    has(text, "layout depot, likely: it explains a shelf; runner-up ");
    has(text, "shelf_cnt 4, likely: a shelf; else 1..100: room\n");
    has(text, R"("made": null)");
    has(text, "made is in no table: the file has null, which zu_tier refuses; give a saved file of "
              "this cache with --like\n");
    Block damaged = sound;
    damaged[4] ^= 0xFF;
    damaged[9] ^= 0xFF;
    device.write(TIER_SUPER_OFFSET, damaged);
    text = told();
    has(text, "shelf_cnt 4, likely: a shelf; else 1..100: room\n"); // two numbers are too few
}

TEST_F(FourthLayout, CheckOfASoundDevice)
{
    const ordered_json report = check();
    EXPECT_EQ(report["layout"], "depot");
    EXPECT_EQ(report["findings"], ordered_json::array());
    EXPECT_EQ(report["tables"]["shelf"]["in_use"], 2);
    EXPECT_EQ(report["tables"]["shelf"]["free"], 2);
    EXPECT_EQ(report["tables"]["box"]["entries"], 2 * 511);
    EXPECT_EQ(report["tables"]["box"]["in_use"], 3);
}

// Only the super block is a table of all four.
TEST_F(FourthLayout, NamesOfAllTables)
{
    EXPECT_EQ(tierctl::tables_text(),
              "super; in v1 also brick, inode and extent; in v2 also brick, inode and extent; "
              "in v3 also brick, inode, shard, hot and extent; in depot also shelf and box");
}

TEST_F(FourthLayout, CheckOfOwnersAndClaims)
{
    put_box(device, 0, 2, box_word(1, 1, 0));   // a free shelf
    put_box(device, 0, 3, box_word(900, 1, 0)); // none
    put_box(device, 1, 6, box_word(0, 8, 0));   // where box 511 stands
    EXPECT_EQ(findings(), (Notes{"box_of_free_shelf: box 2", "box_of_missing_shelf: box 3",
                                 "duplicate_box: box 518"}));
    change_shelf(2, 60, 0xFF); // one of its levels
    EXPECT_EQ(findings(), (Notes{"bad_checksum: shelf 2", "box_of_free_shelf: box 2",
                                 "box_of_missing_shelf: box 3", "duplicate_box: box 518",
                                 "box_of_unknown_shelf: box 517"}));
}

TEST_F(FourthLayout, CheckOfRecords)
{
    change_shelf(1, 4, 0x100000001); // magic and number 1
    Block shelf = device.block(DEPOT.shelves_at);
    put_u8(shelf, offsetof(DepotShelf, label), 0);
    seal(shelf, sizeof(DepotShelf) + 8 * DEPOT_LEVELS);
    device.write(DEPOT.shelves_at + 2 * BLOCK_SIZE, shelf); // the identity and the number of 0
    device.write(DEPOT.boxes_at, Block{});
    Block super = device.block(TIER_SUPER_OFFSET);
    put_u32(super, offsetof(DepotSuper, spare), 5);
    seal(super, sizeof(DepotSuper));
    device.write(TIER_SUPER_OFFSET, super);
    EXPECT_EQ(findings(), (Notes{"odd_spare: super 0", "bad_magic: shelf 1",
                                 "bad_checksum: shelf 1", "bad_number: shelf 2", "bad_magic: box 0",
                                 "bad_checksum: box 0", "box_of_unknown_shelf: box 517"}));
    put_u32(super, offsetof(DepotSuper, shelf_cnt), 101);
    seal(super, sizeof(DepotSuper));
    device.write(TIER_SUPER_OFFSET, super);
    const Notes found = findings();
    EXPECT_NE(std::ranges::find(found, "bad_shelf_table: super 0"), found.end());
    EXPECT_NE(std::ranges::find(found, "area_past_end: super 0"), found.end());
    EXPECT_NE(std::ranges::find(found, "areas_overlap: super 0"), found.end());
}

TEST_F(FourthLayout, CheckOfIdentitiesAndLabels)
{
    Block shelf = device.block(DEPOT.shelves_at);
    put_u32(shelf, offsetof(DepotShelf, no), 2);
    put_u8(shelf, offsetof(DepotShelf, label), 0);
    seal(shelf, sizeof(DepotShelf) + 8 * DEPOT_LEVELS);
    device.write(DEPOT.shelves_at + 2 * BLOCK_SIZE, shelf);
    EXPECT_EQ(findings(), (Notes{"no_label: shelf 2", "duplicate_shelf: shelf 2"}));
}

TEST_F(FourthLayout, SaveDiffAndRevert)
{
    const std::string saved = save();
    const auto differences = [&] {
        return printed([&] {
            const auto report = tierctl::make_text_report();
            tierctl::diff(saved, device.path(), *report);
        });
    };
    EXPECT_EQ(differences(), "");
    const Block good = device.block(DEPOT.shelves_at + BLOCK_SIZE);
    change_shelf(1, sizeof(DepotShelf), 0x12);
    change_shelf(1, sizeof(DepotShelf) + 8 * DEPOT_LEVELS, 1);
    put_box(device, 1, 5, box_word(2, 9, 102));
    const std::string shelf = "  level[0]: \"0x0000000000000011\" -> \"0x0000000000000012\"\n"
                              "  bytes 72..72: \"00\" -> \"01\"\n";
    const std::string out = differences();
    EXPECT_TRUE(out.starts_with("shelf 1\n" + shelf + "box 1\n  checksum: ")) << out;
    EXPECT_TRUE(out.ends_with("  box[517].place: 7 -> 9\n")) << out;

    const std::string told = printed([&] {
        tierctl::revert({saved, device.path(), tierctl::read_operands("shelf", "1"), true});
    });
    const std::string then =
        "then: {\"checksum\":\"" + text("0x%x", get_u32(good, 0)) +
        R"(","magic":"0xd3907002","no":1,"use":0,"uuid":"02000000-0000-0000-0000-000000000000",)"
        R"("label":"by the door","meta_offset":20480,"levels":"0x0000000000000011 )"
        R"(0x0000000000000000 "})";
    EXPECT_NE(told.find(then), std::string::npos) << told;
    EXPECT_TRUE(told.ends_with("written\n")) << told;
    EXPECT_EQ(device.block(DEPOT.shelves_at + BLOCK_SIZE), good);
    printed([&] {
        tierctl::revert({saved, device.path(), tierctl::read_operands("box:1000", ""), true});
    });
    EXPECT_EQ(differences(), "");
}

TEST_F(FourthLayout, Map)
{
    change_shelf(1, 4, 0);
    const tierctl::Map map = tierctl::read_map(device.path(), [](std::uint64_t) { return 20U; });
    EXPECT_EQ(map.layout, "depot");
    EXPECT_EQ(map.identity, "d3000000-0000-0000-0000-000000000000");
    EXPECT_EQ(map.created, time_text(DEPOT.made));
    EXPECT_EQ(tables_of(map), "super: 1 in use; shelf: 2 in use, 1 free, 1 damaged, 3 findings; "
                              "box: 3 in use, 1019 free; ");
    ASSERT_EQ(map.use.owners.size(), 2U); // those that boxes stand on, by their labels
    EXPECT_EQ(map.use.owners[0].path, "by the door");
    EXPECT_EQ(map.use.owners[0].entries, std::vector<std::uint64_t>{2});

    const std::string drawn = tierctl::draw_terminal(map, 80, false);
    const std::string page = tierctl::draw_page(map);
    for (const std::string word : {"depot", "shelf", "box", "by the door"}) {
        EXPECT_NE(drawn.find(word), std::string::npos) << word;
        EXPECT_NE(page.find(word), std::string::npos) << word;
    }
    // It has neither bricks, inodes, extents nor files, nor times of access.
    for (const std::string word : {"brick", "inode", "extent", "bytes", "access"}) {
        EXPECT_EQ(drawn.find(word), std::string::npos) << drawn;
        EXPECT_EQ(page.substr(page.find("<body>")).find(word), std::string::npos) << page;
    }
    EXPECT_NE(drawn.find("\n  shelf      box\n      0        2 █"), std::string::npos) << drawn;
}

TEST_F(FourthLayout, Templates)
{
    const tierctl::Template shelf = make_template("shelf", 1);
    EXPECT_EQ(shelf.file, "{\n  \"no\": 1,\n  \"use\": 0,\n"
                          "  \"uuid\": \"02000000-0000-0000-0000-000000000000\",\n"
                          "  \"label\": \"by the door\",\n  \"levels\": [17, 0]\n}\n");
    const auto command = [this](const std::string &table, const std::string &option) {
        return "to repair it, with this file as FILE: zu_tier -l tier.log -p " + device.path() +
               " -c repair_" + table + option + " -f FILE; with -y it writes";
    };
    EXPECT_EQ(shelf.notes, Notes{command("shelf", "")});
    EXPECT_EQ(make_template("box", 1).file,
              "{\n  \"meta_offset\": 36864,\n  \"boxes\": [\n    {\n      \"no\": 517,\n"
              "      \"shelf\": 2,\n      \"place\": 7,\n      \"weight\": 102\n    }\n  ]\n}\n");
    EXPECT_EQ(make_template("box", 1).notes, Notes{command("box", "")});
    EXPECT_EQ(make_template("super", 0).notes, Notes{command("super", "")});

    change_shelf(0, offsetof(DepotShelf, label), 0);
    EXPECT_EQ(make_template("shelf", 0).notes,
              (Notes{"damaged: checksum",
                     "its checksum does not match its content; the file has what is there",
                     "zu_tier refuses this file as it stands: shelf 0 has no label",
                     command("shelf", "")}));
}

// A bit of a shelf is turned back, and what stands on a shelf that is not in use is freed.
TEST_F(FourthLayout, Plan)
{
    const Block shelf = device.block(DEPOT.shelves_at);
    Block damaged = shelf;
    damaged[offsetof(DepotShelf, label)] ^= 0x20;
    device.write(DEPOT.shelves_at, damaged);
    const Block boxes = device.block(DEPOT.boxes_at);
    put_box(device, 0, 5, box_word(1, 3, 9));
    tierctl::Device opened(device.path(), tierctl::Access::read_only);
    const tierctl::Metadata metadata = tierctl::read_metadata(opened);
    const auto block_of = [](const tierctl::Step &step) {
        Block made;
        step.block->get(made.data());
        return made;
    };
    const auto left = tierctl::make_plan(opened, metadata, nullptr, false).steps;
    ASSERT_EQ(left.size(), 2U);
    EXPECT_EQ(left[0].action, tierctl::Action::mend);
    EXPECT_EQ(left[0].certainty, tierctl::Certainty::certain);
    EXPECT_EQ(block_of(left[0]), shelf);
    EXPECT_EQ(left[1].action, tierctl::Action::leave);
    EXPECT_EQ(left[1].reason,
              "box 5: it refers to shelf 1, which is free; --free-lost makes it free");
    const auto freed = tierctl::make_plan(opened, metadata, nullptr, true).steps;
    ASSERT_EQ(freed.size(), 2U);
    EXPECT_EQ(freed[1].action, tierctl::Action::free);
    EXPECT_EQ(freed[1].lost, "what is cached in box 5, written back or not");
    EXPECT_EQ(block_of(freed[1]), boxes);
}

// The same, carried out and taken back.
TEST_F(FourthLayout, ApplyAndUndo)
{
    const auto sound = device.bytes();
    Block shelf = device.block(DEPOT.shelves_at);
    shelf[offsetof(DepotShelf, label)] ^= 0x20;
    device.write(DEPOT.shelves_at, shelf);
    put_box(device, 0, 5, box_word(1, 3, 9));
    const auto damaged = device.bytes();
    const std::string plan = device.directory().write(
        "plan", printed([this] {
            tierctl::plan({.device = device.path(), .free_lost = true, .release = "1"});
        }));
    const std::string undo = device.directory().path("undo");
    const tierctl::ApplyOptions dry{.plan = plan, .device = device.path(), .undo = undo};
    const std::string shown = printed([&dry] { tierctl::apply(dry); });
    EXPECT_NE(shown.find("box[5].weight: 9 -> 0\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("\nfindings                                    0\n"), std::string::npos)
        << shown;
    EXPECT_TRUE(device.bytes() == damaged);
    tierctl::ApplyOptions committed = dry;
    committed.commit = true;
    printed([&committed] { tierctl::apply(committed); });
    EXPECT_TRUE(device.bytes() == sound);
    printed([&] { tierctl::undo({.file = undo, .device = device.path(), .commit = true}); });
    EXPECT_TRUE(device.bytes() == damaged);
}

TEST_F(FourthLayout, TemplateOfADamagedSuperBlock)
{
    Block super = device.block(TIER_SUPER_OFFSET);
    put_u32(super, offsetof(DepotSuper, magic), 0);
    put_u32(super, offsetof(DepotSuper, shelf_cnt), 0);
    device.write(TIER_SUPER_OFFSET, super);
    EXPECT_THROW(make_template("super", 0), tierctl::UsageError);
    const Notes notes = make_template("super", 0, "depot").notes;
    ASSERT_EQ(notes.size(), 5U);
    EXPECT_EQ(notes[0], "damaged: magic, checksum");
    EXPECT_TRUE(notes[1].starts_with("a repair changes checksum: ")) << notes[1];
    EXPECT_EQ(notes[2], "a repair changes magic: \"0x0\" -> \"0xd3907001\"");
    EXPECT_EQ(notes[3], "zu_tier refuses this file as it stands: a depot of 0 shelves");
    EXPECT_NE(notes[4].find("-c repair_super -v 9 -f FILE"), std::string::npos);
}

} // namespace
