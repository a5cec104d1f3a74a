#include "scenarios.h"

#include "dump_text.h"
#include "layout.h"

#include <algorithm>
#include <iterator>
#include <ostream>

namespace tier_test {

namespace {

SweptCommand front_end()
{
    return {"front_end",
            [] { return Layout<SuperV1>::device(super_v1(1, 1, 1)); },
            {{.name = "help", .args = {"-h"}},
             {.name = "help without a log", .args = {"-h"}, .logged = false},
             {.name = "unknown command", .args = {"-c", "dump_all"}, .status = 22},
             {.name = "no command", .args = {"-n", "1"}, .status = 22},
             {.name = "unknown option", .args = {"-c", "dump_super", "-x"}, .status = 22},
             {.name = "unknown version",
              .args = {"-c", "dump_super", "-v", "4"},
              .status = 22,
              .situations = FORCED},
             {.name = "command of another layout", .args = {"-c", "dump_shard"}, .status = 22},
             {.name = "forced",
              .args = {"-c", "dump_brick", "-v", "1"},
              .status = -1,
              .situations = FORCED},
             {.name = "filter",
              .args = {"-c", "dump_brick", "-g", "use=0,owner=1,id=a,error=0"},
              .degraded = {"[]"}}}};
}

} // namespace

bool Scenario::commits() const { return place && std::ranges::count(args, "-y") != 0; }

void add_commit(SweptCommand &command, Scenario repair)
{
    repair.name += " with -y";
    repair.args.emplace_back("-y");
    command.scenarios.push_back(repair);
}

void add_repair(SweptCommand &command, const Scenario &repair)
{
    command.scenarios.push_back(repair);
    add_commit(command, repair);
}

std::string unreadable_table(const char *key, const std::vector<std::int64_t> &offsets)
{
    std::vector<std::string> records;
    for (std::size_t no = 0; no < offsets.size(); ++no)
        records.push_back(error_record(5, key, static_cast<std::int64_t>(no), offsets[no]));
    return joined(records);
}

const std::vector<SweptCommand> &swept_commands()
{
    static const std::vector<SweptCommand> COMMANDS = [] {
        std::vector<SweptCommand> all{front_end()};
        for (const auto &commands : {super_commands(), entry_commands(), packed_commands()})
            std::ranges::copy(commands, std::back_inserter(all));
        return all;
    }();
    return COMMANDS;
}

std::ostream &operator<<(std::ostream &out, const SweptCommand &command)
{
    return out << command.name;
}

} // namespace tier_test
