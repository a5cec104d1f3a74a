#include "zu_tierctl/tierctl_image.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/tierctl_error.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;

tierctl_image::tierctl_image(const std::string &path, uint64_t size, bool force) : path_(path)
{
    std::error_code unknown; /* a path that cannot be looked at cannot be created either */
    if (!fs::exists(fs::symlink_status(path, unknown))) {
        create_beside(size);
        return;
    }
    const fs::file_type type = fs::status(path, unknown).type();
    if (type != fs::file_type::regular && type != fs::file_type::block) {
        throw std::runtime_error(path + " is neither a regular file nor a block device");
    }
    if (!force) {
        throw std::runtime_error(path + " exists, only --force overwrites it");
    }
    if (type == fs::file_type::block) {
        open_device(size);
        return;
    }
    path_ = fs::canonical(path); /* a link stays, its file is replaced */
    replace_ = true;
    create_beside(size);
}

void tierctl_image::create_beside(uint64_t size)
{
    std::string name = fs::path(path_).replace_filename(".zu_tierctl.XXXXXX");
    fd_ = tierctl_fd(mkostemp(name.data(), O_CLOEXEC));
    if (fd_.get() < 0) {
        tierctl_throw_errno("cannot create " + path_);
    }
    scratch_.path = name;
    const mode_t mask = umask(0);
    umask(mask);
    if (fchmod(fd_.get(), 0666 & ~mask) != 0 || /* GCOVR_EXCL_BR_LINE: the file is its own */
        ftruncate(fd_.get(), static_cast<off_t>(size)) != 0) {
        tierctl_throw_errno("cannot create " + path_);
    }
}

void tierctl_image::open_device(uint64_t size)
{
    fd_ = tierctl_fd(open(path_.c_str(), O_RDWR | O_EXCL | O_CLOEXEC)); /* nobody else has it */
    if (fd_.get() < 0) {
        tierctl_throw_errno("cannot open " + path_);
    }
    const off_t room = lseek(fd_.get(), 0, SEEK_END);
    /* GCOVR_EXCL_START: an open block device has an end */
    if (room < 0) {
        tierctl_throw_errno("cannot measure " + path_);
    }
    /* GCOVR_EXCL_STOP */
    if (static_cast<uint64_t>(room) < size) {
        throw std::runtime_error(path_ + " is too small: " + std::to_string(room) + " bytes of " +
                                 std::to_string(size));
    }
}

void tierctl_image::read(int64_t offset, void *data, size_t length) const
{
    if (zutr_readn(fd_.get(), data, length, offset) < 0) {
        tierctl_throw_errno("cannot read " + path_);
    }
}

void tierctl_image::write(int64_t offset, const void *data, size_t length)
{
    if (zutr_writen(fd_.get(), data, length, offset) < 0) {
        tierctl_throw_errno("cannot write " + path_);
    }
}

void tierctl_image::commit()
{
    if (scratch_.path.empty()) {
        if (fsync(fd_.get()) != 0) { /* a device tells of failed writes only now */
            tierctl_throw_errno("cannot write " + path_);
        }
        return;
    }
    /* A second name for the file, unlike a new one, never takes the place of another file. */
    const auto give_name = replace_ ? rename : link;
    if (give_name(scratch_.path.c_str(), path_.c_str()) != 0) {
        tierctl_throw_errno("cannot create " + path_);
    }
}
