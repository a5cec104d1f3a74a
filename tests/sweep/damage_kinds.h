#pragma once

// The ways in which the block of an entry can be spoiled.

#include "damage_layout.h"

namespace tier_test {

struct DamageKind {
    std::string name;
    bool (*applies)(const DamagedTable &);
    void (*spoil)(const DamagedTable &, Block &);
};

const std::vector<DamageKind> &damage_kinds();

} // namespace tier_test
