#pragma once

// Tests of the page that zu_tierctl map writes.

#include "map_model.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace tier_test {

using Rows = std::vector<std::vector<std::string>>;

class MapTest : public testing::Test {
protected:
    const TempDir directory;
    const std::string file = directory.path("map.html");

    RunResult map(const std::string &device, const RunOptions &options = {}) const
    {
        return run_ctl({"map", device, "--html", file}, options);
    }

    // The text of a page that needs nothing else; nothing else may be printed.
    std::string page_text(const Device &device) const
    {
        std::filesystem::remove(file);
        const RunResult run = map(device.path());
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.out + run.err, "");
        EXPECT_EQ(names_in(directory), std::vector<std::string>{"map.html"});
        std::string page = read_file(file);
        for (const std::string word : {"http", "src=", "@import", "url(", "href="})
            EXPECT_EQ(page.find(word), std::string::npos) << word;
        return page;
    }

    pugi::xml_document page_of(const Device &device) const { return parse_page(page_text(device)); }

    void expect_map(const Device &device, std::vector<MapTable> tables) const
    {
        add_findings(tables, device.path());
        expect_grids(page_of(device), tables);
    }

    void expect_refused(const std::string &device, const std::string &complaint) const
    {
        const std::vector<std::string> before = names_in(directory);
        expect_complaint(map(device), 1, complaint);
        EXPECT_EQ(names_in(directory), before);
    }
};

} // namespace tier_test
