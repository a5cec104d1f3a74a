#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/record/log.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *FUNC = "zutr_prepare_param";

/* The super block lies in the second block of the device. */
constexpr int64_t SUPER_OFFSET = SIZE_4K;

constexpr const char *SHORT_OPTIONS = "hFDc:p:n:f:v:o:g:yl:";

/* "commit" takes an argument although "-y" takes none, so it is not given by accident. */
constexpr std::array<option, 13> longopts = {{
    {"help", no_argument, nullptr, 'h'},
    {"force", no_argument, nullptr, 'F'},
    {"debug", no_argument, nullptr, 'D'},
    {"cmd", required_argument, nullptr, 'c'},
    {"path", required_argument, nullptr, 'p'},
    {"no", required_argument, nullptr, 'n'},
    {"repair_conf", required_argument, nullptr, 'f'},
    {"version", required_argument, nullptr, 'v'},
    {"output", required_argument, nullptr, 'o'},
    {"filter", required_argument, nullptr, 'g'},
    {"commit", required_argument, nullptr, 'y'},
    {"log-file", required_argument, nullptr, 'l'},
    {nullptr, 0, nullptr, 0},
}};

constexpr int32_t USAGE_PRINTED = 1;

int32_t parse_int32(const char *text) { return static_cast<int32_t>(strtoul(text, nullptr, 0)); }

/* Whether both are the same file or the same volume. */
bool is_same(const struct stat &one, const struct stat &other)
{
    const bool same_file = one.st_dev == other.st_dev && one.st_ino == other.st_ino;
    const bool same_volume =
        S_ISBLK(one.st_mode) && S_ISBLK(other.st_mode) && one.st_rdev == other.st_rdev;
    return same_file || same_volume;
}

bool is_same_path(const char *one, const char *other)
{
    struct stat first = {};
    struct stat second = {};
    return stat(one, &first) == 0 && stat(other, &second) == 0 && is_same(first, second);
}

/* A log must never be written to the device, nor made in place of one that is missing. */
bool open_log(const char *path, const char *device)
{
    if (device != nullptr && (strcmp(path, device) == 0 || is_same_path(path, device))) {
        errno = EBUSY;
        return false;
    }
    return zutr_set_log_file(path);
}

/* Takes one option of a command line that names `device`; 0, USAGE_PRINTED or a negative errno. */
int32_t apply_option(int option_char, int argc, char *argv[], const char *device,
                     zutr_params_t *params)
{
    switch (option_char) {
    case 'h':
        zutr_usage(argc, argv);
        return USAGE_PRINTED;
    case 'F':
        params->force = 1;
        return 0;
    case 'D':
        zutr_set_debug_mode();
        return 0;
    case 'c':
        params->cmd = zutr_command_parse(optarg);
        if (params->cmd == ZUTR_CMD_UNKNOWN) {
            zutr_error(FUNC, "unkown cmd <%s>. <%s -h> for help", optarg, argv[0]);
            return -EINVAL;
        }
        return 0;
    case 'p':
        params->dev_path = optarg;
        return 0;
    case 'n':
        params->meta_no = parse_int32(optarg);
        return 0;
    case 'f':
        params->repair_conf = optarg;
        return 0;
    case 'v':
        params->spec_ver = parse_int32(optarg);
        return 0;
    case 'o':
        params->out_path = optarg;
        return 0;
    case 'g':
        zutr_filter_parse(&params->filter, optarg);
        return 0;
    case 'y':
        params->commit = 1;
        return 0;
    case 'l':
        if (!open_log(optarg, device)) {
            zutr_error(FUNC, "cannot open log file %s, error:%s", optarg, strerror(errno));
            return -EINVAL;
        }
        return 0;
    default:
        zutr_error(FUNC, "unrecognize option '-%c'. <%s -h> for help", option_char, argv[0]);
        return -EINVAL;
    }
}

/* The device that the command line names, wherever its option stands; null: none. */
const char *find_device(int argc, char *argv[])
{
    const char *path = nullptr;
    int option_char = 0;
    optind = 0; /* start over, so that one process may parse several command lines */
    opterr = 0; /* the next reading complains */
    while ((option_char = getopt_long(argc, argv, SHORT_OPTIONS, longopts.data(), nullptr)) != -1) {
        path = option_char == 'p' ? optarg : path;
    }
    optind = 0;
    opterr = 1;
    return path;
}

int32_t read_options(int argc, char *argv[], zutr_params_t *params)
{
    const char *device = find_device(argc, argv);
    int32_t ret = 0;
    int option_char = 0;
    while (ret == 0 &&
           (option_char = getopt_long(argc, argv, SHORT_OPTIONS, longopts.data(), nullptr)) != -1) {
        ret = apply_option(option_char, argc, argv, device, params);
    }
    return ret;
}

int32_t open_device(zutr_params_t *params)
{
    params->fd = open(params->dev_path, (params->commit != 0 ? O_RDWR : O_RDONLY) | O_DIRECT);
    if (params->fd < 0) {
        zutr_error(FUNC, "open %s failed. errno: %s", params->dev_path, strerror(errno));
        return -EIO;
    }
    return 0;
}

