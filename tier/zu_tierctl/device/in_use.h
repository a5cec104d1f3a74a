#pragma once

#include <string>
#include <sys/types.h>

namespace tierctl {

/* Who uses a block device or one of its partitions: what is built on it, its mounts, swap, and the
 * processes that have it open, "/srv (mounted), process 7 (fsck)"; or "another program". `root` is
 * where /proc and /sys lie. */
std::string users_text(dev_t device, const std::string &root = "/");

/* Throws why the path could not be opened, from errno; of a device that is in use also by whom. */
[[noreturn]] void throw_open_error(const std::string &path);

/* When the path is a block device that something holds, says by whom on standard error. */
void hint_in_use(const std::string &path);

/* Whether writing to a file or directory writes to the device: its file system lies on the block
 * device, on what is built on that, or on a loop device of the image. `root` as above. */
bool is_stored_on(const std::string &path, const std::string &device,
                  const std::string &root = "/");

} // namespace tierctl
