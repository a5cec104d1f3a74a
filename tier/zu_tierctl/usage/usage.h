#pragma once

#include "zu_tier/layout/layout.h"
#include "zu_tierctl/check/states.h"
#include "zu_tierctl/entry/ages.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* What a device holds of the data of files, and what of it was not written back. */

/* Sums over pieces of files; those of bytes stop at 2^64 - 1. */
struct DataSum {
    uint64_t cached = 0; /* bytes */
    uint64_t dirty = 0;  /* of these not written back */
    uint64_t pieces = 0;
    uint64_t dirty_pieces = 0;

    void add(const tier_piece &piece);
    void add(const DataSum &sum);
};

/* A file: an entry that the pieces belong to, such as an inode. */
struct FileUse {
    uint64_t no = 0;
    State state = State::unreadable;
    uint64_t owner = 0; /* number of its brick; these have no meaning unless it is in use */
    uint64_t size = 0;
    uint64_t changed = 0;
    uint8_t identity[16] = {};
    DataSum data{};
};

/* Files together. */
struct FilesSum {
    uint64_t files = 0; /* that have data in the cache */
    uint64_t dirty_files = 0;
    uint64_t changed = 0; /* last change of one of them; 0: none is known */
    DataSum data{};

    void add(const FileUse &file);
    void add(const FilesSum &sum);
};

/* A brick, or whatever files belong to. */
struct OwnerUse {
    uint64_t no = 0;
    bool is_known = true;         /* otherwise this stands for all files of which it is not known */
    State state = State::missing; /* in_use: there is an entry that says what it is */
    std::string path{};           /* printable */
    FilesSum sum{};
    std::vector<uint64_t> files{}; /* numbers of those with data, as rank_files() ranks them */
};

/* Entries of a table of which nothing is known. */
struct UnknownRun {
    std::string_view table;
    std::string_view why;
    uint64_t first;
    uint64_t last;
    uint64_t count; /* of entries: not every number may be one */
};

struct Usage {
    /* Of the runs so many are kept. */
    static constexpr size_t RUNS_MAX = 1000;

    /* Files with higher numbers are not told apart. No layout has so many. */
    static constexpr uint64_t FILES_MAX = uint64_t{1} << 20;

    std::string device;
    std::string_view layout;
    std::string identity;
    std::string_view owner_table; /* "brick" */
    std::string_view file_table;  /* "inode" */
    std::string_view data_table;  /* "extent" */
    uint64_t block_size = 0;
    bool is_bound = false;   /* the sums of bytes are upper bounds */
    uint64_t file_count = 0; /* files that there may be, numbered from 0 */

    std::vector<FileUse> files;      /* by number, up to the last that is in use or has data */
    std::vector<OwnerUse> owners;    /* by number, those in use or with data; unknown ones last */
    DataSum orphans;                 /* pieces of which the file is not known, or does not exist */
    FilesSum total;                  /* without the orphans */
    NewestTime newest;               /* change of a file */
    std::vector<UnknownRun> unknown; /* in the order of the device */
    uint64_t unknown_more = 0;       /* runs that were not kept */
    uint64_t unknown_data = 0;       /* entries of the data table of which nothing is known */

    bool is_complete() const { return unknown.empty(); }
    uint64_t unknown_bytes() const { return tier_multiply(unknown_data, block_size); }
};

/* Reads the metadata of a device once, by the super block in `super_file` unless that is empty.
 * `mapfile`, unless that is empty, is that of the device, which is a copy. Throws. */
Usage read_usage(const std::string &device, const std::string &super_file,
                 const std::string &mapfile = "");

/* How usage is shown. */
enum class By {
    owner, /* by brick, with the first files of each */
    file,
    age,
};

struct UsageView {
    By by = By::owner;
    uint64_t top = 10;              /* so many files, of each brick or of all */
    std::optional<uint64_t> file{}; /* this one alone; then nothing else matters */
};

/* Numbers of the files that have data, most bytes not written back first, then most cached bytes.
 */
std::vector<uint64_t> rank_files(const Usage &usage);

/* File `no`, whatever is known of it. Throws a usage error when the device cannot have it. */
FileUse get_file(const Usage &usage, uint64_t no);

/* For each of AGE_GROUPS the files by the time from their last change to the newest one; then those
 * without such a time. */
std::vector<FilesSum> sum_ages(const Usage &usage);

/* Of several devices together. */
struct UsageTotal {
    FilesSum files;
    DataSum orphans;
    bool is_bound = false;
    uint64_t unknown_data = 0;
    uint64_t unknown_bytes = 0;
    bool is_complete = true;
    uint64_t not_read = 0; /* devices that could not be read */

    void add(const Usage &usage, const UsageView &view);
};

/* "1.2 GiB of 410 files not written back", and what is not known of it. */
std::string total_text(const UsageTotal &total);

/* The usage of a device as text, in lines of at most `width` characters. */
std::string draw_usage(const Usage &usage, const UsageView &view, size_t width, bool colours);

/* The same as a JSON document of one line, and the total of several devices. */
std::string usage_json(const Usage &usage, const UsageView &view);
std::string total_json(const UsageTotal &total);

} // namespace tierctl
