#pragma once

#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* The repair file that makes an entry anew, and what there is to say of it: what is wrong with the
 * entry, what gets lost in a repair, what the tool refuses, the command to use. */
struct Template {
    std::string file;
    std::vector<std::string> notes;
};

/* What the file of a damaged entry is made from. */
enum class Damage {
    mended, /* the entry as it was, where its checksum tells that, else as it stands */
    as_is,  /* the entry as it stands */
};

/* What templates of a table need. The super block, of which `layout` ("" when not given) names the
 * layout, may be damaged when it is what is asked for; it is the only table then. For other tables
 * it is that in `super_file`, unless that is empty. */
Metadata read_template_metadata(const Device &device, std::string_view table,
                                std::string_view layout, const std::string &super_file = "");

/* The template of entry `no`, which exists, of one of the tables. `path` is what the file will be
 * called, "" when that is not known. */
Template make_template(const Device &device, const Metadata &metadata, const Table &table,
                       uint64_t no, const std::string &path, Damage damage = Damage::mended);

/* The repair file that says of an entry what the block says; nothing: no file can. Of another
 * block than zu_tier makes the file has only a part: see rebuild(). */
std::optional<std::string> repair_file(const Device &device, const Metadata &metadata,
                                       const Table &table, uint64_t no, const Block &block);

} // namespace tierctl
