#pragma once

#include "zu_tierctl/device/fd.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tierctl {

enum class Naming {
    new_name, /* fails when something has that name by then */
    replace,  /* takes the place of the file that has that name */
};

/* Throws when something has that name. */
void refuse_existing(const std::string &path);

/* A file that appears under its name only when it is complete. Until then it has another name in
 * the same directory, and is removed with its owner. Every failure is an exception. */
class NewFile {
public:
    explicit NewFile(std::string path);
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile();

    int fd() const { return fd_.get(); }
    const std::string &path() const { return path_; }

    void resize(uint64_t size);
    void write(int64_t offset, const void *data, size_t length);

    /* Must be called when the file is complete: syncs it and gives it its name. */
    void commit(Naming naming);

private:
    [[noreturn]] void fail(const char *what) const;

    std::string path_;
    std::string scratch_path_;
    Fd fd_;
};

} // namespace tierctl
