#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/registry.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/text.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *FUNC = "main";

int32_t unsupported_command(int32_t ver, zutr_cmd_t cmd)
{
    zutr_error(FUNC, "version V%d not support cmd:%s", ver, s_command_name[cmd]);
    return -EINVAL;
}

/* The handler of the version that the operator named, whatever the device holds. */
int32_t select_forced(const zutr_params_t &params, zutr_cmd_func_t *handler)
{
    const zutr_func_selector_t selector = zutr_get_selector(params.spec_ver);
    if (selector == nullptr) {
        zutr_error(FUNC, "version V%d is not supported", params.spec_ver);
        return -EINVAL;
    }
    /* GCOVR_EXCL_BR_START: without a super block none refuses */
    if (selector(params.cmd, params.sb, handler) != 0 || *handler == nullptr) {
        /* GCOVR_EXCL_BR_STOP */
        return unsupported_command(params.spec_ver, params.cmd);
    }
    return 0;
}

/* The handler of the first version that accepts the device's super block. */
int32_t select_probed(const zutr_params_t &params, zutr_cmd_func_t *handler)
{
    zutr_assert(params.sb != nullptr, "params.sb");
    for (int32_t ver = ZUTR_VER_CODE_NONE; ver < ZUTR_VER_CODE_MAX; ver++) {
        const zutr_func_selector_t selector = zutr_get_selector(ver);
        if (selector != nullptr && selector(params.cmd, params.sb, handler) == 0) {
            return *handler != nullptr ? 0 : unsupported_command(ver, params.cmd);
        }
    }
    zutr_error(FUNC, "super block may corrupt. path:%s", params.dev_path);
    return -EFAULT;
}

int32_t run_command(zutr_params_t *params)
{
    zutr_cmd_func_t handler = nullptr;
    const int32_t ret =
        params->spec_ver != 0 ? select_forced(*params, &handler) : select_probed(*params, &handler);
    return ret == 0 ? handler(params) : ret;
}

/* Flushes `stream`. Gives 0, or the negative errno of its first failed write. */
int32_t finish_stream(FILE *stream)
{
    if (ferror(stream) != 0) {
        /* GCOVR_EXCL_BR_START: the C library says why */
        return zutr_output_errno() != 0 ? -zutr_output_errno() : -EIO;
        /* GCOVR_EXCL_BR_STOP */
    }
    return fflush(stream) == 0 ? 0 : -errno;
}

/* A truncated dump must not look complete, nor a block that was written untouched. */
int32_t judge_output(int32_t ret, int64_t written)
{
    if (ret == 0) {
        return 0;
    }
    if (written >= 0) {
        zutr_error(FUNC, "write output failed:%s, the block at %ld was written", strerror(-ret),
                   written);
    } else {
        zutr_error(FUNC, "write output failed:%s", strerror(-ret));
    }
    return -EIO;
}

/* Flushes the outputs and closes the output file. Gives 0 or -EIO. */
int32_t finish_output(zutr_params_t *params)
{
    int32_t ret = finish_stream(stdout);
    if (params->out_path != nullptr) {
        ret = ret != 0 ? ret : finish_stream(params->out_fp);
        const bool closed = fclose(params->out_fp) == 0;
        params->out_fp = nullptr;
        ret = ret == 0 && !closed ? -errno : ret;
    }
    return judge_output(ret, params->written);
}

} // namespace

int zutr_run(int argc, char *argv[])
{
    if (zutr_secure_streams() != 0) {
        zutr_error(FUNC, "open /dev/null failed:%s", strerror(errno));
        return EIO;
    }
    zutr_params_t params;
    int32_t ret = zutr_prepare_param(argc, argv, &params);
    if (ret == 0) {
        ret = run_command(&params);
        if (ret == 0) {
            ret = finish_output(&params);
        }
    } else if (ret > 0) { /* only the usage was asked for */
        ret = judge_output(finish_stream(stdout), -1);
    }
    zutr_params_fini(&params);
    zutr_assert(ret == 0 || ret == -EIO || ret == -EINVAL || ret == -ENOMEM || ret == -EFAULT,
                "ret == 0 || ret == -EIO || ret == -EINVAL || ret == -ENOMEM || ret == -EFAULT");
    return std::abs(ret);
}
