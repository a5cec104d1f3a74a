// The sources whose variables outlive a run, as parts of this one, which can reach them.
#include "zu_tier/layout/v2/map.cpp"
#include "zu_tier/record/log.cpp"
#include "zu_tier/record/text.cpp"

#include "tool_state.h"

void tier_fuzz::forget_run()
{
    s_ext_buff.reset();
    g_debug_mode = false;
    g_output_errno = 0;
    if (g_log_fp != nullptr) {
        fclose(g_log_fp);
        g_log_fp = nullptr;
    }
}
