// Whole runs under valgrind: no invalid or uninitialised memory is used, and none is lost.

#include "conversion.h"
#include "run.h"
#include "super_keys.h"

#include <gtest/gtest.h>
#include <ostream>

using namespace tier_test;

namespace {

using Args = std::vector<std::string>;

void expect_clean(const TempDir &directory, const std::string &program, const Args &args)
{
    const std::string report = directory.write("report", "");
    Args valgrind{"--leak-check=full",
                  "--show-leak-kinds=definite,indirect,possible",
                  "--errors-for-leak-kinds=definite,indirect,possible",
                  "--error-exitcode=99",
                  "--log-file=" + report,
                  program};
    valgrind.insert(valgrind.end(), args.begin(), args.end());
    const RunResult run = run_program("/usr/bin/valgrind", valgrind);
    EXPECT_EQ(run.status, 0) << testing::PrintToString(args) << run << read_file(report);
    EXPECT_NE(read_file(report).find("ERROR SUMMARY: 0 errors"), std::string::npos);
}

Args command(const Device &device, const std::string &name, const Args &args = {})
{
    Args all{"-l", device.directory().path("log"), "-p", device.path(), "-c", name};
    all.insert(all.end(), args.begin(), args.end());
    return all;
}

struct Repair {
    std::string command;
    std::string document;
};

const std::string BRICK = R"({"bi_use":1, "bi_no":2, "bi_brickid":"/)" + std::string(92, 'b') +
                          R"(", "bi_uuid":"01234567-89ab-cdef-0123-456789abcdef", "bi_unlink":0})";
constexpr const char *INODE = R"({"i_no":2, "i_use":1, "i_atime":1600000000000000000,
    "i_uuid":"01234567-89ab-cdef-0123-456789abcdef", "i_size":65536, "i_priority":3,
    "i_brick_no":1, "i_unlink":0})";
constexpr const char *EXTENT_V1 = R"({"te_use":1, "te_no":2, "te_block":2, "te_size":4096,
    "te_inode_no":1, "te_sampling_low":1, "te_clean":1, "te_bitmap":[1, 2]})";
constexpr const char *EXTENT_V2 = R"({"te_use":1, "te_no":2, "te_inode_no":1, "te_sampling_low":1,
    "te_mapped_meta":[{"mapno":1, "offset":32768, "clean":1, "len":4096, "begin":0, "cnt":1}]})";

// A device with entries in use, and in each table with a first slot that holds nothing valid.
struct Layout {
    Device device;
    std::vector<std::string> dumps;
    std::vector<Repair> repairs;
};

void spoil(Device &device, const std::vector<std::int64_t> &offsets)
{
    for (const std::int64_t offset : offsets)
        device.write(static_cast<std::uint64_t>(offset), Block{});
}

const std::vector<std::string> DUMPS{"dump_super", "dump_brick", "dump_inode", "dump_extent"};

Layout v1()
{
    const SuperV1 sb = super_v1(3, 5, 4);
    Layout layout{make_v1_device(sb, {brick_used(1)}, {inode_used(1, 1)}, {extent_used(1, 1)}),
                  DUMPS,
                  {{"repair_super", repair_file(sb).text()},
                   {"repair_brick", BRICK},
                   {"repair_inode", INODE},
                   {"repair_extent", EXTENT_V1}}};
    spoil(layout.device, {brick_offset(sb, 0), inode_offset(sb, 0), extent_offset(sb, 0)});
    return layout;
}

Layout v2()
{
    const SuperV2 sb = super_v2(3, 5, 4);
    Layout layout{
        make_v2_device(sb, {brick_used(1)}, {inode_v2_used(1, 1)}, {extent_v2_used(1, 1)}),
        DUMPS,
        {{"repair_super", repair_file(sb).text()},
         {"repair_brick", BRICK},
         {"repair_inode", INODE},
         {"repair_extent", EXTENT_V2}}};
    spoil(layout.device, {brick_offset(sb, 0), inode_offset(sb, 0), extent_offset(sb, 0)});
    return layout;
}

