// Every dump formatter of every layout, over one entry of a device whose super block is sound. Head
// of an input: see below; the rest is the beginning of the entry's block.

#include "contract.h"
#include "input.h"
#include "layouts.h"
#include "mutation.h"
#include "run.h"
#include "zu_tier/layout/registry.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"

#include <algorithm>
#include <string>

using namespace tier_fuzz;

namespace {

// The head, byte by byte: place in PLACES, flags, the three filters, number of the entry, then in
// two bytes each the sizes of an extent of V1 and V2 and its count of mapped pieces.
constexpr std::size_t HEAD = 10;
enum HeadByte : std::uint8_t { PLACE, FLAGS, USE, OWNER, ERROR, NUMBER, EXTENT_SIZE, MAP_CNT = 8 };
constexpr std::uint8_t NAMED = 1; // -n
constexpr std::uint8_t NO_LOG = 2;
constexpr std::uint8_t DEBUG = 4;
constexpr std::uint8_t HOLES = 8; // the other entries are zero, not unreadable

// The super block with the sizes that the head names, or with those that a slot can have.
Bytes super_for(const Place &place, View head)
{
    Bytes super = sample_super(place.layout);
    const auto extent_size = get<std::uint16_t>(head, EXTENT_SIZE);
    const auto pieces = get<std::uint16_t>(head, MAP_CNT);
    if (place.layout == 1 && extent_size != 0) {
        put(super, 136, std::uint32_t{extent_size});
    }
    if (place.layout == 2 && place.table != Table::exp_inode) {
        put(super, 140, std::uint32_t{0}); // a walk over the expansion area would take too long
    }
    if (place.layout == 2 && extent_size != 0) {
        put(super, 136, std::uint32_t{extent_size});
        put(super, 152, std::uint32_t{pieces});
        put(super, 164, extent_size + pieces * 16U + 64U);
    }
    seal_super(place.layout, super);
    return super;
}

std::uint32_t number_of(const Place &place, View head)
{
    return place.table == Table::super ? 0 : head[NUMBER] % SAMPLE_ENTRIES;
}

// Whether an extent has room for what the super block says it holds.
bool sizes_fit(const Place &place, View super)
{
    const auto extent_size = get<std::uint32_t>(super, 136);
    if (place.table != Table::extent || place.layout == 3) {
        return true;
    }
    if (place.layout == 1) {
        return extent_size >= 56 && extent_size <= BLOCK;
    }
    return get<std::uint32_t>(super, 164) <= BLOCK && extent_size <= BLOCK &&
           get<std::uint32_t>(super, 152) <= (BLOCK - extent_size) / 16;
}

bool is_named(const Place &place, View head)
{
    return place.table == Table::exp_inode || (head[FLAGS] & NAMED) != 0;
}

zutr_params_t params_of(const Place &place, View head, std::uint32_t no, Bytes &super)
{
    zutr_params_t params = tier_fuzz::params_of(dump_command(place.table), super);
    params.filter.use = head[USE] % 4 - 1;
    params.filter.owner = head[OWNER] % 8 == 0 ? head[OWNER] / 8 : -1;
    params.filter.error = head[ERROR] % 3 - 1;
    if (is_named(place, head)) {
        const std::uint32_t before =
            place.table == Table::exp_inode ? get<std::uint32_t>(super, 124) : 0;
        params.meta_no = static_cast<std::int32_t>(before + no);
    }
    return params;
}

// Longer ones take longer to parse than to print.
constexpr std::size_t MOST_PARSED = 8192;

// Texts are printed as they are stored, so the output is certain to be JSON only without these.
bool is_plain(View block)
{
    return std::ranges::none_of(block, [](std::uint8_t byte) {
        return byte == '"' || byte == '\\' || (byte != 0 && byte < ' ');
    });
}

// A dump of the entry under its number: the object that was printed must show what it holds.
void check_entry(const Place &place, View block)
{
    const zutr_json document(cJSON_Parse(world.printed.c_str()));
    require(cJSON_IsObject(document.get()), "an entry is printed as an object");
    if (place.table == Table::hot) {
        return;
    }
    const char *key = place.table == Table::brick                        ? "bi_checksum"
                      : place.table == Table::extent && place.layout < 3 ? "te_checksum"
                                                                         : "checksum";
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItem(document.get(), key));
    require(text != nullptr, "with its checksum");
    if (place.layout < 3 || place.table != Table::extent) {
        require(std::stoul(text, nullptr, 16) == get<std::uint32_t>(block, 0), "as it is stored");
    }
}

