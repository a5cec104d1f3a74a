#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/device/new_file.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tierctl {

/* The blocks that a saved file lacks because they could not be read from the device. A file beside
 * it lists them; without such blocks there is none. */

std::string unreadable_path(const std::string &saved);

/* Writes the list. */
class UnreadableWriter {
public:
    explicit UnreadableWriter(const std::string &saved);

    void add(std::string_view table, const Slots &slots);
    bool empty() const { return !file_; }

    /* Must be called when the list is complete. */
    void commit();

private:
    void flush();

    std::string path_;
    std::optional<NewFile> file_; /* empty before the first block */
    std::string text_;            /* not yet written */
    int64_t offset_ = 0;          /* of that text in the file */
};

/* The list of a saved file; empty when there is none beside it. */
class UnreadableList {
public:
    explicit UnreadableList(const std::string &saved);

    bool empty() const { return runs_.empty(); }
    bool holds(const std::string &table, uint64_t no) const;

private:
    std::map<std::pair<std::string, uint64_t>, uint64_t> runs_; /* table, first number: count */
};

} // namespace tierctl
