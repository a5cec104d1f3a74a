#pragma once

#include "zu_tierctl/device/fd.h"
#include "zu_tierctl/device/scratch_name.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tierctl {

enum class Naming {
    new_name,         /* fails when something has that name by then */
    new_name_by_path, /* the same; meanwhile the file can be opened by a scratch name */
    replace,          /* takes the place of the file that has that name */
};

/* Throws when something has that name or nothing can have it. */
void refuse_existing(const std::string &path);

/* Waits until the name of a new file is on the disk. False, with the reason in errno, when its
 * directory cannot be opened or synced; true where there is no such thing. */
bool sync_name(const std::string &path);

/* A file that appears under its name only when it is complete. Until then it has no name, so that
 * nothing is left of it however the program ends; where such files cannot be had or named, and for
 * a file that replaces another, it has a scratch name in the same directory. A kill during the
 * constructor may leave an empty file of a scratch name. Every failure is an exception. */
class NewFile {
public:
    /* Throws when the file could not be given its name later, or something has a new name now. */
    NewFile(std::string path, Naming naming);

    int fd() const { return fd_.get(); }
    const std::string &path() const { return path_; }

    /* The scratch name. */
    const char *working_path() const { return scratch_->path(); }

    void resize(uint64_t size);
    void write(int64_t offset, const void *data, size_t length);

    /* Waits until all that was written is on the disk. */
    void sync();

    /* Must be called when the file is complete: syncs it and gives it its name. */
    void commit();

private:
    bool open_unnamed();
    void open_named();
    bool give_name() const;

    /* Gives the file the first free scratch name that `take` takes. */
    void take_scratch_name(const std::function<bool(const char *name)> &take);

    [[noreturn]] void fail(const char *what) const;

    std::string path_;
    Naming naming_;
    std::unique_ptr<ScratchName> scratch_; /* null: the file has no name */
    Fd fd_;
};

} // namespace tierctl
