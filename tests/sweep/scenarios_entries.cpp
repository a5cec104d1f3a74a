// The tables of entries that have a block each.

#include "scenarios.h"
#include "table.h"

namespace tier_test {

namespace {

// The first entry is in use, the last one damaged.
template <class T>
Device spoilt_device(const typename T::Super &super)
{
    const T &table = tier_test::table<typename T::Super, typename T::Entry>();
    Device device = Layout<typename T::Super>::device(super);
    put_block(device, table.offset(super, 0), table.encoded(super, table.used(0, 0)));
    const auto last = static_cast<std::uint32_t>(super.*table.counter) - 1;
    Block damaged = table.encoded(super, free_entry<typename T::Entry>(last));
    damaged[0] ^= 1;
    put_block(device, table.offset(super, last), damaged);
    return device;
}

template <class T>
void add_entries(std::vector<SweptCommand> &commands)
{
    using L = Layout<typename T::Super>;
    const T &table = tier_test::table<typename T::Super, typename T::Entry>();
    const auto super = L::super(2, 3, 3);
    const auto count = static_cast<std::uint32_t>(super.*table.counter);
    const auto device = [=] { return spoilt_device<T>(super); };
    std::vector<std::int64_t> offsets;
    for (std::uint32_t no = 0; no < count; ++no)
        offsets.push_back(table.offset(super, no));
    const std::string unreadable =
        table.before_walk + unreadable_table(table.number_key.c_str(), offsets) + table.after_walk;
    const auto number = [](std::uint32_t no) { return std::to_string(no); };
    const std::vector<std::string> dump{"-c", table.dump};
    commands.push_back({std::string(L::NAME) + '_' + table.dump,
                        device,
                        {{.name = "walk", .args = dump, .degraded = {unreadable}},
                         {.name = "to a file",
                          .args = {"-D", "-c", table.dump, "-g", "use=1"},
                          .to_file = true,
                          .degraded = {unreadable}},
                         {.name = "without a log",
                          .args = dump,
                          .status = -1,
                          .situations = NO_LOG,
                          .logged = false,
                          .degraded = {unreadable}},
                         {.name = "entry", .args = {"-c", table.dump, "-n", "0"}},
                         {.name = "damaged entry",
                          .args = {"-c", table.dump, "-n", number(count - 1)},
                          .status = 14},
                         {.name = "no such entry",
                          .args = {"-c", table.dump, "-n", number(count)},
                          .status = 22}}});

    const auto place = static_cast<std::uint64_t>(table.offset(super, count - 1));
    const auto entry = table.repairable(count - 1, 1);
    const auto foreign = table.repairable(count, 1);
    const std::vector<std::string> repair{"-c", table.repair};
    SweptCommand repairs{std::string(L::NAME) + '_' + table.repair, device, {}};
    add_repair(repairs, {.name = "in use",
                         .args = repair,
                         .conf = table.file_of(super, entry).text(),
                         .place = place,
                         .block = table.encoded(super, entry)});
    add_commit(repairs,
               {.name = "freed",
                .args = repair,
                .conf = table.file_of(super, free_entry<typename T::Entry>(count - 1)).text(),
                .makes_uuid = table.repair == "repair_brick",
                .place = place});
    add_commit(repairs, {.name = "refused",
                         .args = repair,
                         .conf = table.file_of(super, foreign).text(),
                         .status = 22});
    commands.push_back(repairs);
}

template <class... Table>
void add_all(std::vector<SweptCommand> &commands, testing::Types<Table...>)
{
    (add_entries<Table>(commands), ...);
}

} // namespace

std::vector<SweptCommand> entry_commands()
{
    std::vector<SweptCommand> commands;
    add_all(commands, BrickTables());
    add_all(commands, InodeTables());
    add_all(commands, ExtentTables());
    return commands;
}

} // namespace tier_test
