#pragma once

#include "zu_tierctl/rescue/rescue.h"

#include <string>
#include <string_view>

namespace tierctl {

/* What no table says of a super block: the identities of cache and SSD, the time of creation. */

/* Stands for a value that nobody knows, which the tool refuses. */
constexpr std::string_view NO_VALUE = "null";

/* Whether a field of a super block is no number of its tables. */
bool is_identity(const tier_column &column);

/* Whether such a field of a damaged block can be what it was. */
bool is_well_formed(const tier_column &column, const Block &block);

/* The value that the command line gives for a key of a repair file, as JSON; empty: it gives none.
 * Throws a usage error when it is no such value. */
std::string given_value(std::string_view key, const RescueOptions &options);

/* Throws a usage error when any given value is no such value. */
void check_given_values(const RescueOptions &options);

/* The value and why, as a sentence, or how to give it. */
std::string identity_line(const IdentityValue &value);

} // namespace tierctl
