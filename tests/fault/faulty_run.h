#pragma once

// Runs with faults; the grammar of the faults stands in fault_items.h.

#include "run.h"

namespace tier_test {

constexpr const char *DUMP_DRIVER = "zutr_dump_common"; // as it names itself in the log

struct FaultyRun : LoggedRun {
    std::vector<std::string> taken; // the calls that a fault took, as they were traced
};

// Runs `program` with a log file of its own: "-l <log> -p <device> -c <command>", then `args`.
inline FaultyRun run_faulty(const std::string &program, const Device &device,
                            const std::string &command, const std::string &faults,
                            const std::vector<std::string> &args = {}, RunOptions options = {})
{
    const TempDir &directory = device.directory();
    const std::string trace = directory.write("trace", "");
    const std::string log = directory.write("log", "");
    options.environment.emplace_back("LD_PRELOAD", ZUTR_FAULTS_LIB);
    options.environment.emplace_back("MALLOC_PERTURB_", "90"); // no memory is zero by chance
    options.environment.emplace_back("ZUTR_FAULTS",
                                     text("trace:%s;%s", trace.c_str(), faults.c_str()));
    std::vector<std::string> all{"-l", log, "-p", device.path(), "-c", command};
    all.insert(all.end(), args.begin(), args.end());
    FaultyRun run{{run_program(program, all, options), {}, {}}, {}};
    run.log = parse_log(read_file(log));
    run.errors = parse_log(run.err);
    run.taken = lines_of(read_file(trace));
    return run;
}

inline FaultyRun run_faulty(const Device &device, const std::string &command,
                            const std::string &faults, const std::vector<std::string> &args = {},
                            const RunOptions &options = {})
{
    return run_faulty(ZU_TIER, device, command, faults, args, options);
}

// A device call as the trace shows it.
inline std::string traced(const char *call, std::uint64_t size, std::int64_t offset,
                          const std::string &effect)
{
    return text("%s(%lu)@%ld=%s", call, size, offset, effect.c_str());
}

} // namespace tier_test
