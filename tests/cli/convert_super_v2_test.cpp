// convert_super: how the description of an older super block is converted, and what is refused.

#include "conversion.h"

using namespace tier_test;

namespace {

class ConvertSuperV2 : public SuperConversion {
protected:
    // What a conversion that finds its count at once says.
    Log found_at_once() const { return {probe_read(table()), map_cnt_found(super.map_cnt)}; }

    void expect_converted(const std::string &document, const SuperV2 &result, const Log &log,
                          const std::vector<std::string> &args = {})
    {
        expect_conversion(document, {.status = 0, .out = json(result), .log = log}, args);
    }

    LogLine parse_failure(const std::string &key) const
    {
        return error_line("parse_sb_from_json_v2", "parse " + key + " failed");
    }

    LogLine load_failure(const std::string &path, const std::string &reason) const
    {
        return error_line("zutr_convert_super_v2",
                          text("load repair conf %s failed:%s", path.c_str(), reason.c_str()));
    }
};

TEST_F(ConvertSuperV2, OlderSuperBlockOfEveryBlockSize)
{
    const std::vector<SuperV2> caches{
        cache(262144, 16384),       // 16 records
        cache(266240, 16384),       // 17, the last one not whole
        cache(524288, 16384),       // 32
        cache(1044480, 16384),      // 64, the last one not whole
        cache(1048576, 32768),      // 32
        cache(1048576, 32768, 300), // extents after the probed ones
        cache(1081344, 32768),      // 33
        cache(2097152, 32768),      // 64
        cache(4194304, 65536),      // 64
    };
    for (const SuperV2 &sb : caches) {
        SCOPED_TRACE(text("%u, %u blocks", sb.block_size, sb.block_cnt));
        set_cache(sb);
        expect_converted(old_file(sb).text(), sb, log_with(sb, found_at_once()));
    }
}

// The tool's own two lines: the dump of an older device is converted, and what comes out is
// written by a repair.
TEST_F(ConvertSuperV2, DumpedLineIsConvertedAndWritten)
{
    SuperV1 old;
    static_cast<SuperHead &>(old) = super;
    old.version = 0x10000;
    old.reserved = 0xFFFFFFFF;
    device.write(SUPER_OFFSET, encode(old));
    const LoggedRun dump = run_logged(device, "dump_super");
    ASSERT_EQ(dump.out, json(old));

    expect_converted(dump.out, super, log_with(super, found_at_once()));
    const std::string line = convert(dump.out).out;
    EXPECT_EQ(line.find("sb_reserved"), std::string::npos);
    EXPECT_NE(line.find("\"version\":\"0x20000\""), std::string::npos);
    EXPECT_NE(line.find("\"map_cnt\":16,\"size_mapped_meta\":16,\"hot_size\":64,"
                        "\"total_extent_size\":392"), // 72 + 16 × 16 + 64
              std::string::npos);

    const LoggedRun repair = run_logged(device, "repair_super", arguments(line, {"-y"}));
    EXPECT_EQ(repair.status, 0) << repair;
    EXPECT_EQ(device.block(SUPER_OFFSET), encode(super));
    EXPECT_EQ(run_logged(device, "dump_super").out, line);
}

TEST_F(ConvertSuperV2, OlderDeviceHasNoConversionOfItsOwn)
{
    device.write(SUPER_OFFSET, encode(super_v1(1, 1, 1)));
    device.directory().write("conf.json", old_file(super).text());
    const LoggedRun run = run_logged(device, "convert_super", {"-f", conf()});
    EXPECT_EQ(run.status, 22);
    EXPECT_EQ(run.errors, Log{error_line("main", "version V1 not support cmd:convert_super")});
}

TEST_F(ConvertSuperV2, V2DeviceNeedsNoForcedVersion)
{
    device.directory().write("conf.json", old_file(super).text());
    const LoggedRun run = run_logged(device, "convert_super", {"-f", conf()});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, json(super));
}

TEST_F(ConvertSuperV2, MapKeysOfTheFileAreNotRead)
{
    RepairFile file = old_file(super);
    for (const char *name : {"min_alloc_size", "total_map_size", "map_cnt", "size_mapped_meta",
                             "hot_size", "total_extent_size", "sb_reserved", "magic", "checksum"})
        file.set(name, "\"anything\"");
    expect_converted(file.text(), super, log_with(super, found_at_once()));
}

TEST_F(ConvertSuperV2, LineGoesToStandardOutputAndNotToTheOutputFile)
{
    const std::string out = device.directory().path("out");
    EXPECT_EQ(convert(old_file(super).text(), {"-o", out}).out, json(super));
    EXPECT_EQ(read_file(out), "");
}

