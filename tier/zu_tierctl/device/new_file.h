#pragma once

#include "zu_tierctl/device/fd.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tierctl {

enum class Naming {
    new_name, /* fails when there is something of that name by then */
    replace,
};

/* Throws when there is something of that name. */
void refuse_existing(const std::string &path);

/* A file that appears under its name only when it is complete: until then it has another one in the
 * same directory, and it is removed with its owner. Every failure is an exception. */
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

    /* The file is complete: brings it to the disk and gives it its name. */
    void commit(Naming naming);

private:
    [[noreturn]] void fail(const char *what) const;

    std::string path_;
    std::string scratch_path_;
    Fd fd_;
};

} // namespace tierctl
