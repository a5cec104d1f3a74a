#include "zu_tierctl/device/new_file.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/device/error.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fmt/core.h>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace tierctl {

namespace fs = std::filesystem;

namespace {

std::string directory_of(const std::string &path) { return fs::path(path).replace_filename("."); }

/* The name by which an open file is reached that has none of its own. */
std::string link_to(const Fd &fd) { return fmt::format("/proc/self/fd/{}", fd.get()); }

/* Gives a file another name, unless something has that: then the error is EEXIST. Where the file
 * system knows no such rename a link does the same, and the old name stays as well. */
bool move_file(const char *from, const char *to)
{
    return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0 ||
           (errno != EEXIST && link(from, to) == 0);
}

/* A new name lasts only once its directory is on the disk. One that cannot be opened or synced is
 * left to the system. */
void sync_directory_of(const std::string &path)
{
    const Fd fd(open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fsync(fd.get());
}

} // namespace

void refuse_existing(const std::string &path)
{
    std::error_code unknown; /* a path that cannot be looked up cannot be created either */
    if (fs::exists(fs::symlink_status(path, unknown))) {
        throw std::runtime_error(path + " exists");
    }
}

NewFile::NewFile(std::string path, Naming naming) : path_(std::move(path)), naming_(naming)
{
    if (naming_ == Naming::replace || !open_unnamed()) {
        open_named();
    }
}

/* A file system that has files without a name can give them one by a link. */
bool NewFile::open_unnamed()
{
    fd_ = Fd(open(directory_of(path_).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666));
    return fd_.get() >= 0 && access(link_to(fd_).c_str(), F_OK) == 0;
}

void NewFile::open_named()
{
    const SignalsHeld held;
    take_scratch_name([this](const char *name) {
        fd_ = Fd(open(name, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0666));
        return fd_.get() >= 0;
    });
    if (naming_ == Naming::new_name) { /* what will not work is better known before the work */
        take_scratch_name([this](const char *name) { return move_file(scratch_->path(), name); });
    }
}

void NewFile::take_scratch_name(const std::function<bool(const char *name)> &take)
{
    std::string name;
    unsigned turn = 0;
    bool taken = false;
    do {
        name = fs::path(path_).replace_filename(fmt::format(".zu_tierctl.{}.{}", getpid(), turn++));
        taken = take(name.c_str());
    } while (!taken && errno == EEXIST);
    if (!taken) {
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
    sync_directory_of(path_);
}

bool NewFile::give_name() const
{
    if (scratch_ == nullptr) {
        return linkat(AT_FDCWD, link_to(fd_).c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) ==
               0;
    }
    return naming_ == Naming::replace ? rename(scratch_->path(), path_.c_str()) == 0
                                      : move_file(scratch_->path(), path_.c_str());
}

void NewFile::fail(const char *what) const { throw_errno(what + path_); }

} // namespace tierctl
