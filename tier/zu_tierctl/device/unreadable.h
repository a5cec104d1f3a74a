#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/device/new_file.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

/* What a saved file lacks: the blocks that could not be read from the device. They are listed
 * beside the file, in one that is there only when it has something to list. */

std::string tierctl_unreadable_path(const std::string &saved);

/* The list being written. */
class tierctl_unreadable_writer {
public:
    explicit tierctl_unreadable_writer(const std::string &saved);

    void add(std::string_view table, const tierctl_slots &slots);
    bool empty() const { return !file_; }

    /* The list is complete. */
    void commit();

private:
    void flush();

    std::string path_;
    std::optional<tierctl_new_file> file_; /* from the first block on */
    std::string text_;                     /* not yet written, */
    int64_t offset_ = 0;                   /* and where it goes */
};

/* The list of a saved file; empty when there is none beside it. */
class tierctl_unreadable_list {
public:
    explicit tierctl_unreadable_list(const std::string &saved);

    bool empty() const { return runs_.empty(); }
    bool holds(const std::string &table, uint64_t no) const;

private:
    std::map<std::pair<std::string, uint64_t>, uint64_t> runs_; /* table, first number: count */
};
