#pragma once

#include <cstdint>
#include <cstdio>

/* What a run is asked for: its command and parameters. */

enum zutr_cmd_t : int32_t {
    ZUTR_CMD_UNKNOWN = -1,
    ZUTR_CMD_DUMP_SUPER = 0,
    ZUTR_CMD_DUMP_BRICK,
    ZUTR_CMD_DUMP_INODE,
    ZUTR_CMD_DUMP_EXTENT,
    ZUTR_CMD_DUMP_SHARD,
    ZUTR_CMD_DUMP_HOT_TABLE,
    ZUTR_CMD_RESTORE_BRICK,
    ZUTR_CMD_RESTORE_INODE,
    ZUTR_CMD_RESTORE_EXTENT,
    ZUTR_CMD_REPAIR_SUPER,
    ZUTR_CMD_REPAIR_BRICK,
    ZUTR_CMD_REPAIR_INODE,
    ZUTR_CMD_REPAIR_EXTENT,
    ZUTR_CMD_REPAIR_SHARD,
    ZUTR_CMD_REPAIR_HOT_TABLE,
    ZUTR_CMD_CONVERT_SUPER,
    ZUTR_CMD_MAXVALUE,
};

constexpr bool ZUTR_CMD_VALID(int32_t cmd) { return cmd >= 0 && cmd < ZUTR_CMD_MAXVALUE; }

/* Which entries a dump shows. */
struct zutr_filter_t {
    int32_t use;    /* 1: in use, 0: not in use, negative: both */
    int32_t owner;  /* number of the parent, negative: any */
    int32_t error;  /* 1: error records only, 0: no error records, else: everything */
    const char *id; /* identifier text, null: any; points into the argument vector */
};

struct zutr_params_t {
    const char *dev_path;
    int32_t fd; /* the open device, -1 when not open */
    zutr_cmd_t cmd;
    void *sb;         /* 4096 aligned bytes from device offset 4096; null with a forced version */
    int32_t spec_ver; /* forced layout version, 0: ask the super block */
    int32_t base_no;  /* entry number of the first block of the region being dumped */
    int32_t meta_no;  /* entry number, negative: all entries */
    const char *repair_conf;
    const char *out_path;
    FILE *out_fp;
    zutr_filter_t filter;
    int32_t force;
    int32_t commit;
    int64_t written; /* device offset of the block that a repair has written, negative: none */
};

/* A command of one layout: 0 or a negative errno. */
using zutr_cmd_func_t = int32_t (*)(zutr_params_t *params);

/* A layout's test of a super block: 0, or -EFAULT when it is not one of that layout. */
using zutr_super_check_t = int32_t (*)(const void *sb);
