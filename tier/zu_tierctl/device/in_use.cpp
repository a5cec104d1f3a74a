#include "zu_tierctl/device/in_use.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/fd.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

namespace tierctl {

namespace fs = std::filesystem;

namespace {

/* The first line of a small file of the kernel; empty when there is none. */
std::string line_of(const fs::path &path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

/* What is in a directory, sorted; nothing when it cannot be read. */
std::vector<fs::path> paths_in(const fs::path &directory)
{
    std::vector<fs::path> paths;
    std::error_code error;
    for (fs::directory_iterator at(directory, error), end; !error && at != end;
         at.increment(error)) {
        paths.push_back(at->path());
    }
    std::ranges::sort(paths);
    return paths;
}

/* Whether a file is the device. Only names below /dev are looked up: others may lie on a file
 * system that does not answer. */
bool is_device(const fs::path &path, dev_t device)
{
    struct stat status {};
    return path.native().starts_with("/dev/") && stat(path.c_str(), &status) == 0 &&
           S_ISBLK(status.st_mode) && status.st_rdev == device;
}

/* A path in which the kernel writes blanks and the like as three octal digits, "\\040". */
std::string unescaped(const std::string &text)
{
    std::string path;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            path += static_cast<char>(strtoul(text.substr(i + 1, 3).c_str(), nullptr, 8));
            i += 3;
        } else {
            path += text[i];
        }
    }
    return path;
}

/* A line of /proc/self/mountinfo has the number of the device in its third field, and the place in
 * its fifth. A field "-" precedes the kind of the file system and the path of the device, which
 * tells where the number is not that of a device, as with btrfs. */
struct Mount {
    std::string device; /* number */
    std::string place;
    std::string source; /* path of the device */
};

Mount read_mount(const std::string &line)
{
    std::istringstream fields(line);
    Mount mount;
    std::string other;
    fields >> other >> other >> mount.device >> other >> mount.place;
    while (fields >> other && other != "-") {
    }
    fields >> other >> mount.source;
    mount.place = unescaped(mount.place);
    mount.source = unescaped(mount.source);
    return mount;
}

constexpr const char BLOCK_DEVICES[] = "sys/dev/block";

/* As the kernel writes it, "8:1". */
std::string number_text(dev_t device) { return fmt::format("{}:{}", major(device), minor(device)); }

/* The number of a device from its directory below /sys; 0 when there is none. */
dev_t number_in(const fs::path &directory)
{
    std::istringstream text(line_of(directory / "dev"));
    unsigned int major = 0;
    unsigned int minor = 0;
    char colon = 0;
    return (text >> major >> colon >> minor) ? makedev(major, minor) : 0;
}

/* The device and its partitions. */
std::vector<dev_t> devices_of(dev_t device, const fs::path &root)
{
    std::vector<dev_t> devices{device};
    for (const fs::path &path : paths_in(root / BLOCK_DEVICES / number_text(device))) {
        std::error_code error;
        const dev_t number = number_in(path);
        if (fs::exists(path / "partition", error) && number != 0) {
            devices.push_back(number);
        }
    }
    return devices;
}

/* Collects the users of a device. */
class Users {
public:
    explicit Users(fs::path root) : root_(std::move(root)) {}

    void add(dev_t device)
    {
        const std::string number = number_text(device);
        add_holders(root_ / BLOCK_DEVICES / number / "holders");
        add_mounts(number, device);
        add_swap(device);
        add_processes(device);
    }

    std::string text() const
    {
        return texts_.empty() ? "another program" : fmt::format("{}", fmt::join(texts_, ", "));
    }

private:
    void add_text(const std::string &text)
    {
        if (std::ranges::find(texts_, text) == texts_.end()) {
            texts_.push_back(text);
        }
    }

    /* Volumes, RAIDs and the like. */
    void add_holders(const fs::path &holders)
    {
        for (const fs::path &holder : paths_in(holders)) {
            const std::string name = holder.filename();
            const std::string volume = line_of(root_ / "sys/block" / name / "dm/name");
            add_text(shown_text(volume.empty() ? "/dev/" + name : "/dev/mapper/" + volume));
        }
    }