Layout v3()
{
    const SuperV3 sb = super_v3(3, 5);
    const auto at = [](std::int64_t offset) {
        return R"({"meta_offset":)" + std::to_string(offset);
    };
    Layout layout{
        make_v3_device(sb, {brick_v3_used(1)}, {inode_v3_used(1, 1)},
                       {{1, {.shards = {{.slot = 1, .ino = 1}, {.slot = 511, .ino = 2}}}}},
                       {{1, {.extents = {{.slot = 0, .shard = 513}, {.slot = 511, .dirty = 1}}}}}),
        {"dump_super", "dump_brick", "dump_inode", "dump_extent", "dump_shard", "dump_hot"},
        {{"repair_super", repair_file(sb).text()},
         {"repair_brick", BRICK},
         {"repair_inode", INODE},
         {"repair_extent",
          at(extent_offset(sb, 1)) +
              R"(,"extents":[{"eno":512,"lba":1,"shard":1,"dirty":0,"bitmap":1}]})"},
         {"repair_shard",
          at(shard_offset(sb, 1)) + R"(,"shards":[{"sno":513,"ino":1,"index":2}]})"},
         {"repair_hot", at(hot_offset(sb, 1)) + "}"}}};
    spoil(layout.device,
          {brick_offset(sb, 0), inode_offset(sb, 0), extent_offset(sb, 0), shard_offset(sb, 0)});
    return layout;
}

class Memcheck : public testing::TestWithParam<Layout (*)()> {
protected:
    const Layout layout = GetParam()();

    void expect_clean_run(const std::string &name, const Args &args = {}) const
    {
        expect_clean(layout.device.directory(), ZU_TIER, command(layout.device, name, args));
    }
};

INSTANTIATE_TEST_SUITE_P(, Memcheck, testing::Values(v1, v2, v3),
                         [](const auto &test) { return "V" + std::to_string(test.index + 1); });

TEST_P(Memcheck, Dumps)
{
    for (const std::string &dump : layout.dumps)
        expect_clean_run(dump);
}

TEST_P(Memcheck, FilteredDumps)
{
    for (const std::string &dump : layout.dumps)
        expect_clean_run(dump, {"-g", "use=1,owner=1,error=1,id=none", "-D"});
}

TEST_P(Memcheck, Repairs)
{
    for (const auto &[name, document] : layout.repairs) {
        const std::string file = layout.device.directory().write("conf.json", document);
        expect_clean_run(name, {"-f", file});
        expect_clean_run(name, {"-f", file, "-y"});
    }
}

TEST(MemcheckV2, ExpansionInode)
{
    SuperV2 sb = super_v2(3, 5, 4);
    set_expansion(sb, EXPANSION_UNIT, true);
    const Device device = make_v2_device(sb, {}, {inode_v2_used(7, 1)});
    expect_clean(device.directory(), ZU_TIER, command(device, "dump_inode", {"-n", "7"}));
}

TEST(MemcheckV2, Conversion)
{
    const SuperV2 sb = cache(262144, 16384);
    const Device device = make_v2_device(sb);
    const std::string file = device.directory().write("conf.json", old_file(sb).text());
    expect_clean(device.directory(), ZU_TIER,
                 command(device, "convert_super", {"-v", "2", "-f", file}));
}

TEST(MemcheckUsage, Help)
{
    const TempDir directory;
    expect_clean(directory, ZU_TIER, {"-h"});
    expect_clean(directory, ZU_TIERCTL, {"--help"});
}

TEST(MemcheckCompanion, Sample)
{
    const TempDir directory;
    for (const std::string layout : {"v1", "v2", "v3"})
        expect_clean(directory, ZU_TIERCTL, {"sample", "--layout", layout, directory.path(layout)});
}

} // namespace
