// What a search for a lost super block reads: the tables, and never the data.

#include "faulty_run.h"
#include "v1_device.h"

#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>

using namespace tier_test;

namespace {

class RescueReads : public testing::TestWithParam<std::string> {
protected:
    const TempDir directory;
    const std::string path = directory.path("device");
    const std::string trace = directory.path("trace");
    std::int64_t data = 0; // where they begin

    // A sample whose super block is lost, and what a check of it reads before.
    std::map<std::int64_t, unsigned> make(const std::vector<std::string> &sizes)
    {
        std::vector<std::string> args{"sample", "--force", "--layout", GetParam()};
        args.insert(args.end(), sizes.begin(), sizes.end());
        args.push_back(path);
        EXPECT_EQ(run_program(ZU_TIERCTL, args).status, 0);
        const RunResult dump =
            run_tool({"-l", directory.path("log"), "-p", path, "-c", "dump_super"});
        data = nlohmann::json::parse(dump.out)["data_offset"].get<std::int64_t>();
        std::map<std::int64_t, unsigned> checked = reads_of({"check", path});
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(SUPER_OFFSET);
        file << std::string(BLOCK_SIZE, '\0');
        return checked;
    }

    // How often each block was read, by its offset.
    std::map<std::int64_t, unsigned> reads_of(const std::vector<std::string> &args) const
    {
        directory.write("trace", "");
        RunOptions options;
        options.environment = {{"LD_PRELOAD", ZUTR_FAULTS_LIB},
                               {"ZUTR_FAULTS", "trace:" + trace + ";pread=pass"}};
        EXPECT_LE(run_program(ZU_TIERCTL, args, options).status, 1);
        std::map<std::int64_t, unsigned> reads;
        for (const std::string &line : lines_of(read_file(trace))) {
            long size = 0;
            long offset = 0;
            EXPECT_EQ(std::sscanf(line.c_str(), "pread(%ld)@%ld=pass", &size, &offset), 2) << line;
            for (long at = offset; at < offset + size; at += BLOCK_SIZE)
                reads[at]++;
        }
        return reads;
    }

    // Once, but for what a check reads.
    void expect_tables_only(const std::map<std::int64_t, unsigned> &reads,
                            std::map<std::int64_t, unsigned> checked) const
    {
        EXPECT_GT(reads.size(), 200U);
        for (const auto &[offset, count] : reads) {
            EXPECT_LT(offset, data);
            EXPECT_LE(count, 1 + checked[offset]) << offset;
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, RescueReads, testing::Values("v1", "v2", "v3"),
                         [](const auto &layout) { return layout.param; });

TEST_P(RescueReads, AreOfTheTables)
{
    const bool packed = GetParam() == "v3";
    const std::vector<std::vector<std::string>> sizes{
        {},
        {packed ? "--extents" : "--blocks", packed ? "200192" : "1500"},
        {"--inodes", "3000"},
    };
    for (const std::vector<std::string> &some : sizes) {
        SCOPED_TRACE(testing::PrintToString(some));
        const std::map<std::int64_t, unsigned> checked = make(some);
        expect_tables_only(reads_of({"rescue", path, "--no-verify"}), {});
        expect_tables_only(reads_of({"rescue", path}), checked);
    }
}

} // namespace
