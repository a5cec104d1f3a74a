#include "zu_tierctl/device/new_file.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/device/error.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tierctl {

namespace fs = std::filesystem;

namespace {

/* A new name lasts only once its directory is on the disk. One that cannot be opened or synced is
 * left to the system. */
void sync_directory_of(const std::string &path)
{
    const std::string directory = fs::path(path).replace_filename(".");
    const Fd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
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

NewFile::NewFile(std::string path)
    : path_(std::move(path)), scratch_path_(fs::path(path_).replace_filename(".zu_tierctl.XXXXXX")),
      fd_(mkostemp(scratch_path_.data(), O_CLOEXEC))
{
    if (fd_.get() < 0) {
        fail("cannot create ");
    }
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd_.get(), 0666 & ~mask); /* cannot fail: we own the file */
}

NewFile::~NewFile() { unlink(scratch_path_.c_str()); /* no longer there when it was renamed */ }

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

void NewFile::commit(Naming naming)
{
    if (fsync(fd_.get()) != 0) { /* some disks report failed writes only now */
        fail("cannot write ");
    }
    /* Unlike a rename, a link never takes the place of another file. */
    const auto give_name = naming == Naming::replace ? rename : link;
    if (give_name(scratch_path_.c_str(), path_.c_str()) != 0) {
        fail("cannot create ");
    }
    sync_directory_of(path_);
}

void NewFile::fail(const char *what) const { throw_errno(what + path_); }

} // namespace tierctl
