// From the repair file to the block on the device, seen through repairs of one free extent.

#include "loop_device.h"
#include "table_repair.h"

#include <cstring>
#include <filesystem>

using namespace tier_test;

namespace {

std::string repeated(const std::string &piece, std::size_t count)
{
    std::string result;
    result.reserve(piece.size() * count);
    for (std::size_t i = 0; i < count; ++i)
        result += piece;
    return result;
}

std::string nested_arrays(std::size_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

class RepairDriver : public TableRepair<ExtentTableV1> {
protected:
    const ExtentV1 entry{.no = 1};
    const std::string members = R"("te_use":0,"te_no":1)";
    const std::string document = "{" + members + "}";

    static LogLine load_failure(const std::string &path, const std::string &reason)
    {
        return error_line("zutr_repair_common", "load repair conf " + path + " failed:" + reason);
    }

    // The document is read as the one that describes `entry`.
    void expect_same(const std::string &text)
    {
        SCOPED_TRACE(text.substr(0, 200));
        expect_spelt(text, entry);
    }

    void expect_invalid(const std::string &text)
    {
        SCOPED_TRACE(text.substr(0, 200));
        expect_not_loaded(text, {error_line("zutr_json_load", "cJSON_Parse failed, path:" + conf()),
                                 load_failure(conf(), "Invalid argument")});
    }

    void expect_file_refused(const std::string &path, Log lines)
    {
        SCOPED_TRACE(path);
        const std::vector<std::uint8_t> before = device.bytes();
        lines.insert(lines.begin(), settings_line(device, "repair_extent", {.repair_conf = path}));
        expect_run(run_logged(device, "repair_extent", {"-f", path, "-y"}),
                   {.status = 22, .out = "", .log = lines});
        EXPECT_EQ(device.bytes(), before);
    }
};

TEST_F(RepairDriver, DryRunSucceedsAndCommitWritesOneBlock) { expect_same(document); }

TEST_F(RepairDriver, BlockIsTheWholeRecordAndZeroBehindIt)
{
    const auto offset = static_cast<std::uint64_t>(extent_offset(super, 1));
    std::vector<std::uint8_t> expected = device.bytes();
    std::ranges::fill(expected, std::uint8_t{0xEE});
    put_bytes(expected, SUPER_OFFSET, encode(super));
    device.write(0, expected);
    ASSERT_EQ(repair(document, {"-y"}).status, 0);

    Block block{};
    put_u64(block, 48, 1);
    seal(block, super.extent_size);
    put_bytes(expected, offset, block);
    EXPECT_EQ(device.bytes(), expected);
}

TEST_F(RepairDriver, NoRepairFile)
{
    const std::vector<std::uint8_t> before = device.bytes();
    expect_run(run_logged(device, "repair_extent", {"-y"}),
               {.status = 22,
                .out = "",
                .log = {settings_line(device, "repair_extent"),
                        error_line("zutr_repair_common",
                                   "failed to get repair_conf or open repair_conf fd")}});
    EXPECT_EQ(device.bytes(), before);
}

TEST_F(RepairDriver, FilesThatCannotBeOpened)
{
    const TempDir &directory = device.directory();
    const std::string below = directory.write("file", document) + "/below";
    std::filesystem::create_symlink(directory.path("missing"), directory.path("dangling"));
    for (const std::string &path : {directory.path("missing"), directory.path("dangling"),
                                    directory.path("%s%n%d"), std::string()})
        expect_file_refused(path, {load_failure(path, "No such file or directory")});
    expect_file_refused(below, {load_failure(below, "Not a directory")});
    const std::string long_name = directory.path(std::string(300, 'x'));
    expect_file_refused(long_name, {load_failure(long_name, "File name too long")});
}

TEST_F(RepairDriver, EmptyFiles)
{
    for (const std::string &path :
         {device.directory().write("empty", ""), std::string("/dev/null")})
        expect_file_refused(path, {load_failure(path, "Invalid argument")});
}

TEST_F(RepairDriver, DirectoryAsFile)
{
    const std::string path = device.directory().path("");
    expect_file_refused(path,
                        {error_line("zutr_json_load", "fread failed:Is a directory, path:" + path),
                         load_failure(path, "Is a directory")});
}

// The kernel's own files promise a page and hold less.
TEST_F(RepairDriver, FileShorterThanItsSize)
{
    const std::string path = "/sys/kernel/mm/transparent_hugepage/enabled";
    std::error_code missing;
    if (std::filesystem::file_size(path, missing) != 4096 || missing)
        GTEST_SKIP() << "no " << path;
    const LoggedRun run = run_logged(device, "repair_extent", {"-f", path, "-y"});
    EXPECT_EQ(run.status, 22);
    ASSERT_EQ(run.log.size(), 3U) << run;
    // What a read that came to the end leaves in errno is not fixed.
    static const std::string BEGIN = "fread failed:";
    const std::string end = ", path:" + path;
    const std::string &text = run.log[1].text;
    ASSERT_TRUE(text.starts_with(BEGIN) && text.ends_with(end)) << run;
    const std::string reason = text.substr(BEGIN.size(), text.size() - BEGIN.size() - end.size());
    EXPECT_EQ(run.log[1].func, "zutr_json_load");
    EXPECT_EQ(run.log[2],
              load_failure(path, reason == std::strerror(0) ? std::strerror(EIO) : reason));
}

TEST_F(RepairDriver, TextsThatAreNotJson)
{
    for (const std::string text : {" ",
                                   " \n\t\r ",
                                   "{",
                                   "}",
                                   "[",
                                   "{]",
                                   R"({"te_use":0,"te_no":1)",
                                   R"({"te_use":0,"te_no":})",
                                   R"({"te_use":0,"te_no":1,})",
                                   R"({"te_use":0 "te_no":1})",
                                   R"({"te_use" 0,"te_no":1})",
                                   R"({te_use:0,"te_no":1})",
                                   R"({'te_use':0,"te_no":1})",
                                   R"({"te_use":0,"te_no":1,5})",
                                   R"({"te_use":0,"te_no":1,"x":[1,]})",
                                   R"({"te_use":0,"te_no":1,"x":[1 2]})",
                                   R"({"te_use":0,"te_no":1,"x":tru})",
                                   R"({"te_use":0,"te_no":1,"x":"open})",
                                   R"({"te_use":0,"te_no":1,"x":"\q"})",
                                   R"({"te_use":0,"te_no":1,"x":"\u12"})",
                                   R"({"te_use":0,"te_no":1,"x":"\ud800"})",
                                   R"({"te_use":0,"te_no":1,"x":"\udc00"})",
                                   "// free\n{\"te_use\":0,\"te_no\":1}",
                                   "text",
                                   "nul",
                                   "\"open",
                                   ",",
                                   "\xff",
                                   "\xef\xbb\xbf"})
        expect_invalid(text);
    const std::string mark = "\xef\xbb\xbf";
    expect_invalid(mark + mark + document);
    expect_invalid(std::string("\xff\xfe{\0}\0", 6)); // 16-bit text
}

