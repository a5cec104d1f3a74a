// The expansion area in the line of a dumped V2 super block.

#include "expect.h"
#include "probe_log.h"
#include "v2_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

TEST(SuperV2Dump, ExpansionInodesAreCountedByTheArea)
{
    struct Case {
        std::uint8_t area;
        std::string count;
    };
    for (const Case &each : {Case{0, "0"}, Case{1, "25600"}, Case{6, "153600"}, Case{7, "179200"},
                             Case{255, "6528000"}}) {
        SCOPED_TRACE(each.count);
        SuperV2 sb = super_v2(1, 1, 1);
        sb.exp_magic = 0x4558;
        sb.exp_area = each.area;
        sb.exp_inuse = 0x53;
        const Device device = make_v2_device(sb, {}, {}, {}, Expansion::SPARSE);
        const LoggedRun run = run_logged(device, "dump_super");
        expect_run(run, {.status = 0, .out = json(sb), .log = probe_log(device, "dump_super", 2)});
        EXPECT_NE(run.out.find("\"exp_inode_magic\":\"0x4558\",\"exp_inode_cnt\":" + each.count +
                               ",\"exp_inode_inuse\":\"0x53\","),
                  std::string::npos)
            << run.out;
    }
}

// The area is shown as it is stored, whatever the magic says.
TEST(SuperV2Dump, ExpansionFieldsNeedNoMagic)
{
    SuperV2 sb = super_v2(1, 1, 1);
    sb.exp_magic = 0x4559;
    sb.exp_area = 2;
    sb.exp_inuse = 0x54;
    const Device device = make_v2_device(sb);
    EXPECT_EQ(run_logged(device, "dump_super").out, json(sb));
}

} // namespace
