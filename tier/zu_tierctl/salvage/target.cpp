#include "zu_tierctl/salvage/target.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/core.h>
#include <limits>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>

namespace tierctl {

namespace fs = std::filesystem;

namespace {

constexpr int DIRECTORY = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

} // namespace

Target::Target(std::string path, bool resume, const std::string &device)
    : path_(std::move(path)), existing_(path_)
{
    directory_ = Fd(open(path_.c_str(), DIRECTORY));
    if (directory_.get() < 0) {
        struct stat status {};
        if (errno != ENOENT || lstat(path_.c_str(), &status) == 0) {
            throw_errno("cannot write to " + path_);
        }
        fs::path above = path_;
        if (!above.has_filename()) { /* "new/" */
            above = above.parent_path();
        }
        existing_ = above.replace_filename(".");
        if (access(existing_.c_str(), F_OK) != 0) {
            throw_errno("cannot create " + path_);
        }
    } else if (!resume && !is_empty()) {
        throw std::runtime_error(path_ + " is not empty: give a new directory in it, or "
                                         "--resume to go on with the salvage that is there");
    }
    refuse_device(device);
}

void Target::refuse_device(const std::string &device) const
{
    const fs::path image = fs::canonical(device);
    const fs::path here = fs::canonical(existing_);
    const auto [end, rest] = std::ranges::mismatch(here, image);
    if (!is_new() && end == here.end() && rest != image.end()) {
        throw std::runtime_error(fmt::format("{} lies in {}", device, path_));
    }
    if (is_stored_on(here, image)) {
        throw std::runtime_error(
            fmt::format("{} lies on {}: what is salvaged would be written over it", path_, device));
    }
}

bool Target::is_empty() const { return is_new() || fs::is_empty(path_); }

bool Target::has(const char *name) const
{
    struct stat status {};
    return fstatat(directory_.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

uint64_t Target::room() const
{
    struct statvfs status {};
    if (statvfs(existing_.c_str(), &status) != 0) {
        throw_errno("cannot measure the room in " + path_);
    }
    if (status.f_blocks == 0) { /* a file system without a limit of its own */
        return std::numeric_limits<uint64_t>::max();
    }
    return uint64_t{status.f_bavail} * status.f_frsize;
}

void Target::create()
{
    if (!is_new()) {
        return;
    }
    if (mkdir(path_.c_str(), 0700) != 0) { /* the data are not for everyone */
        throw_errno("cannot create " + path_);
    }
    directory_ = Fd(open(path_.c_str(), DIRECTORY | O_NOFOLLOW));
    if (directory_.get() < 0) {
        throw_errno("cannot create " + path_);
    }
}

Fd Target::open_file(std::string_view file) const
{
    Fd above;
    int directory = directory_.get();
    size_t start = 0;
    for (size_t end = file.find('/'); end != std::string_view::npos; end = file.find('/', start)) {
        const std::string name(file.substr(start, end - start));
        Fd next(openat(directory, name.c_str(), DIRECTORY | O_NOFOLLOW));
        if (next.get() < 0 && errno == ENOENT) {
            if (mkdirat(directory, name.c_str(), 0777) != 0 && errno != EEXIST) {
                fail("create", file);
            }
            next = Fd(openat(directory, name.c_str(), DIRECTORY | O_NOFOLLOW));
        }
        if (next.get() < 0) {
            fail("create", file);
        }
        above = std::move(next);
        directory = above.get();
        start = end + 1;
    }
    return open_regular(directory, std::string(file.substr(start)).c_str(), O_WRONLY | O_CREAT,
                        file);
}

Fd Target::open_manifest(const char *name) const
{
    return open_regular(directory_.get(), name, O_RDWR | O_CREAT, name);
}

/* A second name of the file may lie anywhere. */
Fd Target::open_regular(int directory, const char *name, int flags, std::string_view file) const
{
    Fd fd(openat(directory, name, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
    struct stat status {};
    if (fd.get() < 0 || fstat(fd.get(), &status) != 0) {
        fail("create", file);
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) {
        throw std::runtime_error(fmt::format("{}/{} is no file of a salvage", path_, file));
    }
    return fd;
}

/* Files and directories alike: one call for the whole file system costs less than one for each of
 * thousands of files. */
void Target::sync() const
{
    if (syncfs(directory_.get()) != 0) {
        throw_errno("cannot write to " + path_);
    }
}

void Target::fail(const char *what, std::string_view file) const
{
    throw_errno(fmt::format("cannot {} {}/{}", what, path_, file));
}

} // namespace tierctl
