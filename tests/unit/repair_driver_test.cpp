// The repair driver around a parse function of the test's own.

#include "in_process.h"
#include "zu_tier/driver/repair.h"

#include <algorithm>

using namespace tier_test;

namespace {

constexpr const char *REPAIR_COMMON = "zutr_repair_common";

// The result of the parse function, and its arguments.
struct Parse {
    std::int64_t result = 0;
    int calls = 0;
    bool aligned = false;
    bool zeroed = false;
    std::string value{};
};
Parse parse;

Block pattern()
{
    Block block;
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<std::uint8_t>(i * 31 + 1);
    return block;
}

std::int64_t parse_pattern(zutr_params_t *, const cJSON *document, void *m)
{
    auto *bytes = static_cast<std::uint8_t *>(m);
    parse.calls++;
    parse.aligned = reinterpret_cast<std::uintptr_t>(m) % 4096 == 0;
    parse.zeroed = std::all_of(bytes, bytes + BLOCK_SIZE, [](auto byte) { return byte == 0; });
    parse.value = cJSON_GetStringValue(cJSON_GetObjectItem(document, "key"));
    std::ranges::copy(pattern(), bytes);
    return parse.result;
}

class RepairDriver : public testing::Test {
protected:
    static constexpr std::uint64_t SIZE = 6 * BLOCK_SIZE;

    Device device{SIZE};
    std::string conf = device.directory().write("conf", "{\"key\":\"value\"}");
    bool commit = true;
    int flags = O_RDWR | O_DIRECT;

    void SetUp() override
    {
        parse = {};
        device.write(0, std::vector<std::uint8_t>(SIZE, 0xC3));
    }

    Call repair(const char *conf_path) const
    {
        const OpenDevice open(device, flags);
        zutr_params_t params = params_on(device, open);
        params.cmd = ZUTR_CMD_REPAIR_BRICK;
        params.repair_conf = conf_path;
        params.commit = commit ? 1 : 0;
        return captured([&] { return zutr_repair_common(&params, {parse_pattern, nullptr}); });
    }

    Call repair() const { return repair(conf.c_str()); }

    // cmd, device and repair file, as messages end.
    std::string suffix() const
    {
        return text("cmd:10, dev:%s, conf:%s", device.path().c_str(), conf.c_str());
    }

