#include "zu_tier/front/zu_tier.h"

void zutr_usage(int /*argc*/, char *const argv[])
{
    const char *prog = argv[0];
    printf("usage: %s -p <path> -c <command> [options]\n", prog);
    printf("--help        | -h show help info\n");
    printf("--cmd         | -c sub command. dump|repair\n");
    printf("--path        | -p tcache device path, such as /dev/xxx/xxx-tcache\n");
    printf("--no          | -n number of repair info\n");
    printf("--repair_conf | -f json file with the repairing meta info\n");
    printf("--version     | -v tier version, only use in super-block repair\n");
    printf("--output      | -o output file for dump command\n");
    printf("--filter      | -g filter for dump command, such as -g 'use=1'\n");
    printf("--log-file    | -l log file\n");
    printf("--debug       | -D enable debug mode\n");
    printf("\n");
    printf(
        "'dump' command(s): -c [dump_super|dump_brick|dump_inode|dump_extent|dump_shard|dump_hot] "
        "[-n no|-g filter] [-o file]\n");
    printf("\n");
    printf("  'filter' option minimized the dump output when [-n no] not specified, support filter "
           "key(s) are:\n");
    printf("    use=[0|1]; filter used or not used meta, default action is dump all of them\n");
    printf("    owner=no; filter meta by its parent, such as filter 'inode' by brick no\n");
    printf("    id=str; filter meta by 'id' string, such as gfid or brickid\n");
    printf("    error=[0|1]; filter meta by dump state. 'error=1' means only dump the meta which "
           "read error or check error\n");
    printf("\n");
    printf("Examples:\n");
    printf("%s -p /dev/xxx -c dump_super\n", prog);
    printf("%s -p /dev/xxx -c dump_brick  [-n b_no  | -g 'id=brickid'] [-o file]\n", prog);
    printf("%s -p /dev/xxx -c dump_inode  [-n i_no  | -g 'owner=b_no'] [-o file]\n", prog);
    printf("%s -p /dev/xxx -c dump_extent [-n te_no | -g 'use=1']      [-o file]\n", prog);
    printf("\n");
    printf("'repair' command(s): -c "
           "[repair_super|convert_super|repair_brick|repair_inode|repair_extent] [-v tier_ver] "
           "[-f conf] [-y]\n");
    printf("Examples:\n");
    printf("%s -p /dev/xxx -c repair_super -v 2 -f xxxx.json [-y]\n", prog);
    printf("%s -p /dev/xxx -c repair_brick -f xxxx.json [-y]\n", prog);
}
