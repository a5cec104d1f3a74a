#pragma once

// The keys of a super block's repair file.

#include "log.h"
#include "repair_file.h"
#include "v3_device.h"

namespace tier_test {

// One key of a super block's repair file, in reading order, with its value and what the log says of
// it once it is accepted.
struct SuperKey {
    std::string name;
    std::string value;
    std::string logged;
    std::string func;
};

// The expansion keys of V2 belong to a super block with an expansion area only.
std::vector<SuperKey> super_keys(const SuperV1 &sb);
std::vector<SuperKey> super_keys(const SuperV2 &sb);
std::vector<SuperKey> super_keys(const SuperV3 &sb);

RepairFile file_of(const std::vector<SuperKey> &keys);

template <class Super>
RepairFile repair_file(const Super &sb)
{
    return file_of(super_keys(sb));
}

std::size_t keys_before(const std::vector<SuperKey> &keys, const std::string &name);

// The log of the first `count` keys.
Log key_log(const std::vector<SuperKey> &keys, std::size_t count);

} // namespace tier_test
