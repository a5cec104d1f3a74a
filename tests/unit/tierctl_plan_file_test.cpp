// Plans as files: what is written is read again, and nothing else is taken for a plan.

#include "zu_tierctl/plan/plan_file.h"

#include "temp_dir.h"
#include "v1_device.h"
#include "zu_tierctl/device/base64.h"
#include "zu_tierctl/entry/entry.h"

#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tier_test;
using nlohmann::ordered_json;
using tierctl::Action;
using tierctl::Certainty;

namespace {

std::string base64(const std::string &bytes)
{
    return tierctl::base64_text(
        {reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size()});
}

TEST(TierctlBase64, TextsOfTheStandard)
{
    const std::pair<const char *, const char *> texts[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"},
                                                           {"\xFB\xFF", "+/8="}};
    for (const auto &[bytes, text] : texts) {
        EXPECT_EQ(base64(bytes), text);
        const auto back = tierctl::base64_bytes(text);
        ASSERT_TRUE(back) << text;
        EXPECT_EQ(std::string(back->begin(), back->end()), bytes);
    }
}

TEST(TierctlBase64, AnythingElseIsNone)
{
    for (const char *text : {"Z", "Zg", "Zg=", "Zg===", "=",
                             "Zh==", "Zm9=", "Zg==Zg==", "Z g=", "Zm9v\n", "Zm-v", "\x80m9v"})
        EXPECT_FALSE(tierctl::base64_bytes(text)) << text;
}

class PlanFile : public testing::Test {
protected:
    static constexpr std::uint64_t INODES = 5;

    SuperV1 sb = super_v1(3, INODES, 4);
    Device device = make_v1_device(sb, {brick_used(1)}, {inode_used(1, 1)}, {extent_used(1, 1)});
    TempDir dir;

    tierctl::Plan make_plan() const
    {
        tierctl::Plan plan{"v1", device.size(), {}, {}};
        const Block super_block = device.block(BLOCK_SIZE);
        std::copy(super_block.begin(), super_block.end(), plan.super_block.begin());
        return plan;
    }

    std::string header() const { return tierctl::plan_header_line(make_plan(), "1.2.3", "/dev/x"); }

    std::uint64_t inode_at(std::uint64_t no) const
    {
        return static_cast<std::uint64_t>(inode_offset(sb, no));
    }

    // A step of inode 2 as an object of the file.
    ordered_json step() const
    {
        return {{"table", "inode"},
                {"no", 2},
                {"offset", inode_at(2)},
                {"action", "copy"},
                {"class", "certain"},
                {"reason", "it was so"},
                {"lost", ""},
                {"crc", 7},
                {"block", base64(std::string(BLOCK_SIZE, 'x'))}};
    }

    ordered_json leave() const
    {
        return {{"table", "inode"},
                {"no", 2},
                {"offset", inode_at(2)},
                {"action", "leave"},
                {"reason", "nobody knows"}};
    }

    std::string refusal(const std::string &text) const
    {
        const std::string path = dir.write("plan", text);
        try {
            tierctl::read_plan(path);
        } catch (const std::runtime_error &error) {
            const std::string message = error.what();
            EXPECT_TRUE(message.starts_with(path)) << message;
            return message.substr(path.size());
        }
        return "it is a plan";
    }

    // Why a plan is refused whose second line is this one.
    std::string step_refusal(const std::string &line) const
    {
        const std::string message = refusal(header() + line + '\n');
        const std::string place = ", line 2: ";
        return message.starts_with(place) ? message.substr(place.size()) : message;
    }