TEST_F(RepairDriver, DocumentsThatAreNoObjects)
{
    for (const std::string &text :
         {std::string("[]"), std::string("[0,1]"), "[" + document + "]", std::string("17"),
          std::string("-1.5"), std::string("\"te_use\""), std::string("null"), std::string("true"),
          std::string("{}"), R"({"x":)" + document + "}"}) {
        SCOPED_TRACE(text);
        expect_refused(text, {error("parse te_use failed")});
    }
}

TEST_F(RepairDriver, TextBehindTheDocumentIsNotRead)
{
    for (const std::string &rest :
         {std::string("\n"), std::string("}"), std::string("garbage"), std::string("]]\"\\"),
          std::string(R"({"te_use":0,"te_no":3})"), std::string(500, '9')})
        expect_same(document + rest);
}

TEST_F(RepairDriver, TextEndsAtAZeroByte)
{
    const std::string zero(1, '\0');
    expect_same(document + zero + "{");
    expect_invalid("{" + zero + members + "}");
    expect_invalid("{" + members + zero + "}");
    expect_invalid("{\"x\":\"" + zero + "\"," + members + "}");
    expect_invalid(zero + document);
}

TEST_F(RepairDriver, ByteOrderMarkIsSkipped) { expect_same("\xef\xbb\xbf" + document); }

TEST_F(RepairDriver, InvalidUtf8InStringsIsKept)
{
    expect_same("{\"x\":\"\xff\xfe\xc0\x80\xed\xa0\x80\",\"\x80\":1," + members + "}");
}

TEST_F(RepairDriver, BlanksAroundEveryToken)
{
    expect_same(" \t\r\n{ \"te_use\" \n:\t0\r\n , \"te_no\":1 }\n\n");
}

TEST_F(RepairDriver, FirstOfSeveralKeysWins)
{
    expect_same(R"({"te_no":1,"te_use":0,"te_no":2,"te_use":1})");
    expect_same(R"({"te_no":1,"te_use":0,"te_no":"text"})");
    expect_refused(R"({"te_use":0,"te_no":"text","te_no":1})",
                   {debug_line(table.parser, "te_use: 0"), error("parse te_no failed")});
}

