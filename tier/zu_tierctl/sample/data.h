#pragma once

#include "zu_tierctl/entry/table.h"
#include "zu_tierctl/sample/image.h"

#include <cstdint>
#include <vector>

namespace tierctl {

/* Fills the pages of 4096 bytes that the entries of an image hold of files; all others stay as they
 * are. Each 32 bytes of a page are the uuid of the file, the offset of the page in the file, in
 * layouts that have none the number that stands for it, and its offset on the device; numbers have
 * eight bytes, the low one first. The image has `size` bytes; its tables must have been written,
 * the super block, `super`, need not. */
void write_data(Image &image, uint64_t size, const std::vector<Table> &tables, const void *super);

} // namespace tierctl
