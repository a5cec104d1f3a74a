#pragma once

#include "zu_tierctl/entry/metadata.h"

#include <string>
#include <vector>

namespace tierctl {

/* The commands that make a device a super block, as a part of a sentence. */
std::string super_ways(const std::string &device);

/* Why the block of a device's super block is none of a known layout, as a sentence: which layout it
 * resembles, which bits are wrong, which commands help. */
std::string diagnose_super(const std::string &device, const Block &block);

/* What is wrong with such a block, "one bit of uuid is wrong: A should be B"; empty when it
 * resembles none. */
std::vector<std::string> super_flaws(const Block &block);

} // namespace tierctl
