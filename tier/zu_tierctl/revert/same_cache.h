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

/* Throws unless both have the same layout. Device and saved file each with its own metadata. */
void require_same_layout(const Device &saved, const Metadata &then, const Device &device,
                         const Metadata &now);

/* Throws unless both super blocks, of the same layout, are the same to the byte; says which fields
 * are not. */
void require_same_super(const Device &saved, const Metadata &then, const Device &device,
                        const Metadata &now);

} // namespace tierctl
