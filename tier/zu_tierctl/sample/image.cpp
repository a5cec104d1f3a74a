#include "zu_tierctl/sample/image.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/sample/content.h"

#include <fcntl.h>
#include <filesystem>
#include <fmt/core.h>
#include <unistd.h>

namespace tierctl {

namespace fs = std::filesystem;

Image::Image(const std::string &path, uint64_t size, bool force, bool overwrite) : path_(path)
{
    std::error_code unknown; /* a path that cannot be looked up cannot be created either */
    if (!fs::exists(fs::symlink_status(path, unknown))) {
        create(size, Naming::new_name);
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
        open_device(size, overwrite);
        return;
    }
    path_ = fs::canonical(path); /* the file that a link leads to is replaced, not the link */
    create(size, Naming::replace);
}

void Image::create(uint64_t size, Naming naming)
{
    file_.emplace(path_, naming);
    file_->resize(size);
}

void Image::open_device(uint64_t size, bool overwrite)
{
    device_ = Fd(open(path_.c_str(),
                      O_RDWR | O_EXCL | O_CLOEXEC)); /* fails when something else has it open */
    if (device_.get() < 0) {
        throw_open_error(path_);
    }
    const off_t room = lseek(device_.get(), 0, SEEK_END);
    /* GCOVR_EXCL_START: an open block device has an end */
    if (room < 0) {
        throw_errno("cannot measure " + path_);
    }
    /* GCOVR_EXCL_STOP */
    if (static_cast<uint64_t>(room) < size) {
        throw std::runtime_error(fmt::format("{} is too small: {} bytes of {}", path_, room, size));
    }
    const std::string content = overwrite ? "" : valuable_content(device_.get(), path_);
    if (!content.empty()) {
        throw std::runtime_error(
            fmt::format("{} holds {}: only --overwrite-cache overwrites it", path_, content));
    }
}

void Image::read(int64_t offset, void *data, size_t length) const
{
    if (zutr_readn(fd(), data, length, offset) < 0) {
        throw_errno("cannot read " + path_);
    }
}

void Image::write(int64_t offset, const void *data, size_t length)
{
    if (zutr_writen(fd(), data, length, offset) < 0) {
        throw_errno("cannot write " + path_);
    }
}

void Image::commit()
{
    if (file_) {
        file_->commit();
    } else if (fsync(device_.get()) != 0) { /* a device may report failed writes only now */
        throw_errno("cannot write " + path_);
    }
}

} // namespace tierctl
