#pragma once

#include <string>

namespace tierctl {

/* What ddrescue is to read of a device; each includes those before it. */
enum class Domain {
    metadata, /* super block and tables */
    dirty,    /* what was not written back */
    all,      /* what is in use */
};

struct DomainOptions {
    std::string device;
    Domain domain = Domain::metadata;
    std::string super_file{};
    std::string mapfile{};
};

/* Prints a mapfile in which that is finished and everything else has not been tried. Returns
 * whether it is known; says on standard error what is not. */
bool print_domain(const DomainOptions &options);

} // namespace tierctl
