#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

/* What the front end, the drivers and the layouts share: commands, run parameters, registry. */

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

constexpr bool ZUTR_CMD_VALID(int32_t cmd)
{
    return cmd >= 0 && cmd < ZUTR_CMD_MAXVALUE;
}

enum zutr_ver_code_t : int32_t {
    ZUTR_VER_CODE_NONE = 0,
    ZUTR_VER_CODE_V1 = 1,
    ZUTR_VER_CODE_V2 = 2,
    ZUTR_VER_CODE_V3 = 3,
    ZUTR_VER_CODE_MAX = 4,
};

constexpr bool ZUTR_VER_VALID(int32_t ver)
{
    return ver > ZUTR_VER_CODE_NONE && ver < ZUTR_VER_CODE_MAX;
}

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
};

/* A command of one layout: 0 or a negative errno. */
using zutr_cmd_func_t = int32_t (*)(zutr_params_t *params);

/* Puts a layout's handler for `cmd`, or null, into `*func`, and gives 0; gives a negative errno
 * when `sb`, unless null, is not a super block of that layout. */
using zutr_func_selector_t = int32_t (*)(int32_t cmd, const void *sb, zutr_cmd_func_t *func);

/* A layout's handlers, indexed by zutr_cmd_t; null where the layout does not offer the command. */
using zutr_cmd_map_t = std::array<zutr_cmd_func_t, ZUTR_CMD_MAXVALUE>;

/* A layout's test of a super block: 0, or -EFAULT when it is not one of that layout. */
using zutr_super_check_t = int32_t (*)(const void *sb);

/* What every selector does: tests `sb`, unless null, and hands out the handler. */
int32_t zutr_select(zutr_super_check_t check, const zutr_cmd_map_t &map, int32_t cmd,
                    const void *sb, zutr_cmd_func_t *func);

/* Registers the selector of a layout version, once, before main. */
void zutr_func_register(int32_t ver, zutr_func_selector_t selector);

/* The registered selector of `ver`, or null; any number may be asked for. */
zutr_func_selector_t zutr_get_selector(int32_t ver);

/* Command names, indexed by zutr_cmd_t; null where the command line has no name for a command. */
extern const char *const s_command_name[ZUTR_CMD_MAXVALUE];

/* The command of that exact name, or ZUTR_CMD_UNKNOWN. */
zutr_cmd_t zutr_command_parse(const char *name);

/* Adds the "key=value" pairs of `str`, separated by ",", to `filter`; `str` is cut up in place and
 * must outlive the filter. Never returns when a pair holds nothing but "=" characters. */
void zutr_filter_parse(zutr_filter_t *filter, char *str);

/* Prints the usage text to standard output. */
void zutr_usage(int argc, char *const argv[]);

void zutr_params_init(zutr_params_t *params);

/* Releases the device, the output file and the super block; harmless when repeated. */
void zutr_params_fini(zutr_params_t *params);

/* Fills `params` from the command line and opens what it names: 0, 1 when only the usage text was
 * printed, or a negative errno. */
int32_t zutr_prepare_param(int argc, char *argv[], zutr_params_t *params);

/* One whole run of the tool; gives the exit status. */
int zutr_run(int argc, char *argv[]);
