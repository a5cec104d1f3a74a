#include "probe_log.h"

#include "model.h"

#include <algorithm>
#include <iterator>

namespace tier_test {

LogLine refused_by(int version, const Block &block)
{
    const std::size_t length = model(version, "super").length({});
    return debug_line("__check_super_v" + std::to_string(version),
                      text("v%d check super block failed. magic:0x%x, ver:0x%x, cksum:0x%x:0x%x",
                           version, get_u32(block, 4), get_u32(block, 112), get_u32(block, 0),
                           record_crc(block, length)));
}

Log probe_log(const Device &device, const std::string &command, int accepted,
              const Settings &settings)
{
    Log log{settings_line(device, command, settings)};
    for (int version = 1; settings.spec_ver == 0 && version < accepted; ++version)
        log.push_back(refused_by(version, device.block(4096)));
    return log;
}

Log probe_log(const Device &device, const std::string &command, int accepted,
              const Settings &settings, const Log &rest)
{
    Log log = probe_log(device, command, accepted, settings);
    std::ranges::copy(rest, std::back_inserter(log));
    return log;
}

} // namespace tier_test
