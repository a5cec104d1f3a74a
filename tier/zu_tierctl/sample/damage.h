#pragma once

#include "zu_tierctl/sample/image.h"
#include "zu_tierctl/sample/layout.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

/* A way to spoil an entry. */
struct tierctl_damage_kind;

struct tierctl_damage {
    const tierctl_table *table;
    uint64_t no;
    const tierctl_damage_kind *kind;
};

/* Reads "TABLE:NO[:KIND]" texts. Each entry may be named once, so that no damage undoes another.
 * The result points into `tables`. */
std::vector<tierctl_damage> tierctl_parse_damage(const std::vector<std::string> &texts,
                                                 std::span<const tierctl_table> tables);

/* Spoils the entries of `image`. */
void tierctl_apply_damage(tierctl_image &image, std::span<const tierctl_damage> damages,
                          uint64_t seed);
