// Every repair parser of every layout. Head of an input: the table's place in PLACES, flags; the
// rest is the repair file. The device is sound.

#include "contract.h"
#include "input.h"
#include "layouts.h"
#include "mutation.h"
#include "run.h"
#include "zu_tier/layout/registry.h"

#include <array>
#include <string>

using namespace tier_fuzz;

namespace {

constexpr std::size_t HEAD = 2;
constexpr std::uint8_t COMMIT = 1;
constexpr std::uint8_t FORCE = 2;
constexpr std::uint8_t NO_LOG = 4;
constexpr std::uint8_t NO_EXPANSION = 8; // its inodes cannot be read

const Bytes &super_of(int layout)
{
    static const std::array<Bytes, 4> supers = {Bytes{}, sample_super(1), sample_super(2),
                                                sample_super(3)};
    return supers[static_cast<std::size_t>(layout)];
}

std::int64_t run_handler(int layout, zutr_params_t *params)
{
    zutr_cmd_func_t handler = nullptr;
    require(zutr_get_selector(layout)(params->cmd, params->sb, &handler) == 0, "its super block");
    require(handler != nullptr, "a command that there is");
    return handler(params);
}

zutr_params_t params_of(const Place &place, Bytes &super)
{
    zutr_params_t params = tier_fuzz::params_of(repair_command(place.table), super);
    params.repair_conf = REPAIR_NAME;
    return params;
}

// Inodes of V2 lie in one of two tables.
Place table_at(const Place &place, View super, std::int64_t offset)
{
    constexpr Place EXPANSION = {2, Table::exp_inode};
    if (place.layout != 2 || dump_command(place.table) != ZUTR_CMD_DUMP_INODE) {
        return place;
    }
    return offset >= entry_offset(EXPANSION, super, 0) ? EXPANSION : Place{2, Table::inode};
}

// Tables of V3 whose blocks are placed by their offset, also past the end of the table.
bool is_packed(const Place &place) { return place.layout == 3 && place.table >= Table::extent; }

// What was written can be read again: it is sound, and its table has it.
void check_written(const Place &place, Bytes &super)
{
    const std::int64_t offset = world.device.writes().front().offset;
    Bytes block(BLOCK);
    std::uint8_t *memory = nullptr;
    require(posix_memalign(reinterpret_cast<void **>(&memory), BLOCK, BLOCK) == 0, "memory");
    require(world.device.read(memory, BLOCK, offset) == static_cast<ssize_t>(BLOCK),
            "it is on the device");
    std::ranges::copy_n(memory, BLOCK, block.begin());
    std::free(memory);
    const Place table = table_at(place, super, offset);
    const auto no = static_cast<std::uint32_t>((offset - entry_offset(table, super, 0)) /
                                               static_cast<std::int64_t>(BLOCK));
    require(offset == entry_offset(table, super, no), "it is at the place of an entry");
    require(no < entry_count(table, super) || is_packed(table), "it is in its table");
    require(is_sound(table, super, no, block), "it is sound");
}

// Inodes of the expansion area, at its both ends.
void put_expansion(View super)
{
    const Place area = {2, Table::exp_inode};
    for (const std::uint32_t no : {0U, 153599U}) {
        Bytes block(BLOCK);
        seal(area, super, no, block);
        world.device.put(entry_offset(area, super, no), block);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const Input input = split({data, size}, HEAD, 0);
    const Place place = PLACES[input.head[0] % std::size(PLACES)];
    const std::uint8_t flags = input.head[1];
    Bytes super = super_of(place.layout);
    world.reset();
    world.repair_file = input.rest;
    world.default_log_directory = (flags & NO_LOG) == 0;
    if ((flags & NO_EXPANSION) == 0) {
        put_expansion(super_of(2));
    }
    const Situation situation = {.command = repair_command(place.table),
                                 .commit = (flags & COMMIT) != 0,
                                 .log = world.default_log_directory};
    const Outcome outcome = run([&] {
        zutr_params_t params = params_of(place, super);
        params.commit = situation.commit ? 1 : 0;
        params.force = (flags & FORCE) != 0 ? 1 : 0;
        world.device_writable = situation.commit;
        return run_handler(place.layout, &params);
    });
    check_contract(outcome, situation);
    require(outcome.ending != Ending::cut_short, "a repair reads no table");
    if (!world.device.writes().empty()) {
        check_written(place, super);
    }
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t most, unsigned seed)
{
    Mutation mutation(seed);
    Input input = split({data, size}, HEAD, 0);
    if (mutation.once_in(10)) {
        mutation.bytes(input.head);
    } else {
        mutation.json(input.rest, most - HEAD);
    }
    return join(input, data, most);
}
