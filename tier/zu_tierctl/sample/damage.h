#pragma once

#include "zu_tierctl/entry/table.h"
#include "zu_tierctl/sample/image.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tierctl {

/* A way to spoil an entry. */
struct DamageKind;

struct Damage {
    const Table *table;
    uint64_t no;
    const DamageKind *kind;
};

/* Reads texts of the form "TABLE:NO[:KIND]". An entry may be named only once, so that no damage
 * undoes another. The result points into `tables`. */
std::vector<Damage> parse_damage(const std::vector<std::string> &texts,
                                 std::span<const Table> tables);

/* Spoils the entries of `image`. */
void apply_damage(Image &image, std::span<const Damage> damages, uint64_t seed);

} // namespace tierctl
