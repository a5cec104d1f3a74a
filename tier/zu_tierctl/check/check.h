#pragma once

#include "zu_tierctl/check/report.h"
#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tierctl {

/* Long enough for a writer to complete what it was writing. */
void wait_for_writers();

struct CheckOptions {
    std::string device;
    bool json = false;
    Detail detail = Detail::runs;
    std::vector<std::string> tables{}; /* to report on; empty: all */
    std::string super_file{};          /* the super block, instead of the device's own; or empty */
    std::string mapfile{};             /* of the device, which is a copy; or empty */

    /* Bytes for the duplicate search, most of a check's memory; 0: nothing is searched for. */
    size_t claims_memory = size_t{448} << 20;

    /* The device is in use: reported is what the last of several passes finds about entries about
     * which the others found something too, and what it cannot read. */
    bool live = false;
    std::function<void()> pause = wait_for_writers; /* between the passes */
};

/* Reads the metadata of a device and reports, on standard output, what breaks the rules of its
 * layout; gives the finished report to `done`, unless that is empty. True when nothing does; throws
 * when it cannot be checked, which a JSON document says too. */
bool check(const CheckOptions &options, const std::function<void(const Report &)> &done = {});

/* The same for an open device, to another report, which it does not finish. `watcher`, unless it is
 * null, sees the tables that are read. */
void check_metadata(const CheckOptions &options, const Device &device, const Metadata &metadata,
                    Report &report, Watcher *watcher);

} // namespace tierctl
