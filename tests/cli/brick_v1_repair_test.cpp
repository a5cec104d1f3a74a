// Repairs of the brick table of layout version 1.

#include "table_repair.h"

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(BrickV1, TableRepair, BrickV1);

} // namespace tier_test

namespace {

class BrickV1Repair : public TableRepair<BrickV1> {
protected:
    // `path` as JSON text and as the tool sees it.
    void expect_path(const std::string &json, const std::string &path)
    {
        BrickV1 brick = sample;
        brick.brickid = path;
        expect_entry(RepairFile(file).set("bi_brickid", json).text(), brick);
    }

    void expect_path_refused(const RepairFile &changed, const std::string &stored)
    {
        Log lines = key_log(sample, "bi_brickid");
        lines.push_back(debug_line(table.parser, "bi_brickid: " + stored));
        lines.push_back(error("bi_brickid(" + stored + ") is invalid, expect_len:93"));
        expect_refused(changed.text(), lines);
    }
};

TEST_F(BrickV1Repair, UuidTexts)
{
    expect_uuid_rules("bi_uuid");
}

TEST_F(BrickV1Repair, PathOf93CharactersOfAnyKind)
{
    expect_path(json_string(std::string(93, ' ')), std::string(93, ' '));
    expect_path(json_string(std::string(93, '%')), std::string(93, '%'));
    expect_path(json_string(std::string(92, 'x') + "\xff"), std::string(92, 'x') + "\xff");
    expect_path(json_string(std::string(90, 'x') + R"(\"\\\/)"), std::string(90, 'x') + R"("\/)");
    expect_path(json_string(std::string(89, 'x') + R"(\u0041\u20ac)"),
                std::string(89, 'x') + "A\xe2\x82\xac");
}

TEST_F(BrickV1Repair, PathOfAnotherLengthIsRefused)
{
    for (const std::size_t length : {0U, 1U, 92U, 94U, 126U, 127U, 128U, 300U}) {
        SCOPED_TRACE(length);
        const std::string path(length, 'x');
        expect_path_refused(RepairFile(file).string("bi_brickid", path), path.substr(0, 127));
    }
}

TEST_F(BrickV1Repair, PathIsCheckedBeforeTheKeysBehindItAndTheNumber)
{
    RepairFile changed = file;
    changed.string("bi_brickid", "short").string("bi_unlink", "text");
    expect_path_refused(changed, "short");
}

TEST_F(BrickV1Repair, NumberIsCheckedAfterAllKeys)
{
    BrickV1 brick = sample;
    brick.no = 5;
    Log lines = key_log(brick, "bi_unlink");
    lines.push_back(error("parse bi_unlink failed"));
    expect_refused(RepairFile(file).number("bi_no", 5).string("bi_unlink", "text").text(), lines);
}

TEST_F(BrickV1Repair, FreeBrickGetsARandomUuid)
{
    const std::string document = R"({"bi_use":0,"bi_no":3,"bi_brickid":"short"})";
    const auto offset = static_cast<std::uint64_t>(brick_offset(super, 3));
    std::vector<Uuid> seen;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(repair(document, {"-y"}).status, 0);
        const Uuid uuid = get_uuid(device.block(offset), 16);
        EXPECT_EQ(uuid[6] >> 4, 4) << uuid_text(uuid); // made of random numbers
        EXPECT_EQ(uuid[8] >> 6, 2) << uuid_text(uuid);
        EXPECT_EQ(std::ranges::count(seen, uuid), 0) << uuid_text(uuid);
        seen.push_back(uuid);
    }
}

TEST_F(BrickV1Repair, DumpedBrickIsARepairFile)
{
    const BrickV1 dumped = brick_used(3); // its reserved field is not taken over
    expect_entry(json(dumped, 0), table.repairable(3, 0));
}

} // namespace
