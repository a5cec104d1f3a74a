#include "super_repair.h"

namespace tier_test {

template <class Super>
LoggedRun SuperRepair<Super>::repair(const std::string &conf_text,
                                     const std::vector<std::string> &args)
{
    device.directory().write("conf.json", conf_text);
    std::vector<std::string> all{"-f", conf()};
    all.insert(all.end(), args.begin(), args.end());
    return run_logged(device, "repair_super", all);
}

template <class Super>
Log SuperRepair<Super>::log_with(const Log &lines, const Log &rest) const
{
    Log log = probe_log(device, "repair_super", std::stoi(version), {.repair_conf = conf()}, lines);
    log.insert(log.end(), rest.begin(), rest.end());
    return log;
}

template <class Super>
LogLine SuperRepair<Super>::rejected() const
{
    return error_line("zutr_repair_common", "parse meta info failed:-22, cmd:9, dev:" +
                                                device.path() + ", conf:" + conf());
}

template <class Super>
LogLine SuperRepair<Super>::not_written() const
{
    return debug_line("zutr_repair_common",
                      "'commit' flag not set, won't write dev. cmd:9, conf:" + conf());
}

template <class Super>
Log SuperRepair<Super>::expect_accepted(const std::string &conf_text, const Super &sb,
                                        const std::vector<std::string> &args)
{
    const std::vector<std::uint8_t> before = device.bytes();
    const LoggedRun dry = repair(conf_text, args);
    EXPECT_EQ(dry.status, 0) << dry;
    EXPECT_EQ(dry.out, json(sb));
    EXPECT_EQ(dry.errors, Log{});
    EXPECT_EQ(dry.log.back(), not_written());
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

template <class Super>
void SuperRepair<Super>::expect_refused(const std::string &conf_text, const Log &log,
                                        const std::vector<std::string> &args)
{
    const std::vector<std::uint8_t> before = device.bytes();
    expect_run(repair(conf_text, args), {.status = 22, .out = "", .log = log});
    std::vector<std::string> commit = args;
    commit.emplace_back("-y");
    expect_run(repair(conf_text, commit), {.status = 22, .out = "", .log = log});
    EXPECT_EQ(device.bytes(), before);
}

template <class Super>
void SuperRepair<Super>::expect_out_of_bounds(const Super &sb, const std::string &message)
{
    expect_refused(repair_file(sb).text(),
                   log_with(key_log(sb), {error_line(checker, message), rejected()}));
}

template class SuperRepair<SuperV1>;
template class SuperRepair<SuperV2>;
template class SuperRepair<SuperV3>;

} // namespace tier_test
