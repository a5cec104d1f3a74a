#include "zu_tierctl/device/new_file.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/device/error.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fmt/core.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tierctl {

namespace fs = std::filesystem;

namespace {

std::string directory_of(const std::string &path) { return fs::path(path).replace_filename("."); }

Fd open_without_name(const std::string &directory)
{
    return Fd(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666));
}

/* Gives a name to an open file that has none. */
bool name_file(const Fd &fd, const char *name)
{
    const std::string link = fmt::format("/proc/self/fd/{}", fd.get());
    return linkat(AT_FDCWD, link.c_str(), AT_FDCWD, name, AT_SYMLINK_FOLLOW) == 0;
}

/* Gives a file another name, unless something has that: then the error is EEXIST. Where the file
 * system knows no such rename a link does the same, and the old name stays as well. */
bool move_file(const char *from, const char *to)
{
    return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0 ||
           (errno != EEXIST && link(from, to) == 0);
}

/* Calls `take` with names in the directory of the path until it takes a free one, and gives that.
 * Empty, with the reason in errno, when it takes none. */
std::string find_scratch_name(const std::string &path,
                              const std::function<bool(const char *name)> &take)
{
    std::string name;
    unsigned turn = 0;
    bool taken = false;
    do {
        name = fs::path(path).replace_filename(fmt::format(".zu_tierctl.{}.{}", getpid(), turn++));
        taken = take(name.c_str());
    } while (!taken && errno == EEXIST);
    return taken ? name : "";
}

} // namespace

void refuse_existing(const std::string &path)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
        throw std::runtime_error(path + " exists");
    }
    if (errno != ENOENT) { /* what cannot be looked up cannot be created either */
        throw_errno("cannot create " + path);
    }
}

bool sync_name(const std::string &path)
{
    const Fd fd(open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.get() >= 0 && (fsync(fd.get()) == 0 || errno == EINVAL);
}

NewFile::NewFile(std::string path, Naming naming) : path_(std::move(path)), naming_(naming)
{
    if (naming_ != Naming::replace) {
        refuse_existing(path_);
    }
    if (naming_ != Naming::new_name || !open_unnamed()) {
        open_named();
    }
}

/* Not every file system that has files without a name can give them one later: an empty file tells.
 * It is another one, as a file that has lost its name cannot get a new one. */
bool NewFile::open_unnamed()
{
    const std::string directory = directory_of(path_);
    const Fd trial = open_without_name(directory);
    if (trial.get() < 0) {
        return false;
    }
    {
        const SignalsHeld held;
        const std::string name = find_scratch_name(
            path_, [&trial](const char *free_name) { return name_file(trial, free_name); });
        if (name.empty() || unlink(name.c_str()) != 0) {
            return false;
        }
    }
    fd_ = open_without_name(directory);
    return fd_.get() >= 0;
}

void NewFile::open_named()
{
    const SignalsHeld held;
    take_scratch_name([this](const char *name) {
        fd_ = Fd(open(name, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0666));
        return fd_.get() >= 0;
    });
    if (naming_ != Naming::replace) { /* what will not work is better known before the work */
        take_scratch_name([this](const char *name) { return move_file(scratch_->path(), name); });
    }
}

void NewFile::take_scratch_name(const std::function<bool(const char *name)> &take)
{
    std::string name = find_scratch_name(path_, take);
    if (name.empty()) {
        fail("cannot create ");
    }
    scratch_ = std::make_unique<ScratchName>(std::move(name));
}

void NewFile::resize(uint64_t size)
{
    if (ftruncate(fd_.get(), static_cast<off_t>(size)) != 0) {
        fail("cannot create ");
    }
}

void NewFile::write(int64_t offset, const void *data, size_t length)
{
    if (zutr_writen(fd_.get(), data, length, offset) < 0) {
        fail("cannot write ");
    }
}

void NewFile::sync()
{
    if (fsync(fd_.get()) != 0) { /* some disks report failed writes only now */
        fail("cannot write ");
    }
}

void NewFile::commit()
{
    sync();
    if (!give_name()) {
        fail("cannot create ");
    }
    sync_name(path_); /* a directory that cannot be synced is left to the system */
}

bool NewFile::give_name() const
{
    if (scratch_ == nullptr) {
        return name_file(fd_, path_.c_str());
    }
    return naming_ == Naming::replace ? rename(scratch_->path(), path_.c_str()) == 0
                                      : move_file(scratch_->path(), path_.c_str());
}

void NewFile::fail(const char *what) const { throw_errno(what + path_); }

} // namespace tierctl