void check_one(const Place &place, const Outcome &outcome, bool sound, View block)
{
    require(outcome.ending != Ending::returned || (outcome.value == 0) == sound,
            "a sound entry is accepted, a damaged one is not");
    require(sound || world.printed.empty(), "of a damaged entry nothing is printed");
    const bool texts = place.table == Table::super || place.table == Table::brick;
    const std::size_t size = world.printed.size();
    if (size != 0 && size < MOST_PARSED && (!texts || is_plain(block))) {
        check_entry(place, block);
    }
}

void check_walk(const Place &place, const Outcome &outcome, bool fits)
{
    const bool walked = outcome.ending == Ending::returned && outcome.value == 0;
    require(walked || outcome.ending != Ending::returned || !fits, "a walk succeeds");
    const bool two_tables =
        place.layout == 2 && (place.table == Table::inode || place.table == Table::exp_inode);
    require(!walked || (!world.printed.empty() && world.printed.back() == (two_tables ? '}' : ']')),
            "a walk is printed to its end");
}

std::int64_t dump(int layout, zutr_params_t *params)
{
    zutr_cmd_func_t handler = nullptr;
    const std::int32_t ret = zutr_get_selector(layout)(params->cmd, params->sb, &handler);
    return ret == 0 ? handler(params) : ret;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const Input input = split({data, size}, HEAD, 0);
    const Place place = PLACES[input.head[PLACE] % std::size(PLACES)];
    const std::uint8_t flags = input.head[FLAGS];
    const std::uint32_t no = number_of(place, input.head);
    const Bytes block = as_block(input.rest);
    Bytes super = place.table == Table::super ? block : super_for(place, input.head);
    world.reset();
    world.default_log_directory = (flags & NO_LOG) == 0;
    world.device.put(entry_offset(place, super, no), block);
    if ((flags & HOLES) != 0) {
        world.device.make_holes_readable();
    }
    const Situation situation = {.command = dump_command(place.table),
                                 .log = world.default_log_directory};
    const Outcome outcome = run([&] {
        zutr_params_t params = params_of(place, input.head, no, super);
        if ((flags & DEBUG) != 0) {
            zutr_set_debug_mode();
        }
        return dump(place.layout, &params);
    });
    check_contract(outcome, situation);
    require(outcome.ending != Ending::cut_short, "a walk ends with its table");
    const bool fits = sizes_fit(place, super);
    if (place.table == Table::super || is_named(place, input.head)) {
        check_one(place, outcome, fits && is_sound(place, super, no, block), block);
    } else {
        check_walk(place, outcome, fits);
    }
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t most, unsigned seed)
{
    Mutation mutation(seed);
    Input input = split({data, size}, HEAD, 0);
    input.rest = as_block(input.rest);
    const Place before = PLACES[input.head[PLACE] % std::size(PLACES)];
    if (mutation.once_in(4)) {
        mutation.bytes(input.head);
    } else {
        const auto record =
            std::max<std::size_t>(record_size(before, super_for(before, input.head)), 4);
        mutation.record(std::span(input.rest).first(record));
    }
    const Place place = PLACES[input.head[PLACE] % std::size(PLACES)];
    if (!mutation.once_in(8)) {
        seal(place, super_for(place, input.head), number_of(place, input.head), input.rest);
    }
    if (place.table != Table::extent && place.table != Table::shard) {
        input.rest.resize(record_size(place, {}));
    }
    return join(input, data, most);
}
