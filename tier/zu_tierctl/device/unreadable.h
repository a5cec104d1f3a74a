#pragma once

#include "zu_tierctl/device/new_file.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

struct Slots;

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

/* Blocks of a table that follow one another. */
struct UnreadableRun {
    std::string table;
    uint64_t no; /* of the first */
    uint64_t count;
    int64_t offset; /* of the first */
};

/* The list of a saved file; empty when there is none beside it. */
class UnreadableList {
public:
    UnreadableList() = default;
    explicit UnreadableList(const std::string &saved);

    bool empty() const { return runs_.empty(); }

    /* Whether any of so many bytes from `offset` on, which is not negative, lies in a block of the
     * list. */
    bool touches(int64_t offset, size_t length) const;

    const std::vector<UnreadableRun> &runs() const { return runs_; }

private:
    struct Stretch {
        uint64_t start;
        uint64_t end; /* the byte after the last */
    };

    void add_stretch(const UnreadableRun &run);

    std::vector<UnreadableRun> runs_; /* by table and number */
    std::vector<Stretch> stretches_;  /* of the device, in its order and apart from each other */
};

} // namespace tierctl
