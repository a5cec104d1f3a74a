#pragma once

#include "device.h"
#include "layouts.h"
#include "mutation.h"

namespace tier_fuzz {

// Super blocks and entries as the parts of an input hold them. An entry is its number in two bytes
// and its record after that, either of which may be missing.

View record_of(View entry);

// Each at its place; one without a record is not there.
void put_entries(Device &device, Place place, View super, std::span<const Bytes> entries);

// Sealed most of the time, with tables as small as a device in memory can have them.
void mutate_super(Mutation &mutation, int layout, Bytes &super);

// Sealed most of the time.
void mutate_entry(Mutation &mutation, Place place, View super, Bytes &entry);

} // namespace tier_fuzz
