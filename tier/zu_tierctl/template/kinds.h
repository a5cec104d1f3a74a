#pragma once

#include "zu_tierctl/template/draft.h"

namespace tierctl {

/* One function for each kind of entry: writes the file, makes the block that a repair makes of it,
 * and notes what differs and what the tool refuses. */

void draft_super_v1(Draft &draft, const Metadata &metadata);
void draft_super_v2(Draft &draft, const Metadata &metadata);
void draft_super_v3(Draft &draft, const Metadata &metadata);

void draft_brick(Draft &draft, const Metadata &metadata);

void draft_inode_v1(Draft &draft, const Metadata &metadata);
void draft_inode_v2(Draft &draft, const Metadata &metadata);
void draft_inode_v3(Draft &draft, const Metadata &metadata);

void draft_extent_v1(Draft &draft, const Metadata &metadata);
void draft_extent_v2(Draft &draft, const Metadata &metadata);

void draft_shards_v3(Draft &draft, const Metadata &metadata);
void draft_hot_v3(Draft &draft, const Metadata &metadata);
void draft_extents_v3(Draft &draft, const Metadata &metadata);

} // namespace tierctl