TEST_F(ConvertSuperV2, DescriptionOfV2IsCheckedAndPrintedAgain)
{
    SuperV2 sb = super_v2(2, 3, 4); // unlike anything on the device
    Log log{settings_line(device, "convert_super", {.spec_ver = 2, .repair_conf = conf()})};
    const Log key_lines = key_log(sb);
    log.insert(log.end(), key_lines.begin(), key_lines.end());
    expect_converted(repair_file(sb).text(), sb, log);

    Log refused = log;
    refused.resize(1 + 14);
    refused.push_back(parse_failure("min_alloc_size"));
    refused.push_back(rejected());
    expect_conversion(repair_file(sb).erase("min_alloc_size").text(),
                      {.status = 22, .out = "", .log = refused});

    sb.data_offset += 1;
    const LoggedRun run = convert(repair_file(sb).text());
    EXPECT_EQ(run.status, 22);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.errors, (Log{error_line("__check_sb_params_v2",
                                          text("data offset(%lu) is invalid. expect:%lu",
                                               sb.data_offset, sb.data_offset - 1)),
                               rejected()}));
    EXPECT_EQ(convert(repair_file(sb).text(), {"-F"}).out, json(sb));
}

TEST_F(ConvertSuperV2, OtherVersionsAbort)
{
    const std::vector<std::uint8_t> before = device.bytes();
    for (const char *given : {"0x30000", "0x10001", "", "none"})
        for (const char *force : {"-y", "-F"})
            expect_abort(convert(old_file(super).string("version", given).text(), {force}),
                         "sb->sb_version == TIER_OLD_VERSION");
    EXPECT_EQ(device.bytes(), before);
}

TEST_F(ConvertSuperV2, KeysOfTheHeadAreRequired)
{
    const auto keys = json_members(old_file(super).text());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        const std::string &key = keys[i].first;
        SCOPED_TRACE(key);
        Log log = log_with(super, {});
        log.resize(1 + i);
        log.push_back(parse_failure(key));
        log.push_back(rejected());
        expect_conversion(old_file(super).erase(key).text(), {.status = 22, .out = "", .log = log});
    }
}

TEST_F(ConvertSuperV2, GeometryIsCheckedAfterTheConversion)
{
    SuperV2 sb = super;
    sb.brick_cnt = 0;
    Log lines = found_at_once();
    lines.push_back(error_line("__check_sb_params_v2",
                               text("brick params is invalid. brick_cnt:0, brick_table_size:%lu, "
                                    "expect brick_cnt:[1-300]",
                                    sb.brick_table_size)));
    lines.push_back(rejected());
    expect_conversion(old_file(sb).text(), {.status = 22, .out = "", .log = log_with(sb, lines)});
    expect_converted(old_file(sb).text(), sb, log_with(sb, found_at_once()), {"-F"});
}

TEST_F(ConvertSuperV2, ExpansionAreaIsTakenOver)
{
    SuperV2 sb = super;
    set_expansion(sb, 153600, true);
    const std::string document = old_file(sb).text();
    const LoggedRun unformatted = convert(document);
    EXPECT_EQ(unformatted.status, 22);
    ASSERT_EQ(unformatted.errors.size(), 4U) << unformatted;
    EXPECT_EQ(unformatted.errors[2],
              error_line("parse_sb_from_json_v2", "repair super exp inode failed, cmd: 15"));

    for (const std::uint32_t slot : {0U, 153599U}) {
        const auto offset = static_cast<std::uint64_t>(expansion_offset(sb, slot));
        device.truncate(offset + BLOCK_SIZE);
        device.write(offset, encode(inode_v2(sb.inode_cnt + slot)));
    }
    Log lines;
    for (const char *key :
         {"exp_inode_cnt: 153600", "exp_inode_magic: 0x4558", "exp_inode_inuse: 0x53"})
        lines.push_back(debug_line("__repair_super_exp_inode", key));
    std::ranges::copy(found_at_once(), std::back_inserter(lines));
    expect_run(convert(document), {.status = 0, .out = json(sb), .log = log_with(sb, lines)});
}

TEST_F(ConvertSuperV2, FileThatIsNotThereAborts)
{
    const std::string path = device.directory().path("missing");
    const LoggedRun run = run_logged(device, "convert_super", {"-v", "2", "-f", path});
    expect_abort(run, "ret == 0 || ret == -EIO || ret == -EINVAL || ret == -ENOMEM || "
                      "ret == -EFAULT");
    ASSERT_GE(run.errors.size(), 1U);
    EXPECT_EQ(run.errors[0], load_failure(path, "No such file or directory"));
}

TEST_F(ConvertSuperV2, EmptyFileIsInvalid)
{
    expect_conversion(
        "", {.status = 22,
             .out = "",
             .log = {settings_line(device, "convert_super", {.spec_ver = 2, .repair_conf = conf()}),
                     load_failure(conf(), "Invalid argument")}});
}

TEST_F(ConvertSuperV2, FileThatIsNotJsonIsInvalid)
{
    for (const char *document : {" ", "{\"brick_table_size\":", "{"})
        expect_conversion(
            document,
            {.status = 22,
             .out = "",
             .log = {settings_line(device, "convert_super", {.spec_ver = 2, .repair_conf = conf()}),
                     error_line("zutr_json_load", "cJSON_Parse failed, path:" + conf()),
                     load_failure(conf(), "Invalid argument")}});
}

} // namespace
