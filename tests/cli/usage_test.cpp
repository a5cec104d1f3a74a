// The usage text and what asks for it.

#include "expect.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

constexpr std::string_view USAGE = R"(usage: %s -p <path> -c <command> [options]
--help        | -h show help info
--cmd         | -c sub command. dump|repair
--path        | -p tcache device path, such as /dev/xxx/xxx-tcache
--no          | -n number of repair info
--repair_conf | -f json file with the repairing meta info
--version     | -v tier version, only use in super-block repair
--output      | -o output file for dump command
--filter      | -g filter for dump command, such as -g 'use=1'
--log-file    | -l log file
--debug       | -D enable debug mode

'dump' command(s): -c [dump_super|dump_brick|dump_inode|dump_extent|dump_shard|dump_hot] [-n no|-g filter] [-o file]

  'filter' option minimized the dump output when [-n no] not specified, support filter key(s) are:
    use=[0|1]; filter used or not used meta, default action is dump all of them
    owner=no; filter meta by its parent, such as filter 'inode' by brick no
    id=str; filter meta by 'id' string, such as gfid or brickid
    error=[0|1]; filter meta by dump state. 'error=1' means only dump the meta which read error or check error

Examples:
%s -p /dev/xxx -c dump_super
%s -p /dev/xxx -c dump_brick  [-n b_no  | -g 'id=brickid'] [-o file]
%s -p /dev/xxx -c dump_inode  [-n i_no  | -g 'owner=b_no'] [-o file]
%s -p /dev/xxx -c dump_extent [-n te_no | -g 'use=1']      [-o file]

'repair' command(s): -c [repair_super|convert_super|repair_brick|repair_inode|repair_extent] [-v tier_ver] [-f conf] [-y]
Examples:
%s -p /dev/xxx -c repair_super -v 2 -f xxxx.json [-y]
%s -p /dev/xxx -c repair_brick -f xxxx.json [-y]
)";

std::string usage()
{
    std::string result(USAGE);
    const std::string program = ZU_TIER;
    for (std::size_t at = 0; (at = result.find("%s", at)) != std::string::npos;
         at += program.size())
        result.replace(at, 2, program);
    return result;
}

TEST(Usage, IsPrintedWithStatusZero)
{
    const std::vector<std::vector<std::string>> command_lines{
        {},
        {"-h"},
        {"--help"},
        {"-p", "/nonexistent", "-c", "dump_super", "-h"},
        {"-h", "-c", "no_such_command"}, // what follows -h is not read
        {"-D", "-F", "-y", "-h"},
    };
    for (const auto &args : command_lines) {
        SCOPED_TRACE(testing::PrintToString(args));
        const RunResult run = run_tool(args);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out, usage());
        EXPECT_EQ(run.err, "");
    }
}

TEST(Usage, LeavesTheLogEmpty)
{
    const TempDir directory;
    expect_run(run_with_log(directory, {"-h"}), {.status = 0, .out = usage(), .log = {}});
}

} // namespace