TEST_F(RepairDriver, KeysMatchInAnyCase)
{
    expect_same(R"({"TE_USE":0,"Te_No":1})");
    expect_same(R"({"TE_NO":1,"te_use":0,"te_no":2})");
    expect_same(R"({"te\u005fuse":0,"\u0054e_no":1})"); // escaped in the text only
    for (const std::string key : {"te_use ", " te_use", "te-use", "te_us", ""})
        expect_refused("{\"" + key + R"(":0,"te_no":1})", {error("parse te_use failed")});
}

TEST_F(RepairDriver, NumbersWithManyDigits)
{
    for (const std::size_t digits : {64U, 500U, 100'000U}) {
        SCOPED_TRACE(digits);
        expect_same("{\"x\":0." + std::string(digits, '7') + "," + members + "}");
        expect_same("{\"x\":" + std::string(digits, '7') + "," + members + "}");
        // Out of range, like every number of 2^64 and above.
        const ExtentV1 beyond{.no = 0x8000'0000'0000'0000};
        expect_entry_or_bounds_error("{\"te_use\":0,\"te_no\":" + std::string(digits, '7') + "}",
                                     beyond);
    }
}

TEST_F(RepairDriver, Nesting)
{
    for (const std::size_t depth : {1U, 100U, 500U})
        expect_same("{\"x\":" + nested_arrays(depth) + "," + members + "}");
    for (const std::size_t depth : {5'000U, 1'000'000U}) {
        SCOPED_TRACE(depth);
        expect_invalid(std::string(depth, '['));
        expect_invalid(nested_arrays(depth));
        expect_invalid("{\"x\":" + nested_arrays(depth) + "," + members + "}");
        expect_invalid(repeated("{\"x\":", depth) + "0" + std::string(depth, '}'));
    }
}

TEST_F(RepairDriver, LargeFileOfBrackets) { expect_invalid(std::string(64 * MIB, '[')); }

TEST_F(RepairDriver, LargeFileOfNumbersAndText)
{
    expect_same("{\"x\":[" + repeated("[1,{\"te_no\":2}],", 100'000) + "3]," + members + "}");
    expect_same("{\"x\":\"" + repeated(R"(\"\\text )", 500'000) + "\"," + members + "}");
    expect_same(std::string(4 * MIB, ' ') + document + std::string(4 * MIB, '{'));
}

TEST_F(RepairDriver, EntryNumberAndFilterOfTheCommandLinePlayNoPart)
{
    const std::vector<std::uint8_t> before = device.bytes();
    const LoggedRun run = repair(document, {"-n", "4", "-g", "use=1,owner=3,error=1", "-F"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, repaired(entry, run.out).json);
    EXPECT_EQ(device.bytes(), before);
}

TEST_F(RepairDriver, OutputThatCannotBeWrittenIsAnErrorBehindTheWrite)
{
    RunOptions full;
    full.stdout_path = "/dev/full";
    const auto offset = static_cast<std::uint64_t>(extent_offset(super, 1));
    device.write(offset, Block{});
    expect_run(
        repair(document, {"-y"}, full),
        {.status = 5,
         .out = "",
         .log = log_with(key_log(entry),
                         {error_line("main", text("write output failed:No space left on device, "
                                                  "the block at %lu was written",
                                                  offset))})});
    EXPECT_EQ(device.block(offset), encode(entry, super.extent_size));
}

TEST_F(RepairDriver, WriteBehindTheEndOfTheDevice)
{
    const std::int64_t offset = extent_offset(super, 1);
    device.truncate(static_cast<std::uint64_t>(offset));
    const std::vector<std::uint8_t> before = device.bytes();
    const auto loop = LoopDevice::attach(device.path());
    if (!loop)
        GTEST_SKIP() << "no loop devices";

    device.directory().write("conf.json", document);
    const LoggedRun run = run_with_log(
        device.directory(), {"-p", loop->path(), "-c", "repair_extent", "-f", conf(), "-y"});
    EXPECT_EQ(run.status, 5);
    EXPECT_EQ(run.out, json(entry, super.extent_size, offset));
    const LogLine failure = error_line(
        "zutr_repair_common", text("write meta on offset %ld failed:-1, cmd:12, dev:%s, conf:%s",
                                   offset, loop->path().c_str(), conf().c_str()));
    EXPECT_EQ(run.log.back(), failure);
    EXPECT_EQ(run.errors, Log{failure});
    EXPECT_EQ(device.bytes(), before);
}

} // namespace