    std::string changed(const std::function<void(ordered_json &)> &change) const
    {
        ordered_json object = step();
        change(object);
        return step_refusal(object.dump());
    }
};

TEST_F(PlanFile, WhatIsWrittenIsRead)
{
    tierctl::Plan plan = make_plan();
    tierctl::Block bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7);
    const tierctl::KeptBlock block(bytes.data());
    const tierctl::Metadata metadata{
        tierctl::find_layout("v1"), plan.super_block,
        tierctl::tables_of(*tierctl::find_layout("v1"), plan.super_block.data())};
    const auto at = [this](std::uint64_t no) { return static_cast<std::int64_t>(inode_at(no)); };
    plan.steps = {
        {.table = "inode",
         .no = 0,
         .offset = at(0),
         .crc = 0xFFFFFFFF,
         .action = Action::mend,
         .certainty = Certainty::certain,
         .keys = R"({"i_no":18446744073709551615,"name":"\"\u0007é","list":[1,-2]})",
         .reason = "a \"bit\"\n"},
        {.table = "inode",
         .no = 1,
         .offset = at(1),
         .unreadable = true,
         .action = Action::copy,
         .certainty = Certainty::likely,
         .block = block,
         .reason = "saved"},
        {.table = "inode", .no = 2, .offset = at(2), .action = Action::restore, .block = block},
        {.table = "inode",
         .no = 3,
         .offset = at(3),
         .crc = 1,
         .action = Action::free,
         .block = block,
         .lost = "a file"},
        {.table = "inode", .no = 4, .offset = at(4), .reason = "no way"},
        {.table = "super", .no = 0, .offset = BLOCK_SIZE, .reason = "odd"},
    };
    std::string text = header();
    for (const tierctl::Step &step : plan.steps) {
        const tierctl::Table &table = tierctl::find_table(metadata.tables, step.table);
        text += step_line(step, tierctl::entry_text({metadata, table, step.no, bytes.data()}));
    }
    const tierctl::Plan read = tierctl::read_plan(dir.write("plan", text));
    EXPECT_EQ(read.layout, plan.layout);
    EXPECT_EQ(read.size, plan.size);
    EXPECT_EQ(read.super_block, plan.super_block);
    ASSERT_EQ(read.steps.size(), plan.steps.size());
    for (std::size_t i = 0; i < plan.steps.size(); ++i) {
        const tierctl::Step &is = read.steps[i];
        const tierctl::Step &was = plan.steps[i];
        EXPECT_EQ(is.table, was.table);
        EXPECT_EQ(is.no, was.no);
        EXPECT_EQ(is.offset, was.offset);
        EXPECT_EQ(is.crc, was.crc);
        EXPECT_EQ(is.unreadable, was.unreadable);
        EXPECT_EQ(is.action, was.action);
        EXPECT_EQ(is.certainty, was.certainty);
        EXPECT_EQ(is.block, was.block);
        EXPECT_EQ(is.reason, was.reason);
        EXPECT_EQ(is.lost, was.lost);
        EXPECT_EQ(is.keys.has_value(), was.keys.has_value());
        if (is.keys) {
            EXPECT_EQ(ordered_json::parse(*is.keys), ordered_json::parse(*was.keys));
        }
    }
}

// As jq and editors leave it.
TEST_F(PlanFile, EmptyLinesAndAMissingLastLineFeedDoNotMatter)
{
    const std::string path = dir.write("plan", header() + "\n\n" + step().dump());
    EXPECT_EQ(tierctl::read_plan(path).steps.size(), 1U);
    EXPECT_EQ(tierctl::read_plan(dir.write("plan", header())).steps.size(), 0U);
}

TEST_F(PlanFile, NoFile)
{
    EXPECT_THROW(tierctl::read_plan(dir.path("none")), std::runtime_error);
    EXPECT_THROW(tierctl::read_plan("/proc/self/mem"), std::runtime_error);
    EXPECT_EQ(refusal(""), " is empty: it is no plan");
}

TEST_F(PlanFile, Headers)
{
    const auto with = [this](const char *key, const ordered_json &value) {
        ordered_json object = ordered_json::parse(header());
        object[key] = value;
        return refusal(object.dump() + '\n');
    };
    EXPECT_EQ(refusal("garbage"), ", line 1: it is no JSON object");
    EXPECT_EQ(refusal("[]"), ", line 1: it is no JSON object");
    EXPECT_EQ(refusal("{}"), ", line 1: it is no plan of format 1");
    EXPECT_EQ(with("plan", 2), ", line 1: it is no plan of format 1");
    EXPECT_EQ(with("layout", 1), ", line 1: layout is no text");
    EXPECT_EQ(with("layout", "v9"), ", line 1: layout \"v9\" is unknown");
    EXPECT_EQ(with("layout", "v2"), ", line 1: super_block is no sound super block of layout v2");
    EXPECT_EQ(with("size", -1), ", line 1: size is no whole number from 0 on");
    EXPECT_EQ(with("size", 1ULL << 63),
              ", line 1: size is 9223372036854775808, more than 9223372036854775807");
    EXPECT_EQ(with("super_block", "Zg=="), ", line 1: super_block is no base64 text of 4096 bytes");
    EXPECT_EQ(with("super_block", base64(std::string(BLOCK_SIZE, 'x'))),
              ", line 1: super_block is no sound super block of layout v1");
    EXPECT_EQ(with("more", 1), ", line 1: \"more\" is unknown");
}