    void expect_untouched() const
    {
        EXPECT_EQ(device.bytes(), std::vector<std::uint8_t>(SIZE, 0xC3));
    }
};

TEST_F(RepairDriver, WritesExactlyOneBlockAtTheOffsetOfTheParser)
{
    std::vector<std::uint8_t> expected = device.bytes();
    for (const std::int64_t offset : {0, 8192, 20480}) {
        SCOPED_TRACE(offset);
        parse = {.result = offset};
        EXPECT_EQ(repair(), Call{});
        std::ranges::copy(pattern(), expected.begin() + offset);
        EXPECT_EQ(device.bytes(), expected);
    }
}

TEST_F(RepairDriver, HandsOutAnAlignedZeroBlockAndTheDocument)
{
    EXPECT_EQ(repair().result, 0);
    EXPECT_EQ(parse.calls, 1);
    EXPECT_TRUE(parse.aligned);
    EXPECT_TRUE(parse.zeroed);
    EXPECT_EQ(parse.value, "value");
}

TEST_F(RepairDriver, OffsetsAre64Bits)
{
    constexpr std::uint64_t FAR = 0x1'8000'0000;
    device.truncate(FAR + BLOCK_SIZE);
    parse.result = FAR;
    EXPECT_EQ(repair(), Call{});
    EXPECT_EQ(device.block(FAR), pattern());
    EXPECT_EQ(device.block(FAR & 0xFFFFFFFF), Block{});
}

// What has been built is shown once it is accepted, before anything is written.
TEST_F(RepairDriver, ShowsWhatIsAcceptedBeforeItIsWritten)
{
    for (const std::int64_t result : {8192, -22}) {
        parse = {.result = result};
        const OpenDevice open(device, flags);
        zutr_params_t params = params_on(device, open);
        params.repair_conf = conf.c_str();
        params.commit = 1;
        testing::internal::CaptureStdout();
        zutr_repair_common(
            &params, {parse_pattern, [](void *entry, const void *, std::int64_t offset, FILE *fp) {
                          fprintf(fp, "%d at %ld", *static_cast<char *>(entry), offset);
                      }});
        const std::string shown = testing::internal::GetCapturedStdout();
        EXPECT_EQ(shown,
                  result < 0 ? "" : text("%d at %ld", static_cast<char>(pattern()[0]), result));
    }
}

TEST_F(RepairDriver, WithoutTheCommitFlagNothingIsWritten)
{
    commit = false;
    parse.result = 8192;
    EXPECT_EQ(repair(),
              (Call{.log = {debug_line(REPAIR_COMMON,
                                       "'commit' flag not set, won't write dev. cmd:10, conf:" +
                                           conf)}}));
    EXPECT_EQ(parse.calls, 1);
    expect_untouched();
}

TEST_F(RepairDriver, RefusalOfTheParserIsHandedOn)
{
    for (const std::int64_t result : {-5, -12, -14, -22}) {
        parse = {.result = result};
        EXPECT_EQ(
            repair(),
            (Call{.result = result,
                  .log = {error_line(REPAIR_COMMON,
                                     text("parse meta info failed:%ld, ", result) + suffix())}}));
        expect_untouched();
    }
}

TEST_F(RepairDriver, BlockThatCannotBeWritten)
{
    flags = O_RDONLY | O_DIRECT;
    parse.result = 8192;
    EXPECT_EQ(repair(),
              (Call{.result = -5,
                    .log = {error_line(REPAIR_COMMON,
                                       "write meta on offset 8192 failed:-1, " + suffix())}}));
    expect_untouched();
}

TEST_F(RepairDriver, NeedsARepairFileAndAnOpenDevice)
{
    const Call refused{
        .result = -22,
        .log = {error_line(REPAIR_COMMON, "failed to get repair_conf or open repair_conf fd")}};
    EXPECT_EQ(repair(nullptr), refused);
    zutr_params_t params;
    zutr_params_init(&params);
    params.repair_conf = conf.c_str();
    EXPECT_EQ(captured([&] {
                  return zutr_repair_common(&params, {parse_pattern, nullptr});
              }),
              refused);
    EXPECT_EQ(parse.calls, 0);
}

TEST_F(RepairDriver, RepairFileThatCannotBeLoaded)
{
    const std::string missing = device.directory().path("missing");
    const std::string folder = device.directory().path("");
    const std::string empty = device.directory().write("empty", "");
    const std::string blank = device.directory().write("blank", " \n");
    const std::string broken = device.directory().write("broken", "{\"key\":\"value\"");

    struct Row {
        std::string path;
        std::string reason;
        std::string own_message; // of the loading
    };
    for (const Row &row :
         {Row{missing, "No such file or directory", ""}, Row{empty, "Invalid argument", ""},
          Row{folder, "Is a directory", "fread failed:Is a directory, path:"},
          Row{blank, "Invalid argument", "cJSON_Parse failed, path:"},
          Row{broken, "Invalid argument", "cJSON_Parse failed, path:"}}) {
        SCOPED_TRACE(row.path);
        Log log;
        if (!row.own_message.empty())
            log.push_back(error_line("zutr_json_load", row.own_message + row.path));
        log.push_back(
            error_line(REPAIR_COMMON, "load repair conf " + row.path + " failed:" + row.reason));
        EXPECT_EQ(repair(row.path.c_str()), (Call{.result = -22, .log = log}));
    }
    EXPECT_EQ(parse.calls, 0);
    expect_untouched();
}

using RepairDriverDeathTest = RepairDriver;

TEST_F(RepairDriverDeathTest, ProgrammingErrorsAbort)
{
    zutr_params_t params;
    zutr_params_init(&params);
    EXPECT_ABORT(zutr_repair_common(nullptr, {parse_pattern, nullptr}), "params && parse_func");
    EXPECT_ABORT(zutr_repair_common(&params, {}), "params && parse_func");
}

} // namespace
