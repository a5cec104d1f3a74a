#pragma once

#include "zu_tierctl/entry/metadata.h"

#include <string>

namespace tierctl {

/* The identity of a cache in its super block, as text; empty when it has none. */
std::string cache_identity(const tier_layout &layout, const Block &super_block);

/* Why a device does not seem to be the one that was saved, as a sentence; empty when it seems to
 * be: both super blocks have the same identity, or one of them is damaged and the bricks of both
 * have the same identities at the same places. `metadata` says where these lie. */
std::string other_cache_reason(const Device &saved, const Device &device, const Metadata &metadata);

} // namespace tierctl
