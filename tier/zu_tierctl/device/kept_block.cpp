#include "zu_tierctl/device/kept_block.h"

#include "common/zutr_utils.h"

#include <cstring>
#include <string_view>

namespace tierctl {

KeptBlock::KeptBlock(const void *block)
{
    const std::string_view all(static_cast<const char *>(block), SIZE_4K);
    bytes_ = all.substr(0, all.find_last_not_of('\0') + 1);
}

void KeptBlock::get(void *block) const
{
    memcpy(block, bytes_.data(), bytes_.size());
    memset(static_cast<char *>(block) + bytes_.size(), 0, SIZE_4K - bytes_.size());
}

} // namespace tierctl