TEST_F(PlanFile, Members)
{
    EXPECT_EQ(changed([](auto &) {}), "it is a plan");
    for (const char *key :
         {"table", "no", "offset", "action", "class", "reason", "lost", "crc", "block"})
        EXPECT_EQ(changed([key](auto &object) { object.erase(key); }),
                  std::string(key) + " is missing");
    for (const char *key : {"table", "action", "class", "reason", "lost", "block"})
        EXPECT_EQ(changed([key](auto &object) { object[key] = 1; }),
                  std::string(key) + " is no text");
    EXPECT_EQ(changed([](auto &object) { object["no"] = "2"; }), "no is no whole number from 0 on");
    EXPECT_EQ(changed([](auto &object) { object["no"] = 2.5; }), "no is no whole number from 0 on");
    EXPECT_EQ(changed([](auto &object) { object["crc"] = 1ULL << 32; }),
              "crc is 4294967296, more than 4294967295");
    EXPECT_EQ(changed([](auto &object) { object["offset"] = 1e30; }), "offset is no whole number");
    EXPECT_EQ(changed([](auto &object) { object["offset"] = ~0ULL; }), "offset is past any offset");
    EXPECT_EQ(changed([](auto &object) { object["action"] = "burn"; }),
              "action \"burn\" is unknown");
    EXPECT_EQ(changed([](auto &object) { object["class"] = "sure\n"; }),
              "class \"sure\\x0a\" is unknown");
    EXPECT_EQ(changed([](auto &object) { object["unreadable"] = 1; }),
              "unreadable is no true or false");
    EXPECT_EQ(changed([](auto &object) { object["unreadable"] = true; }), "\"crc\" is unknown");
    EXPECT_EQ(changed([](auto &object) { object["block"] = "x"; }),
              "block is no base64 text of 4096 bytes");
    EXPECT_EQ(changed([](auto &object) {
                  object.erase("block");
                  object["keys"] = "x";
              }),
              "keys is no object");
    EXPECT_EQ(changed([](auto &object) { object["keys"] = ordered_json::object(); }),
              "it has both keys and block: only one can be written");
    EXPECT_EQ(changed([](auto &object) { object["fields"] = 1; }), "fields is no object");
    EXPECT_EQ(changed([](auto &object) { object["note"] = 1; }), "\"note\" is unknown");
    ordered_json object = leave();
    EXPECT_EQ(step_refusal(object.dump()), "it is a plan");
    for (const char *key :
         {"class", "lost", "crc", "unreadable", "keys", "makes", "block", "fields"}) {
        object = leave();
        object[key] = 1;
        EXPECT_EQ(step_refusal(object.dump()),
                  std::string("action leave has no ") + key +
                      ": to leave an entry as it is, take out its line");
    }
    EXPECT_EQ(changed([](auto &changed_step) { changed_step["action"] = "leave"; }),
              "action leave has no class: to leave an entry as it is, take out its line");
}

TEST_F(PlanFile, Places)
{
    EXPECT_EQ(changed([](auto &object) { object["table"] = "shard"; }),
              "table \"shard\" is unknown in layout v1");
    EXPECT_EQ(changed([](auto &object) {
                  object["table"] = "super";
                  object["no"] = 0;
                  object["offset"] = BLOCK_SIZE;
              }),
              "a plan does not change the super block");
    EXPECT_EQ(changed([](auto &object) { object["no"] = INODES; }),
              "there is no inode 5: the table has 5 slots");
    EXPECT_EQ(changed([this](auto &object) { object["offset"] = inode_at(3); }),
              text("offset is %lu, but inode 2 lies at %lu", inode_at(3), inode_at(2)));
    EXPECT_EQ(refusal(header() + leave().dump() + "\n\n" + step().dump()),
              ", line 4: inode 2 has a step already");
}

