#include "super_v1_repair.h"

#include <algorithm>

namespace tier_test {

namespace {

SuperKey number_key(std::string name, std::uint64_t value)
{
    return {std::move(name), std::to_string(value), std::to_string(value)};
}

SuperKey text_key(std::string name, const std::string &value, std::size_t length)
{
    return {std::move(name), json_string(value), value.substr(0, length)};
}

} // namespace

std::vector<SuperKey> super_keys(const SuperV1 &sb)
{
    return {
        number_key("brick_table_size", sb.brick_table_size),
        number_key("inode_table_size", sb.inode_table_size),
        number_key("extent_table_size", sb.extent_table_size),
        number_key("data_offset", sb.data_offset),
        text_key("ctime", text("0x%lx(%s)", sb.ctime, time_text(sb.ctime).c_str()), 18),
        text_key("uuid", uuid_text(sb.uuid), 36),
        text_key("ssd_uuid", sb.ssd_uuid, 47),
        text_key("version", text("0x%x", sb.version), 31),
        number_key("super block size", sb.size),
        number_key("brick_cnt", sb.brick_cnt),
        number_key("inode_cnt", sb.inode_cnt),
        number_key("block_size", sb.block_size),
        number_key("block_cnt", sb.block_cnt),
        number_key("extent_size", sb.extent_size),
    };
}

RepairFile repair_file(const SuperV1 &sb)
{
    RepairFile file;
    for (const SuperKey &key : super_keys(sb))
        file.set(key.name, key.value);
    return file;
}

LoggedRun SuperV1Repair::repair(const std::string &conf_text, const std::vector<std::string> &args)
{
    device.directory().write("conf.json", conf_text);
    std::vector<std::string> all{"-f", conf()};
    all.insert(all.end(), args.begin(), args.end());
    return run_logged(device, "repair_super", all);
}

Log SuperV1Repair::log_of_keys(const SuperV1 &sb, std::size_t keys, const Log &rest) const
{
    Log log{settings_line(device, "repair_super", {.repair_conf = conf()})};
    const std::vector<SuperKey> all = super_keys(sb);
    for (std::size_t i = 0; i < keys; ++i)
        log.push_back(debug_line("parse_sb_from_json_v1", all.at(i).name + ": " + all[i].logged));
    log.insert(log.end(), rest.begin(), rest.end());
    return log;
}

LogLine SuperV1Repair::rejected() const
{
    return error_line("zutr_repair_common", "parse meta info failed:-22, cmd:9, dev:" +
                                                device.path() + ", conf:" + conf());
}

Log SuperV1Repair::expect_accepted(const std::string &conf_text, const SuperV1 &sb,
                                   const std::vector<std::string> &args)
{
    const std::vector<std::uint8_t> before = device.bytes();
    const LoggedRun dry = repair(conf_text, args);
    EXPECT_EQ(dry.status, 0) << dry;
    EXPECT_EQ(dry.out, json(sb));
    EXPECT_EQ(dry.errors, Log{});
    EXPECT_EQ(dry.log.back(),
              debug_line("zutr_repair_common",
                         "'commit' flag not set, won't write dev. cmd:9, conf:" + conf()));
    EXPECT_EQ(device.bytes(), before);

    std::vector<std::string> commit = args;
    commit.emplace_back("-y");
    const LoggedRun run = repair(conf_text, commit);
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, json(sb));
    EXPECT_EQ(run.errors, Log{});
    EXPECT_EQ(run.log, Log(dry.log.begin(), dry.log.end() - 1));

    std::vector<std::uint8_t> after = before;
    put_bytes(after, SUPER_OFFSET, encode(sb));
    EXPECT_EQ(device.bytes(), after);
    device.write(0, before);
    return run.log;
}

void SuperV1Repair::expect_refused(const std::string &conf_text, const Log &log,
                                   const std::vector<std::string> &args)
{
    const std::vector<std::uint8_t> before = device.bytes();
    expect_run(repair(conf_text, args), {.status = 22, .out = "", .log = log});
    std::vector<std::string> commit = args;
    commit.emplace_back("-y");
    expect_run(repair(conf_text, commit), {.status = 22, .out = "", .log = log});
    EXPECT_EQ(device.bytes(), before);
}

} // namespace tier_test
