#include "contract.h"

#include "run.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace tier_fuzz {

namespace {

bool always(const Situation & /*situation*/)
{
    return true;
}

bool without_log(const Situation &situation)
{
    return !situation.log;
}

bool forced_version(const Situation &situation)
{
    return situation.forced_version;
}

bool converts(const Situation &situation)
{
    return situation.command == ZUTR_CMD_CONVERT_SUPER;
}

bool takes_extents(const Situation &situation)
{
    return situation.command == ZUTR_CMD_DUMP_EXTENT ||
           situation.command == ZUTR_CMD_REPAIR_EXTENT || converts(situation);
}

// Assertions that a device, a repair file or an option can make fail: a hard stop by design.
struct HardStop {
    std::string_view text;
    bool (*expected)(const Situation &situation);
};
constexpr HardStop HARD_STOPS[] = {
    // a table of no entries, of more than fit 31 bits, or at an odd place
    {"params && meta_type && max_cnt > 0 && format_func", always},
    {"meta_start % SIZE_4K == 0", always},
    {"exp_inode_off > 0", always},
    // extents without a size, on the device or of a super block to convert
    {"ex && ex_size", takes_extents},
    // a damaged entry and no log to show it in
    {"brick && fp", without_log},
    {"inode && fp", without_log},
    {"extent && sb && fp", without_log},
    {"extent && fp && sb", without_log},
    // a table command that has not been given the super block
    {"params && params->sb && params->fd >= 0", forced_version},
    {"params && params->sb && brick_cfg && brick", forced_version},
    {"params && params->sb && inode_cfg && inode", forced_version},
    {"params && params->sb && ext_cfg && extent", forced_version},
    {"params && params->sb && ext_cfg && shards && shard", forced_version},
    {"params && params->sb && ext_cfg && m", forced_version},
    // a super block that cannot be converted
    {"sb->sb_version == TIER_OLD_VERSION", converts},
    {"block_size <= 4 * SIZE_1M", converts},
    {"(block_size / def_map_size) <= EXTENT_HOT_LEN", converts},
    {"sb && dev_fd >= 0 && map_cnt > 0", converts},
    {"total_extent_size <= SIZE_4K", converts},
    // and one whose file cannot be opened
    {"ret == 0 || ret == -EIO || ret == -EINVAL || ret == -ENOMEM || ret == -EFAULT", converts},
};

bool is_hard_stop(const char *text, const Situation &situation)
{
    return std::ranges::any_of(HARD_STOPS, [&](const HardStop &stop) {
        return stop.text == text && stop.expected(situation);
    });
}

// There is always enough memory.
bool may_result(std::int64_t value)
{
    constexpr int RESULTS[] = {0, EIO, EFAULT, EINVAL};
    return std::ranges::find(RESULTS, std::abs(value)) != std::end(RESULTS);
}

bool repairs(zutr_cmd_t command)
{
    return command >= ZUTR_CMD_REPAIR_SUPER && command <= ZUTR_CMD_REPAIR_HOT_TABLE;
}

void complain(const char *what, const char *text)
{
    for (const char *part : {"FUZZ: ", what, ": ", text, "\n"}) {
        if (write(STDERR_FILENO, part, std::string_view(part).size()) < 0) {
            break;
        }
    }
}

// A repair writes where it printed that it would; not every table has its place printed.
void check_place(zutr_cmd_t command, std::int64_t offset)
{
    constexpr std::string_view KEY = "\"meta_offset\":";
    const std::size_t at = world.printed.rfind(KEY);
    if (command == ZUTR_CMD_REPAIR_SUPER) {
        require(offset == static_cast<std::int64_t>(BLOCK), "a super block is the second block");
    } else if (at != std::string::npos) {
        const char *printed = world.printed.c_str() + at + KEY.size();
        require(std::strtoll(printed, nullptr, 10) == offset, "the block that was printed");
    }
}

} // namespace

void require(bool holds, const char *rule)
{
    if (!holds) {
        complain("breach", rule);
        std::abort();
    }
}

void check_contract(const Outcome &outcome, const Situation &situation)
{
    if (outcome.ending == Ending::assertion && !is_hard_stop(outcome.assertion, situation)) {
        complain("assertion", outcome.assertion);
        std::abort();
    }
    const bool returned = outcome.ending == Ending::returned;
    require(!returned || may_result(outcome.value), "the result is one of 0, 5, 14 and 22");
    require(!returned || !world.device_open, "the device is closed");
    require(!world.output_open(), "the output is closed");
    const auto &writes = world.device.writes();
    const bool succeeded = returned && outcome.value == 0;
    // What it printed can be refused when the block has been written.
    const bool may_write = returned && (succeeded || world.output_full) && situation.commit &&
                           repairs(situation.command);
    require(writes.empty() || may_write, "only a committed repair writes, when nothing failed");
    require(!succeeded || !may_write || !writes.empty(), "a committed repair writes");
    if (!writes.empty()) {
        require(writes.size() == 1 && writes.front().size == BLOCK, "a repair writes one block");
        check_place(situation.command, writes.front().offset);
    }
}

} // namespace tier_fuzz
