// Super blocks: dumps, repairs and the conversion.

#include "conversion.h"
#include "layout.h"
#include "scenarios.h"

namespace tier_test {

namespace {

// A number that no V1 or V2 super block may have.
constexpr std::uint32_t NO_SIZE = 0x200000;

template <class Super>
Device with_bad_super(const Super &super)
{
    Device device = Layout<Super>::device(super);
    Block block = encode(super);
    block[20] ^= 1;
    device.write(SUPER_OFFSET, block);
    return device;
}

template <class Super>
void add_super(std::vector<SweptCommand> &commands)
{
    using L = Layout<Super>;
    const Super super = L::super(2, 4, 3);
    const std::string layout = L::NAME;
    const std::string conf = repair_file(super).text();
    commands.push_back(
        {layout + "_dump_super",
         [=] { return L::device(super); },
         {{.name = "printed", .args = {"-c", "dump_super"}},
          {.name = "without a log", .args = {"-D", "-c", "dump_super"}, .logged = false},
          {.name = "to a file", .args = {"-c", "dump_super"}, .to_file = true},
          {.name = "forced",
           .args = {"-c", "dump_super", "-v", L::VERSION},
           .status = 22,
           .situations = FORCED}}});

    const std::vector<std::string> forced{"-c", "repair_super", "-v", L::VERSION};
    SweptCommand repairs{layout + "_repair_super", [=] { return with_bad_super(super); }, {}};
    add_repair(repairs, {.name = "accepted",
                         .args = forced,
                         .conf = conf,
                         .situations = FORCED,
                         .place = SUPER_OFFSET,
                         .block = encode(super)});
    Super other = super;
    other.size = NO_SIZE;
    add_commit(repairs, {.name = "refused",
                         .args = forced,
                         .conf = repair_file(other).text(),
                         .status = 22,
                         .situations = FORCED});
    repairs.scenarios.push_back({.name = "no JSON",
                                 .args = forced,
                                 .conf = conf.substr(0, 40),
                                 .status = 22,
                                 .situations = FORCED});
    repairs.scenarios.push_back(
        {.name = "bad super block", .args = {"-c", "dump_super"}, .status = 14});
    commands.push_back(repairs);
}

SweptCommand conversions()
{
    const SuperV2 super = cache(262144, 16384);
    SuperV2 described = super;
    described.version = 0x20000;
    const std::vector<std::string> args{"-c", "convert_super", "-v", "2"};
    SweptCommand command{"V2_convert_super", [=] { return make_v2_device(super); }, {}};
    for (const auto &[name, file] : {std::pair{"of an older one", old_file(super)},
                                     std::pair{"of a V2 one", repair_file(described)}})
        add_repair(command, {.name = name,
                             .args = args,
                             .conf = file.text(),
                             .situations = FORCED | UNREADABLE_FILE});
    return command;
}

// The super block has an expansion area, whose first and last inode are there.
SweptCommand expansion()
{
    constexpr std::uint32_t SLOTS = 153600;
    SuperV2 super = super_v2(2, 4, 3);
    set_expansion(super, SLOTS, true);
    const std::uint32_t first = super.inode_cnt;
    const InodeV2 last = inode_v2(first + SLOTS - 1);
    SweptCommand command{
        "V2_expansion",
        [=] {
            return make_v2_device(super, {}, {inode_v2_used(first, 1), last});
        },
        {{.name = "an inode of it", .args = {"-c", "dump_inode", "-n", std::to_string(first)}},
         {.name = "a missing inode of it",
          .args = {"-c", "dump_inode", "-n", std::to_string(first + 1)},
          .status = 14}}};
    SuperV2 newer = super;
    newer.ctime += 1;
    add_repair(command, {.name = "super block",
                         .args = {"-c", "repair_super"},
                         .conf = repair_file(newer).text(),
                         .place = SUPER_OFFSET,
                         .block = encode(newer)});
    add_repair(command, {.name = "inode",
                         .args = {"-c", "repair_inode"},
                         .conf = text("{\"i_no\":%u,\"i_use\":0}", first),
                         .place = static_cast<std::uint64_t>(inode_offset(super, first)),
                         .block = encode(inode_v2(first))});
    return command;
}

} // namespace

std::vector<SweptCommand> super_commands()
{
    std::vector<SweptCommand> commands;
    add_super<SuperV1>(commands);
    add_super<SuperV2>(commands);
    add_super<SuperV3>(commands);
    commands.push_back(conversions());
    commands.push_back(expansion());
    return commands;
}

} // namespace tier_test
