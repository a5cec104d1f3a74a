#include "contract.h"

#include "../../support/assertions.h"
#include "run.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace tier_fuzz {

namespace {

bool converts(const Situation &situation) { return situation.command == ZUTR_CMD_CONVERT_SUPER; }

bool takes_extents(const Situation &situation)
{
    return situation.command == ZUTR_CMD_DUMP_EXTENT ||
           situation.command == ZUTR_CMD_REPAIR_EXTENT || converts(situation);
}

// Any super block may have an absurd geometry, but none has more entries than 31 bits count.
unsigned situations_of(const Situation &situation)
{
    return tier_test::GEOMETRY | (situation.log ? 0U : tier_test::NO_LOG) |
           (situation.forced_version ? tier_test::FORCED : 0U) |
           (takes_extents(situation) ? tier_test::NO_SIZE : 0U) |
           (converts(situation) ? tier_test::DESCRIPTION | tier_test::UNREADABLE_FILE : 0U);
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
    if (outcome.ending == Ending::assertion &&
        !tier_test::may_fail(outcome.assertion, situations_of(situation))) {
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
