// zu_tierctl map: the list of findings, its filter, and a map without duplicates.

#include "check_run.h"
#include "map_fixture.h"

#include <algorithm>
#include <nlohmann/json.hpp>

using namespace tier_test;
using Json = nlohmann::json;
namespace fs = std::filesystem;

namespace {

class MapFindings : public MapTest {
protected:
    // Two kinds of findings about inodes, one about an extent, one about a brick.
    MapFindings()
    {
        for (const std::uint64_t no : {1U, 3U})
            flip(cache.device, cache.offset("inode", no) + 20);
        flip(cache.device, cache.offset("brick", 1) + 20);
    }

    const Cache cache = make_cache("v1");

    // The findings that the page shows after each choice, as "inode 3", and how it counts them.
    Json chosen(const Device &device, const Json &choices) const
    {
        page_text(device);
        const RunResult run =
            run_program("/usr/bin/env", {"node", PAGE_FILTER, file, choices.dump()});
        EXPECT_EQ(run.status, 0) << run;
        return Json::parse(run.out);
    }

    Json report_of(const Device &device) const
    {
        return Json::parse(run_ctl({"check", "--json", "--all", device.path()}).out);
    }

    // "inode 3", for the findings for which `chosen` holds.
    template <class Chosen>
    static Json about(const Json &report, const Chosen &chosen)
    {
        Json rows = Json::array();
        for (const Json &finding : report.at("findings")) {
            if (chosen(finding))
                rows.push_back(finding.at("table").get<std::string>() + ' ' +
                               std::to_string(finding.at("no").get<std::uint64_t>()));
        }
        const std::string shown =
            text("%zu of %zu listed", rows.size(), report.at("findings").size());
        return {{"rows", rows}, {"shown", shown}};
    }
};

TEST_F(MapFindings, ChosenBySeverityTableKindAndWords)
{
    const Json report = report_of(cache.device);
    ASSERT_GE(report.at("findings").size(), 4U);
    const auto with = [&report](const std::string &key, const std::string &value) {
        return about(report, [&](const Json &finding) { return finding.at(key) == value; });
    };
    const Json all = about(report, [](const Json &) { return true; });
    const Json none = about(report, [](const Json &) { return false; });
    // The path of the device, which stands in each row, may hold a 3.
    const bool everywhere = cache.device.path().find('3') != std::string::npos;
    const Json inode3 = about(report, [everywhere](const Json &f) {
        return f.at("table") == "inode" && f.at("kind") == "bad_checksum" &&
               (everywhere || f.at("no") == 3);
    });
    EXPECT_GT(with("severity", "warning").at("rows").size(), 0U);
    EXPECT_EQ(chosen(cache.device, Json::array({Json::object(),
                                                {{"severity", "error"}},
                                                {{"severity", "warning"}},
                                                {{"table", "inode"}},
                                                {{"kind", "bad_checksum"}},
                                                {{"words", "INODE  3 does not match"}},
                                                {{"words", "bad_checksum"}},
                                                {{"words", "no such words"}},
                                                {{"table", "brick"}, {"words", "inode 3"}},
                                                {{"severity", "warning"}, {"kind", "bad_checksum"}},
                                                Json::object()})),
              Json::array({all, with("severity", "error"), with("severity", "warning"),
                           with("table", "inode"), with("kind", "bad_checksum"), inode3,
                           with("kind", "bad_checksum"), none, none, none, all}));
}

TEST_F(MapFindings, ChoicesAreWhatThereIs)
{
    const Json report = report_of(cache.device);
    const pugi::xml_document page = page_of(cache.device);
    for (const std::string key : {"severity", "table", "kind"}) {
        std::set<std::string> values;
        for (const Json &finding : report.at("findings"))
            values.insert(finding.at(key).get<std::string>());
        std::vector<std::string> expected{"any"};
        expected.insert(expected.end(), values.begin(), values.end());
        EXPECT_EQ(texts_of(page, ("//select[@name='" + key + "']/option").c_str()), expected);
    }
    // Without a script there is nothing to choose with.
    EXPECT_EQ(page.select_nodes("//form[@hidden]").size(), 1U);
    EXPECT_EQ(page.select_nodes("//form").size(), 1U);
}

TEST_F(MapFindings, CountsOfEachKind)
{
    Rows expected;
    const Json report = report_of(cache.device);
    for (const auto &[kind, count] : report.at("kinds").items()) {
        const std::string number = std::to_string(count.get<std::uint64_t>());
        expected.push_back({kind, number, number});
    }
    EXPECT_EQ(rows_of(page_of(cache.device), "Findings by kind"), expected);
}

TEST_F(MapFindings, NoKindKeepsTheOthersOut)
{
    // 1010 extents of a free inode, 1020 of one that does not exist, then a damaged one.
    std::vector<ExtentV1> extents;
    for (std::uint64_t no = 0; no < 2030; ++no)
        extents.push_back(sound_extent(extent_used(no, no < 1010 ? 0 : 7)));
    SuperV1 sb = super_v1(1, 1, 2031);
    Device device = make_v1_device(sb, {}, {}, extents);
    flip(device, extent_offset(sb, 2030) + 20);
    device.truncate(sb.data_offset + std::uint64_t{sb.block_size} * sb.block_cnt);
    const pugi::xml_document page = page_of(device);
    EXPECT_EQ(rows_of(page, "Findings by kind"),
              (Rows{{"bad_checksum", "1", "1"},
                    {"extent_of_free_inode", "1010", "1000"},
                    {"extent_of_missing_inode", "1020", "1000"}}));
    const Rows rows = rows_of(page, "Findings");
    ASSERT_EQ(rows.size(), 2002U);
    EXPECT_EQ(std::ranges::count(rows, "extent 2030",
                                 [](const auto &row) { return row.size() > 1 ? row[1] : ""; }),
              1);
    EXPECT_EQ(rows.back(), std::vector<std::string>{"and 30 more"});
    EXPECT_EQ(std::ranges::count(texts_of(page, "//dd"), "2031"), 1);
    EXPECT_EQ(chosen(device, Json::array({{{"words", "2030"}}})),
              Json::array({{{"rows", {"extent 2030"}}, {"shown", "1 of 2001 listed"}}}));
}

TEST_F(MapFindings, QuickSearchesForNoDuplicates)
{
    std::vector<InodeV1> inodes{inode_used(0, 0), inode_used(1, 0)};
    inodes[1].uuid = inodes[0].uuid;
    Device device = make_v1_device(super_v1(1, 2, 2), {brick_used(0)}, inodes);
    const std::string told = "duplicates were not searched for";
    const auto duplicates = [&](const std::vector<std::string> &options) {
        fs::remove(file);
        std::vector<std::string> args{"map", "--html", file, device.path()};
        args.insert(args.end(), options.begin(), options.end());
        EXPECT_EQ(run_ctl(args).status, 0);
        const std::string page = read_file(file);
        EXPECT_EQ(page.find(told) != std::string::npos, !options.empty());
        Rows rows = rows_of(parse_page(page), "Findings by kind");
        std::erase_if(rows, [](const auto &row) { return row[0] != "duplicate_inode"; });
        return rows;
    };
    EXPECT_EQ(duplicates({}), (Rows{{"duplicate_inode", "1", "1"}}));
    EXPECT_EQ(duplicates({"--quick"}), Rows{});

    const RunResult picture = run_ctl({"map", "--quick", device.path()});
    EXPECT_EQ(picture.status, 0) << picture;
    EXPECT_TRUE(picture.out.ends_with("\n\n" + told + '\n')) << picture;
    EXPECT_EQ(run_ctl({"map", device.path()}).out.find(told), std::string::npos);
}

// Nor are they counted.
TEST_F(MapFindings, QuickFindsAtLeastSomeOfThem)
{
    std::vector<InodeV1> inodes{inode_used(0, 0), inode_used(1, 0), inode_used(2, 0)};
    inodes[1].uuid = inodes[0].uuid;
    const SuperV1 sb = super_v1(1, 3, 3);
    Device device = make_v1_device(sb, {brick_used(0)}, inodes);
    flip(device, inode_offset(sb, 2) + 60);
    const auto counts = [&](const std::vector<std::string> &options) {
        fs::remove(file);
        std::vector<std::string> page{"map", "--html", file, device.path()};
        page.insert(page.end(), options.begin(), options.end());
        EXPECT_EQ(run_ctl(page).status, 0);
        const std::string fact = "<dt>Findings</dt><dd>";
        const std::string html = read_file(file);
        const std::size_t at = html.find(fact) + fact.size();
        std::vector<std::string> picture{"map", device.path()};
        picture.insert(picture.end(), options.begin(), options.end());
        const std::string drawn = run_ctl(picture).out;
        const std::size_t end = drawn.find(" findings; to see them:");
        const std::size_t line = drawn.rfind('\n', end) + 1;
        return std::pair{html.substr(at, html.find('<', at) - at), drawn.substr(line, end - line)};
    };
    const Json findings = report_of(device).at("findings");
    const auto is_duplicate = [](const Json &finding) {
        return finding.at("kind") == "duplicate_inode";
    };
    const auto duplicates = std::ranges::count_if(findings, is_duplicate);
    EXPECT_EQ(duplicates, 1);
    const std::string all = std::to_string(findings.size());
    const std::string least = "at least " + std::to_string(findings.size() - 1);
    EXPECT_EQ(counts({}), std::pair(all, all));
    EXPECT_EQ(counts({"--quick"}), std::pair(least, least));
}

} // namespace
