#pragma once

#include "zu_tierctl/template/draft.h"

/* One function for each kind of entry: writes the file, makes the block that a repair makes of it,
 * and notes what differs and what the tool refuses. */

void tierctl_draft_super_v1(tierctl_draft &draft, const tierctl_metadata &metadata);
void tierctl_draft_super_v2(tierctl_draft &draft, const tierctl_metadata &metadata);
void tierctl_draft_super_v3(tierctl_draft &draft, const tierctl_metadata &metadata);

void tierctl_draft_brick(tierctl_draft &draft, const tierctl_metadata &metadata);

void tierctl_draft_inode_v1(tierctl_draft &draft, const tierctl_metadata &metadata);
void tierctl_draft_inode_v2(tierctl_draft &draft, const tierctl_metadata &metadata);
void tierctl_draft_inode_v3(tierctl_draft &draft, const tierctl_metadata &metadata);

void tierctl_draft_extent_v1(tierctl_draft &draft, const tierctl_metadata &metadata);
void tierctl_draft_extent_v2(tierctl_draft &draft, const tierctl_metadata &metadata);

void tierctl_draft_shards_v3(tierctl_draft &draft, const tierctl_metadata &metadata);
void tierctl_draft_hot_v3(tierctl_draft &draft, const tierctl_metadata &metadata);
void tierctl_draft_extents_v3(tierctl_draft &draft, const tierctl_metadata &metadata);
