#pragma once

#include <string>

namespace tier_test {

// The settings with which every accepted command line ends, in the order in which they are logged.
struct Settings {
    int spec_ver = 0;
    int meta_no = -1;
    std::string repair_conf = "(null)";
    std::string out_path = "(null)";
    int use = -1;
    int error = -1;
    int owner = -1;
    std::string id{};
};

} // namespace tier_test
