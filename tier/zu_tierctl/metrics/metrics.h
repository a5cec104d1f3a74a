#pragma once

#include "zu_tierctl/check/check.h"

#include <string>

namespace tierctl {

/* Checks a device as check() does, and writes what monitoring is to know of it to a file, as
 * OpenMetrics text that is complete whenever it is read. The file is also written when the device
 * could not be checked, before the exception goes on. Throws a usage error, and checks nothing,
 * when the file exists and holds anything else. */
bool check_with_metrics(const CheckOptions &options, const std::string &file);

} // namespace tierctl