/* A forced version needs no super block: it may be what has to be repaired. */
int32_t read_super(zutr_params_t *params)
{
    if (params->spec_ver != 0) {
        return 0;
    }
    const ssize_t got = zutr_readn_ex(params->fd, &params->sb, SIZE_4K, SUPER_OFFSET);
    if (got != SIZE_4K) {
        zutr_error(FUNC, "read super failed. path:%s, ret: %d, errno: %s", params->dev_path,
                   static_cast<int32_t>(got), strerror(errno));
        return -EIO;
    }
    return 0;
}

/* Whether `path` names the open device `fd`, which an output must never overwrite. */
bool is_device(int32_t fd, const char *path)
{
    struct stat device = {};
    struct stat output = {};
    return fstat(fd, &device) == 0 && stat(path, &output) == 0 && is_same(device, output);
}

FILE *open_output_file(int32_t fd, const char *path)
{
    if (is_device(fd, path)) {
        errno = EBUSY;
        return nullptr;
    }
    return fopen(path, "w");
}

int32_t open_output(zutr_params_t *params)
{
    params->out_fp =
        params->out_path != nullptr ? open_output_file(params->fd, params->out_path) : stdout;
    if (params->out_fp == nullptr) {
        zutr_error(FUNC, "open path %s failed:%s", params->out_path, strerror(errno));
        return -EINVAL;
    }
    return 0;
}

int32_t open_all(zutr_params_t *params)
{
    int32_t ret = open_device(params);
    if (ret == 0) {
        ret = read_super(params);
    }
    if (ret == 0) {
        ret = open_output(params);
    }
    return ret;
}

} // namespace

const char *const s_command_name[ZUTR_CMD_MAXVALUE] = {
    "dump_super",    "dump_brick",   "dump_inode", "dump_extent",   "dump_shard",   "dump_hot",
    nullptr,         nullptr,        nullptr,      "repair_super",  "repair_brick", "repair_inode",
    "repair_extent", "repair_shard", "repair_hot", "convert_super",
};

zutr_cmd_t zutr_command_parse(const char *name)
{
    for (int32_t cmd = 0; cmd < ZUTR_CMD_MAXVALUE; cmd++) {
        if (s_command_name[cmd] != nullptr && strcmp(s_command_name[cmd], name) == 0) {
            return static_cast<zutr_cmd_t>(cmd);
        }
    }
    return ZUTR_CMD_UNKNOWN;
}

void zutr_filter_parse(zutr_filter_t *filter, char *str)
{
    zutr_assert(filter != nullptr && str != nullptr, "f && str");
    char *next_pair = nullptr;
    char *pair = strtok_r(str, ",", &next_pair);
    while (pair != nullptr) {
        char *rest = nullptr;
        const char *key = strtok_r(pair, "=", &rest);
        if (key == nullptr) { /* GCOVR_EXCL_BR_LINE: see below */
            continue;         /* GCOVR_EXCL_LINE: endless, and a kill loses the counts */
        }
        const char *text = strtok_r(nullptr, "", &rest); /* all of it: a path may hold one */
        const char *value = text != nullptr ? text + strspn(text, "=") : "";
        if (strcmp(key, "use") == 0) {
            filter->use = parse_int32(value);
        } else if (strcmp(key, "owner") == 0) {
            filter->owner = parse_int32(value);
        } else if (strcmp(key, "id") == 0) {
            filter->id = value;
        } else if (strcmp(key, "error") == 0) {
            filter->error = parse_int32(value);
        }
        pair = strtok_r(nullptr, ",", &next_pair);
    }
}

void zutr_params_init(zutr_params_t *params)
{
    zutr_assert(params != nullptr, "params");
    *params = {};
    params->fd = -1;
    params->cmd = ZUTR_CMD_UNKNOWN;
    params->meta_no = -1;
    params->written = -1;
    params->filter.owner = -1;
    params->filter.use = -1;
    params->filter.error = -1;
}

void zutr_params_fini(zutr_params_t *params)
{
    zutr_assert(params != nullptr, "params");
    if (params->fd >= 0) {
        close(params->fd);
        params->fd = -1;
    }
    if (params->out_path != nullptr && params->out_fp != nullptr) {
        fclose(params->out_fp);
        params->out_fp = nullptr;
    }
    free(params->sb);
    params->sb = nullptr;
}

int32_t zutr_prepare_param(int argc, char *argv[], zutr_params_t *params)
{
    zutr_assert(params != nullptr, "params");
    zutr_params_init(params);
    if (argc < 2) {
        zutr_usage(argc, argv);
        return USAGE_PRINTED;
    }
    int32_t ret = read_options(argc, argv, params);
    if (ret != 0) {
        return ret;
    }
    if (params->cmd == ZUTR_CMD_UNKNOWN || params->dev_path == nullptr) {
        zutr_error(FUNC, "cmd and dev path must be specified. <%s -h> for help", argv[0]);
        return -EINVAL;
    }
    ret = open_all(params);
    if (ret != 0) {
        zutr_params_fini(params);
        return ret;
    }
    const zutr_filter_t &filter = params->filter;
    zutr_debug(FUNC,
               "dev:%s, cmd:%s, spec_ver:%d, meta_no:%d repair_conf:%s, out_path:%s, "
               "filter: use=%d, error=%d, owner_no=%d, id=%s",
               params->dev_path, s_command_name[params->cmd], params->spec_ver, params->meta_no,
               params->repair_conf, params->out_path, filter.use, filter.error, filter.owner,
               filter.id != nullptr ? filter.id : "");
    return 0;
}
