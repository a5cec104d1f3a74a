// Repairs of the brick tables of all layouts.

#include "table.h"
#include "table_repair.h"

using namespace tier_test;

namespace tier_test {

INSTANTIATE_TYPED_TEST_SUITE_P(Brick, TableRepair, BrickTables, LayoutNames);

} // namespace tier_test

namespace {

template <class T>
class BrickRepair : public TableRepair<T> {
protected:
    // `path` as JSON text and as the tool sees it.
    void expect_path(const std::string &json, const std::string &path)
    {
        auto brick = this->sample;
        brick.brickid = path;
        Log lines = this->key_log(this->sample);
        lines[3].text = "bi_brickid: " + path;
        this->expect_accepted(RepairFile(this->file).set("bi_brickid", json).text(), lines,
                              [&](const std::string &out) { return this->repaired(brick, out); });
    }
};

TYPED_TEST_SUITE(BrickRepair, BrickTables, LayoutNames);

TYPED_TEST(BrickRepair, PathOf93CharactersOfAnyKind)
{
    this->expect_path(json_string(std::string(93, ' ')), std::string(93, ' '));
    this->expect_path(json_string(std::string(93, '%')), std::string(93, '%'));
    this->expect_path(json_string(std::string(92, 'x') + "\xff"), std::string(92, 'x') + "\xff");
    this->expect_path(json_string(std::string(90, 'x') + R"(\"\\\/)"),
                      std::string(90, 'x') + R"("\/)");
    this->expect_path(json_string(std::string(89, 'x') + R"(\u0041\u20ac)"),
                      std::string(89, 'x') + "A\xe2\x82\xac");
}

TYPED_TEST(BrickRepair, NumberIsCheckedAfterAllKeys)
{
    auto brick = this->sample;
    brick.no = 5;
    Log lines = this->key_log(brick, "bi_unlink");
    lines.push_back(this->error("parse bi_unlink failed"));
    this->expect_refused(
        RepairFile(this->file).number("bi_no", 5).string("bi_unlink", "text").text(), lines);
}

TYPED_TEST(BrickRepair, FreeBrickGetsARandomUuid)
{
    const std::string document = R"({"bi_use":0,"bi_no":3,"bi_brickid":"short"})";
    const auto offset = static_cast<std::uint64_t>(brick_offset(this->super, 3));
    std::vector<Uuid> seen;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(this->repair(document, {"-y"}).status, 0);
        const Uuid uuid = get_uuid(this->device.block(offset), 16);
        EXPECT_EQ(uuid[6] >> 4, 4) << uuid_text(uuid); // random
        EXPECT_EQ(uuid[8] >> 6, 2) << uuid_text(uuid);
        EXPECT_EQ(std::ranges::count(seen, uuid), 0) << uuid_text(uuid);
        seen.push_back(uuid);
    }
}

TYPED_TEST(BrickRepair, DumpedBrickIsARepairFile)
{
    const auto dumped = this->table.used(3, 0); // its reserved field is not copied
    this->expect_entry(json(dumped, 0), this->table.repairable(3, 0));
}

} // namespace
