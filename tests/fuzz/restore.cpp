// The restore of an inode in V1 and V2, which no command calls: its handlers over a device whose
// super block may hold anything, compared with a model. Parts of an input: the super block, the
// inode, then extents, each after its number in two bytes. The first of them stands in every slot
// that no other takes.

#include "contract.h"
#include "entries.h"
#include "input.h"
#include "restore_model.h"
#include "zu_tier/layout/registry.h"

#include <string_view>

using namespace tier_fuzz;

namespace {

// The head, byte by byte: layout, flags, the fault and its turn, then in four bytes the number of
// the inode.
constexpr std::size_t HEAD = 8;
enum HeadByte : std::uint8_t { LAYOUT, FLAGS, FAULT, TURN, NUMBER };

// FLAGS
constexpr std::uint8_t FORCE = 1;
constexpr std::uint8_t COMMIT = 2; // has no effect
constexpr std::uint8_t HOLES = 4;  // can be read
constexpr std::uint8_t NO_PARAMS = 8;
constexpr std::uint8_t NO_SUPER = 16;
constexpr std::uint8_t NO_DEVICE = 32;

enum Part : std::uint8_t { SUPER, INODE, EVERYWHERE, EXTENTS };
constexpr std::size_t PARTS = EXTENTS + 3;

constexpr std::size_t EXTENT_OWNER = 16;
constexpr std::size_t EXTENT_USE = 32;

// A restore reads the extents of V2 in the same way: its checksum ends before the mapped pieces.
constexpr Place EXTENT = {1, Table::extent};

RestoreCall call_of(const Input &input, View super)
{
    const std::uint8_t flags = input.head[FLAGS];
    return {.layout = 1 + input.head[LAYOUT] % 2,
            .super = super,
            .no = get<std::int32_t>(input.head, NUMBER),
            .force = (flags & FORCE) != 0,
            .complete = (flags & (NO_PARAMS | NO_SUPER | NO_DEVICE)) == 0};
}

void put_device(const Input &input, const RestoreCall &call)
{
    Device &device = world.device;
    const View background = record_of(input.parts[EVERYWHERE]);
    if (!background.empty()) {
        device.put(entry_offset(EXTENT, call.super, 0), background,
                   static_cast<std::uint32_t>(entry_count(EXTENT, call.super)));
    }
    put_entries(device, EXTENT, call.super, std::span(input.parts).subspan(EXTENTS));
    if (!input.parts[INODE].empty()) {
        device.put(restored_offset(call), input.parts[INODE]);
    }
    device.fail(static_cast<Fault>(input.head[FAULT] % static_cast<int>(Fault::COUNT)),
                input.head[TURN]);
    if ((input.head[FLAGS] & HOLES) != 0) {
        device.make_holes_readable();
    }
}

std::int64_t run_handler(const RestoreCall &call, std::uint8_t flags, Bytes &super)
{
    zutr_cmd_func_t handler = nullptr;
    require(zutr_get_selector(call.layout)(ZUTR_CMD_RESTORE_INODE, nullptr, &handler) == 0 &&
                handler != nullptr,
            "a command that there is");
    zutr_params_t params = params_of(ZUTR_CMD_RESTORE_INODE, super);
    params.meta_no = call.no;
    params.force = call.force ? 1 : 0;
    params.commit = (flags & COMMIT) != 0 ? 1 : 0;
    params.sb = (flags & NO_SUPER) != 0 ? nullptr : params.sb;
    params.fd = (flags & NO_DEVICE) != 0 ? -1 : params.fd;
    return handler((flags & NO_PARAMS) != 0 ? nullptr : &params);
}

void check(const Outcome &outcome, const Outcome &expected)
{
    require(outcome.ending == expected.ending, "it ends as it shall");
    require(outcome.value == expected.value, "with the result that it shall have");
    require(outcome.ending != Ending::assertion ||
                std::string_view(outcome.assertion) == expected.assertion,
            "on the assertion that is there for it");
}

void mutate_restored_super(Mutation &mutation, int layout, Bytes &super)
{
    mutate_super(mutation, layout, super);
    if (!mutation.once_in(8)) { // a table with room for its extents
        const auto room = get<std::uint32_t>(super, 132) + mutation.below(4);
        put(super, 24, std::uint64_t{room * BLOCK + mutation.below(2)});
        seal_super(layout, super);
    }
}

void mutate_extent(Mutation &mutation, const RestoreCall &call, Bytes &extent)
{
    mutate_entry(mutation, EXTENT, call.super, extent);
    if (mutation.once_in(2)) {
        const std::span<std::uint8_t> record = std::span(extent).subspan(sizeof(std::uint16_t));
        put(record, EXTENT_OWNER, call.no);
        put(record, EXTENT_USE, static_cast<std::uint16_t>(mutation.below(2)));
        put(record, 0, crc32(record.subspan(4)));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const Input input = split({data, size}, HEAD, PARTS);
    Bytes super = as_block(input.parts[SUPER]);
    const RestoreCall call = call_of(input, super);
    world.reset();
    put_device(input, call);
    Device twin = world.device;
    std::string printed;
    const Outcome expected = restore(call, twin, printed);
    world.device_writable = true;
    const Bytes super_before = super;
    const Outcome outcome = run([&] { return run_handler(call, input.head[FLAGS], super); });
    check(outcome, expected);
    require(world.printed == printed, "it prints what it decides");
    require(world.device == twin, "it reads what it needs and writes the inode or nothing");
    require(super == super_before, "the super block is only read");
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t most, unsigned seed)
{
    Mutation mutation(seed);
    Input input = split({data, size}, HEAD, PARTS);
    const Bytes super = as_block(input.parts[SUPER]);
    const RestoreCall call = call_of(input, super);
    switch (mutation.below(8)) {
    case 0:
        mutation.bytes(input.head);
        break;
    case 1:
        input.head[mutation.below(HEAD)] ^= static_cast<std::uint8_t>(1U << mutation.below(8));
        break;
    case 2: // on both sides of the bounds
        put(input.head, NUMBER,
            static_cast<std::uint32_t>(mutation.once_in(2) ? mutation.below(16)
                                                           : mutation.interesting()));
        break;
    case 3:
    case 4:
        mutate_restored_super(mutation, call.layout, input.parts[SUPER]);
        break;
    case 5: {
        Bytes &inode = input.parts[INODE];
        inode.resize(96);
        mutation.record(inode);
        if (mutation.once_in(2)) {
            seal({call.layout, Table::inode}, super, static_cast<std::uint32_t>(call.no), inode);
        }
        break;
    }
    default:
        mutate_extent(mutation, call, input.parts[EVERYWHERE + mutation.below(4)]);
    }
    return join(input, data, most);
}
