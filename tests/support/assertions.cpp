#include "assertions.h"

#include "model.h"

#include <algorithm>

namespace tier_test {

namespace {

// Those that are not of a single table.
constexpr Assertion COMMON[] = {
    // The text of a V1 extent's bitmap.
    {"buff", NO_MEMORY},
    // Handlers that need the super block.
    {"params && params->sb && params->fd >= 0", FORCED},
    // Tables as the super block has them.
    {"params && meta_type && max_cnt > 0 && format_func", GEOMETRY},
    {"meta_start % SIZE_4K == 0", GEOMETRY},
    {"exp_inode_off > 0", GEOMETRY},
    {"no >= 0 && meta && delim && params", MANY_ENTRIES},
    {"no >= 0 && obj && delim && params", MANY_ENTRIES},
    {"ex && ex_size", NO_SIZE | DESCRIPTION},
    // The map sizes of a converted super block.
    {"sb->sb_version == TIER_OLD_VERSION", DESCRIPTION},
    {"block_size <= 4 * SIZE_1M", DESCRIPTION},
    {"(block_size / def_map_size) <= EXTENT_HOT_LEN", DESCRIPTION},
    {"sb && dev_fd >= 0 && map_cnt > 0", DESCRIPTION},
    {"total_extent_size <= SIZE_4K", DESCRIPTION},
    // Its file: the error becomes the result of the run.
    {"ret == 0 || ret == -EIO || ret == -EINVAL || ret == -ENOMEM || ret == -EFAULT",
     UNREADABLE_FILE},
};

} // namespace

const std::vector<Assertion> &assertions()
{
    static const std::vector<Assertion> ALL = [] {
        std::vector<Assertion> all(std::begin(COMMON), std::end(COMMON));
        for (const TableModel *table : models()) {
            if (!table->without_log.empty())
                all.push_back({table->without_log, NO_LOG});
            if (!table->without_super.empty())
                all.push_back({table->without_super, FORCED});
        }
        return all;
    }();
    return ALL;
}

bool may_fail(std::string_view condition, unsigned situations)
{
    return std::ranges::any_of(assertions(), [&](const Assertion &assertion) {
        return assertion.condition == condition && (assertion.situations & situations) != 0;
    });
}

} // namespace tier_test
