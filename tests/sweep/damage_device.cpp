#include "damage_device.h"

namespace tier_test {

SweepRuns damage_runs("damage");

SweptDevice::SweptDevice(Device device, SweepRuns &runs)
    : runs_(runs), device_(std::move(device)), size_(device_.size()),
      image_(take_snapshot(device_.path())), left_(image_)
{
}

void SweptDevice::put(std::uint64_t offset, const Block &block)
{
    device_.write(offset, block);
    image_ = with_block(std::move(image_), offset, block);
    left_ = image_;
}

std::string SweptDevice::file(const std::string &name, const std::string &content) const
{
    return device_.directory().write(name, content);
}

RunResult SweptDevice::run(const std::string &command, const std::vector<std::string> &args,
                           const Terms &terms, const RunOptions &options)
{
    return checked({"-l", "/dev/null"}, command, args, terms, options);
}

RunResult SweptDevice::run_without_log(const std::string &command,
                                       const std::vector<std::string> &args)
{
    return checked({}, command, args, {.situations = NO_LOG}, {});
}

RunResult SweptDevice::checked(std::vector<std::string> before, const std::string &command,
                               const std::vector<std::string> &args, const Terms &terms,
                               const RunOptions &options)
{
    runs_.count();
    before.insert(before.end(), {"-p", device_.path(), "-c", command});
    before.insert(before.end(), args.begin(), args.end());
    const RunResult run = run_tool(before, options);
    left_ = take_snapshot(device_.path());
    expect_contract(run, image_, left_, terms);
    if (left_ != image_) {
        for (const auto &[offset, block] : left_)
            if (offset < size_)
                device_.write(offset, block_at(image_, offset));
        for (const auto &[offset, block] : image_)
            device_.write(offset, block);
        device_.truncate(size_);
    }
    return run;
}

} // namespace tier_test
