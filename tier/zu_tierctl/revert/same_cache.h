#pragma once

#include "zu_tierctl/entry/metadata.h"

#include <string>

namespace tierctl {

/* The identity of the cache in its super block, as text; empty when it has none. */
std::string cache_identity(const tier_layout &layout, const Block &super_block);

/* Why a device does not seem to be the one that was saved, as a sentence; empty when it is. It is
 * when the identity in both super blocks is the same or, where one of these is damaged, when the
 * bricks of both have the same identities at the same places. `metadata` says where these lie. */
std::string other_cache_reason(const Device &saved, const Device &device, const Metadata &metadata);

} // namespace tierctl
