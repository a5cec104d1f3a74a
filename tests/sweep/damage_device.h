#pragma once

// A device that every run of a sweep finds as the first one found it.

#include "contract.h"
#include "device.h"
#include "fault_sweep.h"

#include <string>
#include <vector>

namespace tier_test {

class SweptDevice {
public:
    SweptDevice(Device device, SweepRuns &runs);

    // From now on every run finds this block there.
    void put(std::uint64_t offset, const Block &block);
    Block block(std::uint64_t offset) const { return block_at(image_, offset); }
    std::uint64_t size() const { return size_; }

    // Creates or replaces a file beside the device and returns its path.
    std::string file(const std::string &name, const std::string &content) const;
    std::string path() const { return device_.path(); }

    // One run, which has a log file, checked against the contract. `args` follow the command.
    RunResult run(const std::string &command, const std::vector<std::string> &args,
                  const Terms &terms = {}, const RunOptions &options = {});
    // The tool's default log cannot be opened.
    RunResult run_without_log(const std::string &command, const std::vector<std::string> &args);

    // The block at that offset as the last run left it.
    Block left(std::uint64_t offset) const { return block_at(left_, offset); }

private:
    RunResult checked(std::vector<std::string> before, const std::string &command,
                      const std::vector<std::string> &args, const Terms &terms,
                      const RunOptions &options);

    SweepRuns &runs_;
    Device device_;
    std::uint64_t size_;
    Snapshot image_;
    Snapshot left_;
};

// All runs of the damage sweep.
extern SweepRuns damage_runs;

} // namespace tier_test
