#include "run.h"

#include "common/zutr_assert.h"
#include "contract.h"
#include "tool_state.h"

#include <cstdlib>
#include <sanitizer/allocator_interface.h>

namespace tier_fuzz {

namespace {

Outcome call_tool(const std::function<std::int64_t()> &call)
{
    try {
        return {.ending = Ending::returned, .value = call()};
    } catch (const FailedAssertion &failed) {
        return {.ending = Ending::assertion, .assertion = failed.text};
    } catch (const CutShort &) {
        return {.ending = Ending::cut_short};
    }
}

// Releases what the end of a process would release.
void free_what_is_left()
{
    for (void *memory : world.aligned_memory) {
        if (__sanitizer_get_ownership(memory) != 0) {
            std::free(memory);
        }
    }
    world.arena.release();
}

} // namespace

Outcome run(const std::function<std::int64_t()> &call)
{
    world.begin();
    const Outcome outcome = call_tool(call);
    forget_run();
    if (outcome.ending != Ending::returned) {
        free_what_is_left();
        world.close_output();
    }
    require(!world.arena.in_use(), "the memory of a run is freed");
    world.end();
    return outcome;
}

Outcome run_tool(std::vector<std::string> arguments)
{
    std::vector<char *> argv;
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return run([&] { return zutr_run(static_cast<int>(arguments.size()), argv.data()); });
}

zutr_params_t params_of(zutr_cmd_t cmd, Bytes &super)
{
    zutr_params_t params;
    zutr_params_init(&params);
    params.dev_path = DEVICE_NAME;
    params.fd = DEVICE_FD;
    params.out_fp = stdout;
    params.sb = super.data();
    params.cmd = cmd;
    return params;
}

} // namespace tier_fuzz

// Little is allocated in a run, and what it freed need not be remembered for long.
extern "C" const char *__asan_default_options()
{
    return "quarantine_size_mb=8:malloc_context_size=8";
}
