#pragma once

#include "zu_tierctl/entry/metadata.h"

#include <string>

namespace tierctl {

/* Why the block of a device's super block is none of a known layout, as a sentence: which layout it
 * resembles, which bits are wrong, which commands help. */
std::string diagnose_super(const std::string &device, const Block &block);

} // namespace tierctl