    void add_mounts(const std::string &number, dev_t device)
    {
        std::ifstream mounts(root_ / "proc/self/mountinfo");
        for (std::string line; std::getline(mounts, line);) {
            const Mount mount = read_mount(line);
            if (mount.device == number || is_device(mount.source, device)) {
                add_text(shown_text(mount.place) + " (mounted)");
            }
        }
    }

    void add_swap(dev_t device)
    {
        std::ifstream swaps(root_ / "proc/swaps");
        for (std::string line; std::getline(swaps, line);) {
            if (is_device(line.substr(0, line.find(' ')), device)) {
                add_text("swap");
            }
        }
    }

    void add_processes(dev_t device)
    {
        for (const fs::path &process : paths_in(root_ / "proc")) {
            const std::string id = process.filename();
            const bool is_other = id.find_first_not_of("0123456789") == std::string::npos &&
                                  id != std::to_string(getpid());
            if (is_other && has_open(process, device)) {
                add_text(fmt::format("process {} ({})", id, shown_text(line_of(process / "comm"))));
            }
        }
    }

    static bool has_open(const fs::path &process, dev_t device)
    {
        return std::ranges::any_of(paths_in(process / "fd"), [device](const fs::path &file) {
            std::error_code error;
            return is_device(fs::read_symlink(file, error), device);
        });
    }

    fs::path root_;
    std::vector<std::string> texts_;
};

} // namespace

namespace {

/* The devices on which a file system may lie: the one that its files name, or where that is none,
 * as with btrfs, the one that it was mounted from. */
std::vector<dev_t> devices_below(dev_t number, const fs::path &root)
{
    std::vector<dev_t> devices{number};
    std::ifstream mounts(root / "proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        const Mount mount = read_mount(line);
        struct stat status {};
        if (mount.device == number_text(number) && mount.source.starts_with("/dev/") &&
            stat(mount.source.c_str(), &status) == 0) {
            devices.push_back(status.st_rdev);
        }
    }
    return devices;
}

/* Whether a device is a loop device of the file `image`. */
bool is_loop_of(dev_t device, const std::string &image, const fs::path &root)
{
    const fs::path directory = root / BLOCK_DEVICES / number_text(device);
    return line_of(directory / "loop/backing_file") == image;
}

/* What a device is built on, of a partition the whole disk. */
std::vector<dev_t> devices_under(dev_t device, const fs::path &root)
{
    const fs::path directory = root / BLOCK_DEVICES / number_text(device);
    std::vector<fs::path> below = paths_in(directory / "slaves");
    std::error_code error;
    if (fs::exists(directory / "partition", error)) {
        below.push_back(directory / "..");
    }
    std::vector<dev_t> devices(below.size());
    std::ranges::transform(below, devices.begin(), number_in);
    return devices;
}

} // namespace

bool is_stored_on(const std::string &path, const std::string &device, const std::string &root)
{
    struct stat directory {};
    struct stat status {};
    if (stat(path.c_str(), &directory) != 0 || stat(device.c_str(), &status) != 0) {
        return false; /* nor can it be written to */
    }
    const dev_t other = S_ISBLK(status.st_mode) ? status.st_rdev : 0;
    std::vector<dev_t> devices = devices_below(directory.st_dev, root);
    for (size_t i = 0; i < devices.size(); i++) {
        if (devices[i] == other || is_loop_of(devices[i], device, root)) {
            return true;
        }
        for (const dev_t below : devices_under(devices[i], root)) {
            if (below != 0 && std::ranges::find(devices, below) == devices.end()) {
                devices.push_back(below);
            }
        }
    }
    return false;
}

std::string users_text(dev_t device, const std::string &root)
{
    Users users(root);
    for (const dev_t one : devices_of(device, root)) {
        users.add(one);
    }
    return users.text();
}

void throw_open_error(const std::string &path)
{
    const int error = errno;
    struct stat status {};
    if (error == EBUSY && stat(path.c_str(), &status) == 0) {
        throw std::runtime_error(
            fmt::format("{} is in use by {}: stop that first", path, users_text(status.st_rdev)));
    }
    errno = error;
    throw_errno("cannot open " + path);
}

void hint_in_use(const std::string &path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) {
        return;
    }
    const Fd fd(open(path.c_str(), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0 && errno == EBUSY) {
        complain(fmt::format("{} is in use by {}: what is read may change meanwhile", path,
                             users_text(status.st_rdev)));
    }
}

} // namespace tierctl
