// The command line of zu_tierctl template.

#include "template_run.h"
#include "v3_device.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>

using namespace tier_test;

namespace {

const std::vector<std::string> NO_NUMBERS{"x",
                                          "1x",
                                          " 1",
                                          "1 ",
                                          "\t1",
                                          "+1",
                                          "1.0",
                                          "1e1",
                                          "08",
                                          "0x",
                                          "0xg",
                                          "0x 1",
                                          "0x-1",
                                          "1\n",
                                          "18446744073709551616",
                                          "0x10000000000000000",
                                          "02000000000000000000000"};

class TemplateCommand : public testing::Test {
protected:
    const SuperV1 sb = super_v1(2, 3, 4);
    Device device = make_v1_device(sb, {brick_used(0)});

    void refuse(const std::vector<std::string> &args, int status, const std::string &complaint)
    {
        expect_template_failure(device, args, status, complaint);
    }
};

TEST_F(TemplateCommand, Tables)
{
    for (const std::string table : {"shard", "hot", "", "Inode", "inodes"})
        refuse({table, "0"}, 2, "there is no table " + table + ", but super, brick, inode, extent");
    refuse({"super", "1"}, 2, "super 1: the table has 1 entries");
    refuse({"brick", "2"}, 2, "brick 2: the table has 2 entries");
    refuse({"inode", "3"}, 2, "inode 3: the table has 3 entries");
    refuse({"extent", "18446744073709551615"}, 2,
           "extent 18446744073709551615: the table has 4 entries");
}

// Control characters as the program shows them.
std::string one_line(const std::string &words)
{
    std::string line;
    for (const char byte : words)
        line +=
            byte < ' ' ? text("\\x%02x", static_cast<unsigned char>(byte)) : std::string(1, byte);
    return line;
}

TEST_F(TemplateCommand, Numbers)
{
    for (const std::string &no : NO_NUMBERS)
        refuse({"inode", no}, 2,
               "NO " + one_line(no) +
                   ": expected a number of up to 64 bits, or several as in 3,7,9..12");
    refuse({"inode", ""}, 2, "NO is required");
    EXPECT_EQ(run_template(device, {"inode", "-1"}).status, 2);
    EXPECT_EQ(run_template(device, {"inode", "007"}).status, 2);
    for (const std::string no : {"002", "0x2", "0X02"})
        EXPECT_EQ(run_template(device, {"inode", no}).out,
                  run_template(device, {"inode", "2"}).out);
}

// The same text is the same number in both programs.
TEST_F(TemplateCommand, NumbersAreThoseOfTheTool)
{
    const SuperV1 many = super_v1(1, 20, 1);
    const Device other = make_v1_device(many, {});
    for (const auto &[no, value] : std::map<std::string, std::uint64_t>{
             {"10", 10}, {"010", 8}, {"0x10", 16}, {"0XF", 15}, {"00", 0}, {"017", 15}}) {
        const LoggedRun dumped = run_logged(other, "dump_inode", {"-n", no});
        EXPECT_EQ(nlohmann::json::parse(dumped.out)["no"], value) << dumped;
        const RunResult made = run_template(other, {"inode", no});
        EXPECT_EQ(nlohmann::json::parse(made.out)["i_no"], value) << made;
    }
}

TEST_F(TemplateCommand, Layouts)
{
    refuse({"inode", "0", "--layout", "v1"}, 2, "--layout is for the super block only");
    refuse({"super", "0", "--layout", "v4"}, 2, "unknown layout v4");
}

TEST_F(TemplateCommand, Help)
{
    const RunResult run = run_program(ZU_TIERCTL, {"template", "--help"});
    EXPECT_EQ(run.status, 0) << run;
    for (const std::string word :
         {"DEVICE", "TABLE", "NO", "--layout", "v1, v2, v3", "repair_inode -f"})
        EXPECT_NE(run.out.find(word), std::string::npos) << word;
}

TEST_F(TemplateCommand, WhatCannotBeRead)
{
    device.truncate(static_cast<std::uint64_t>(inode_offset(sb, 2)) + BLOCK_SIZE - 1);
    EXPECT_EQ(run_template(device, {"inode", "1"}).status, 0);
    refuse({"inode", "2"}, 1,
           "cannot read inode 2 of " + device.path() + ": No such device or address");
    device.truncate(2 * BLOCK_SIZE - 1);
    const std::string complaint =
        "cannot read the super block of " + device.path() + ": No such device or address";
    refuse({"inode", "0"}, 1, complaint);
    refuse({"super", "0"}, 1, complaint);
}

// Tables that a sealed super block puts anywhere.
TEST_F(TemplateCommand, HostileGeometry)
{
    SuperV3 v3 = super_v3(1, 1);
    Device other = make_v3_device(v3);
    v3.inode_cnt = v3.shard_cnt = v3.extent_cnt = v3.hot_table_size = UINT64_MAX;
    v3.inode_table_offset = v3.shard_table_offset = v3.extent_table_offset = UINT64_MAX;
    v3.hot_table_offset = std::uint64_t{1} << 63;
    other.write(4096, encode(v3));
    for (const std::string table : {"inode", "shard", "extent", "hot"})
        for (const std::string no : {"0", "1", "4294967295"})
            expect_template_failure(other, {table, no}, 1,
                                    "cannot read " + table + " " + no + " of " + other.path() +
                                        ": No such device or address");
    v3.inode_cnt = v3.shard_cnt = v3.extent_cnt = v3.hot_table_size = 0;
    other.write(4096, encode(v3));
    for (const auto &[table, unit] : std::map<std::string, std::string>{
             {"inode", "entries"}, {"shard", "blocks"}, {"extent", "blocks"}, {"hot", "entries"}})
        expect_template_failure(other, {table, "0"}, 2, table + " 0: the table has 0 " + unit);
}

// The command to use next can be pasted.
TEST_F(TemplateCommand, PathsThatAShellWouldTakeApart)
{
    const std::string odd = device.directory().path("it's $here");
    std::filesystem::create_hard_link(device.path(), odd);
    const RunResult run = run_program(ZU_TIERCTL, {"template", odd, "inode", "0"});
    EXPECT_EQ(run.status, 0) << run;
    const std::string word =
        "zu_tier -l tier.log -p '" + device.directory().path("it'\\''s $here") + "' -c";
    EXPECT_NE(run.err.find(word), std::string::npos) << run;
}

} // namespace