TEST_F(PlanFile, BlocksLieOnTheDevice)
{
    tierctl::Plan plan = make_plan();
    plan.size = inode_at(2) + BLOCK_SIZE - 1;
    const std::string start = tierctl::plan_header_line(plan, "1", "x");
    EXPECT_EQ(refusal(start + step().dump()),
              text(", line 2: what lies at %lu is no block of a device of %lu bytes", inode_at(2),
                   plan.size));
    EXPECT_EQ(refusal(start + leave().dump()), "it is a plan");
}

// As a copy that a full disk or a lost connection has cut off. Whole lines may be missing: an
// operator takes them out.
TEST_F(PlanFile, TheLastLineCutShort)
{
    ordered_json keys = step();
    keys.erase("block");
    keys["keys"] = {{"i_no", 2}};
    const std::string whole = header() + keys.dump();
    EXPECT_EQ(refusal(whole), "it is a plan");
    for (std::size_t length = header().size() + 1; length < whole.size(); ++length)
        EXPECT_EQ(refusal(whole.substr(0, length)), ", line 2: it is no JSON object") << length;
}

// What is there to read is not what is written.
TEST_F(PlanFile, FieldsThatWereChanged)
{
    const tierctl::Plan plan = make_plan();
    const tierctl::Metadata metadata{
        tierctl::find_layout("v1"), plan.super_block,
        tierctl::tables_of(*tierctl::find_layout("v1"), plan.super_block.data())};
    const Block block = device.block(inode_at(2));
    const tierctl::Table &inodes = tierctl::find_table(metadata.tables, "inode");
    const auto shown =
        ordered_json::parse(tierctl::entry_text({metadata, inodes, 2, block.data()}));
    const auto with = [&](const ordered_json &fields) {
        return changed([&](auto &object) {
            object["block"] = base64({reinterpret_cast<const char *>(block.data()), BLOCK_SIZE});
            object["fields"] = fields;
        });
    };
    EXPECT_EQ(with(shown), "it is a plan");
    EXPECT_EQ(with(ordered_json::parse(nlohmann::json(shown).dump())), "it is a plan") << "sorted";
    const std::string complaint = "fields are not those of the block: they are there to read, and "
                                  "changing them changes nothing";
    ordered_json edited = shown;
    edited["no"] = 3;
    EXPECT_EQ(with(edited), complaint);
    EXPECT_EQ(with(ordered_json::object()), complaint);
}

// What its reader gives on is the file to the byte, and empty lines are lines.
TEST_F(PlanFile, ItsText)
{
    const std::string text = header() + std::string(200'000, '\n') + step().dump() + "\n\n";
    std::string taken;
    const tierctl::Plan plan = tierctl::read_plan(
        dir.write("plan", text), [&taken](std::string_view piece) { taken += piece; });
    EXPECT_TRUE(taken == text);
    ASSERT_EQ(plan.steps.size(), 1U);
    EXPECT_EQ(plan.steps[0].line, 200'002U);
    tierctl::TextSum sum;
    sum.add(text);
    EXPECT_EQ(plan.text, sum);
}

TEST_F(PlanFile, HostileLines)
{
    EXPECT_EQ(step_refusal("{"), "it is no JSON object");
    EXPECT_EQ(step_refusal(R"({"table":"\xff"})"), "it is no JSON object");
    EXPECT_EQ(step_refusal(std::string("{\"table\0\":1}", 12)), "it is no JSON object");
    EXPECT_EQ(step_refusal("{} {}"), "it is no JSON object");
    EXPECT_EQ(step_refusal(R"({"no":1,"no":1})"), "\"no\" comes twice");
    EXPECT_EQ(step_refusal(R"({"keys":{"a":[{"b":1,"b":1}]}})"), "\"b\" comes twice");
    EXPECT_EQ(step_refusal(R"({"a":)" + std::string(500'000, '[')), "it is nested too deeply");
    EXPECT_EQ(step_refusal(std::string((1U << 20) + 1, ' ')),
              "it is longer than any line of a plan");
}

} // namespace
