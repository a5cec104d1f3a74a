#include "zu_tierctl/sql/sql.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/given_super.h"
#include "zu_tierctl/sql/database.h"
#include "zu_tierctl/sql/row_writer.h"

#include <fmt/format.h>
#include <stdexcept>

namespace tierctl {

namespace {

/* Entries that a device is too short for have no rows: says so. */
void tell_what_is_missing(const SqlDevice &device)
{
    for (const Table &table : device.metadata.tables) {
        for (const tier_region &region : table.regions) {
            const uint64_t present = slots_on_device(region, device.device.size());
            if (present < region.count) {
                complain(fmt::format("{}: {} of {} blocks of table {} do not lie on the device and "
                                     "have no rows",
                                     device.name, region.count - present, region.count,
                                     table.name));
            }
        }
    }
}

} // namespace

SqlDevices open_devices(const SqlOptions &options)
{
    SqlDevices devices;
    for (const std::string &path : options.devices) {
        Device device(path, Access::read_only, options.mapfile);
        hint_in_use(path);
        Metadata metadata = read_metadata(device, options.super_file);
        devices.push_back({valid_utf8(path), std::move(device), std::move(metadata)});
        tell_what_is_missing(devices.back());
    }
    return devices;
}

void print_query(const SqlOptions &options, const std::string &query)
{
    const SqlDevices devices = open_devices(options);
    Database database(devices);
    database.lock();
    Query rows = database.ask(query);
    const auto writer = make_row_writer(options.format, rows.statement());
    while (rows.next()) {
        writer->add();
    }
    writer->end();
    finish_output();
}

void write_database(const SqlOptions &options, const std::string &path)
{
    refuse_existing(path);
    const SqlDevices devices = open_devices(options);
    NewFile file(path, Naming::new_name_by_path);
    try {
        Database(devices).write_to(file.working_path());
    } catch (const std::runtime_error &error) {
        throw std::runtime_error("cannot write " + path + ": " + error.what());
    }
    file.commit();
}

} // namespace tierctl
