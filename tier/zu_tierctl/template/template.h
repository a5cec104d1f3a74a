#pragma once

#include "zu_tierctl/device/device.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* The repair file that makes an entry anew as it stands, and what there is to say of it: what is
 * wrong with the entry, what gets lost in a repair, what the tool refuses, the command to use. */
struct Template {
    std::string file;
    std::vector<std::string> notes;
};

/* The template of entry `no` of a table. The super block, of which `layout` ("" when not given)
 * names the layout, may be damaged when it is what is asked for. */
Template make_template(const Device &device, std::string_view table, uint64_t no,
                       std::string_view layout);

} // namespace tierctl
