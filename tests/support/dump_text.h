#pragma once

// The frame that the dump driver puts around the entries of a table.

#include "bytes.h"

#include <string>
#include <vector>

namespace tier_test {

inline std::string joined(const std::vector<std::string> &items)
{
    std::string result;
    for (const std::string &item : items)
        result.append(result.empty() ? "[" : ",").append(item);
    return result.append(result.empty() ? "[]" : "]");
}

inline std::string error_record(int error, const char *key, std::int64_t no, std::int64_t offset)
{
    return text("{\"error\":%d, \"%s\":%ld, \"meta_offset\":%ld}", error, key, no, offset);
}

} // namespace tier_test
