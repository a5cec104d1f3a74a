// restore_driver <options of the tool>: restores the inode that -n names, which no command of
// the tool does. -c only has to name some command, -y opens the device for writing. Prints the
// handler's result after its own output.

#include "zu_tier/front/zu_tier.h"
#include "zu_tier/layout/registry.h"

#include <initializer_list>

#include <cstdio>

int main(int argc, char *argv[])
{
    zutr_params_t params;
    if (zutr_prepare_param(argc, argv, &params) != 0)
        return 1;
    zutr_cmd_func_t restore = nullptr;
    for (const int32_t version : {ZUTR_VER_CODE_V1, ZUTR_VER_CODE_V2})
        if (restore == nullptr)
            zutr_get_selector(version)(ZUTR_CMD_RESTORE_INODE, params.sb, &restore);
    if (restore == nullptr)
        return 1;
    const int32_t result = restore(&params);
    std::printf("result:%d\n", result);
    zutr_params_fini(&params);
    return 0;
}
