#include "zu_tierctl/rescue/rescue.h"

#include "zu_tierctl/check/check.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/fields.h"
#include "zu_tierctl/entry/rebuild.h"
#include "zu_tierctl/revert/same_cache.h"
#include "zu_tierctl/template/json.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <uuid/uuid.h>

namespace tierctl {

namespace {

constexpr const RescueLayout *LAYOUTS[] = {&RESCUE_LAYOUT_V1, &RESCUE_LAYOUT_V2, &RESCUE_LAYOUT_V3};

/* A layout that explains so many entries more than the next is certain. */
constexpr uint64_t CERTAIN_LEAD = 8;

/* What is left of a super block is believed when so many of its numbers are those of the tables,
 * and so many times as many as are not. */
constexpr uint64_t AGREEING_MIN = 3;
constexpr uint64_t AGREEING_TIMES = 2;

/* Times of creation that can be true: from 2010 to 2100, in nanoseconds since the epoch. */
constexpr uint64_t CTIME_MIN = 1262304000ULL * 1000000000;
constexpr uint64_t CTIME_MAX = 4102444800ULL * 1000000000;

constexpr const char PLACEHOLDER[] = "null";

std::string certainty_text(Certainty certainty)
{
    return certainty == Certainty::none ? "not certain" : std::string(certainty_name(certainty));
}

/* What identifies a cache: a field of its super block that no table tells. */
enum class Identity { uuid, ssd_uuid, ctime };

std::optional<Identity> identity_of(const tier_column &column)
{
    switch (column.type) {
    case tier_column_type::uuid:
        return Identity::uuid;
    case tier_column_type::text:
        return Identity::ssd_uuid;
    default:
        return column.form == zutr_form::hex_and_time ? std::optional(Identity::ctime)
                                                      : std::nullopt;
    }
}

/* A field of a super block as a repair file has it. */
std::string file_text(const tier_column &column, const Block &block)
{
    return column.form == zutr_form::hex_and_time
               ? number_text(zutr_form::hex, column_number(column, block.data()))
               : column_text(column, block.data());
}

/* Whether a field of a damaged block can be what it was. */
bool is_plausible(const tier_column &column, Identity identity, const Block &block)
{
    const uint8_t *field = block.data() + column.at;
    if (identity == Identity::uuid) {
        return uuid_is_null(field) == 0;
    }
    if (identity == Identity::ctime) {
        const uint64_t time = column_number(column, block.data());
        return time >= CTIME_MIN && time < CTIME_MAX;
    }
    const auto text = zutr_bounded(reinterpret_cast<const char *>(field), column.size);
    return text.size() == TIER_SSD_UUID_LEN &&
           std::ranges::all_of(text, [](char c) { return c > ' ' && c < 0x7F; });
}

Block sealed(const tier_layout &layout, Block block)
{
    Table(*layout.tables.front(), block.data()).seal_slot(block.data());
    return block;
}

/* Where values of the super block come from, but for the tables. */
struct Sources {
    std::optional<Block> left; /* the damaged block, when it can be read */
    std::optional<Hint> like;  /* a similar device */
};

/* Values that the command line gives. */
std::string given_value(const RescueOptions &options, Identity identity)
{
    switch (identity) {
    case Identity::uuid: {
        uuid_t parsed;
        if (!options.uuid.empty() && uuid_parse(options.uuid.c_str(), parsed) != 0) {
            throw UsageError("--uuid " + options.uuid + ": expected a UUID");
        }
        return options.uuid.empty() ? "" : json_text(options.uuid);
    }
    case Identity::ssd_uuid:
        if (!options.ssd_uuid.empty() && options.ssd_uuid.size() != TIER_SSD_UUID_LEN) {
            throw UsageError(fmt::format("--ssd-uuid {}: it has {} characters, expected {}",
                                         options.ssd_uuid, options.ssd_uuid.size(),
                                         TIER_SSD_UUID_LEN));
        }
        return options.ssd_uuid.empty() ? "" : json_text(options.ssd_uuid);
    default:
        return options.ctime.empty()
                   ? ""
                   : number_text(zutr_form::hex, read_number("--ctime", options.ctime));
    }
}

/* Throws a usage error when one is no such value. */
void check_given_values(const RescueOptions &options)
{
    for (const Identity identity : {Identity::uuid, Identity::ssd_uuid, Identity::ctime}) {
        given_value(options, identity);
    }
}

/* A sound super block of another device, or of a saved file. */
Hint read_like(const std::string &path, const Device &device)
{
    const Device like(path, Access::read_only);
    const Metadata metadata = read_metadata(like);
    if (like.size() != device.size()) {
        throw std::runtime_error(fmt::format("{} has {} bytes, {} has {}: --like needs one of the "
                                             "same size",
                                             path, like.size(), device.path(), device.size()));
    }
    return {metadata.layout, metadata.super_block, path, false};
}

/* Whether the numbers that the tables give are those that are left in the block. */
bool is_confirmed(const SuperReading &reading, const Block &left)
{
    uint64_t same = 0;
    uint64_t other = 0;
    for (const NumberReading &number : reading.numbers) {
        const std::optional<uint64_t> stored = super_number(*reading.layout, left, number.key);
        if (stored && number.certainty != Certainty::none && number.value() != 0) {
            (*stored == number.value() ? same : other)++;
        }
    }
    return same >= AGREEING_MIN && same >= AGREEING_TIMES * other;
}

/* The search for the super block of a device. */
class Search {
public:
    Search(const Device &device, const RescueOptions &options) : device_(device), options_(options)
    {
    }

    Rescued run()
    {
        alignas(SIZE_4K) Block block{};
        if (device_.size() < TIER_SUPER_OFFSET + SIZE_4K) {
            block = read_super(device_); /* throws */
        }
        if (device_.read(TIER_SUPER_OFFSET, block.data(), SIZE_4K)) {
            sources_.left = block;
        } else {
            note("the block of the super block cannot be read: " + error_text(errno));
        }
        if (!options_.like.empty()) {
            sources_.like = read_like(options_.like, device_);
        }
        if (!take_block()) {
            read_tables();
        }
        check_like();
        read_identity();
        write_file();
        return std::move(found_);
    }

private:
    void note(std::string_view text) { found_.notes.emplace_back(text); }

    /* Takes the block itself, if it is sound or can be mended. */
    bool take_block()
    {
        if (!sources_.left) {
            return false;
        }
        if (const tier_layout *layout = layout_of(*sources_.left)) {
            take(*layout, *sources_.left, Certainty::certain, "the block itself, which is sound");
            note("the super block is sound: nothing is lost");
            return true;
        }
        for (const tier_layout *layout : tier_layouts()) {
            const Metadata metadata{
                layout, *sources_.left, {Table(*layout->tables.front(), sources_.left->data())}};
            const Table &table = metadata.tables.front();
            const Mended mended = mend(metadata, table, 0, *sources_.left);
            if (mended.certainty != Certainty::none && is_super(*layout, mended.block)) {
                for (const std::string &text :
                     mend_texts(metadata, table, 0, *sources_.left, mended)) {
                    note(text);
                }
                take(*layout, mended.block, mended.certainty, "the block itself, mended");
                return true;
            }
        }
        note(is_zero(sources_.left->data())
                 ? "the block of the super block is all zero"
                 : "the block of the super block is damaged, and its checksum mends no bit or two");
        return false;
    }

    void take(const tier_layout &layout, const Block &block, Certainty certainty,
              const std::string &reason)
    {
        whole_ = true;
        certainty_ = certainty;
        found_.reading.layout = &layout;
        found_.reading.block = block;
        found_.reading.certainty = certainty;
        for (const tier_column &column : layout.tables.front()->keys()) {
            if (!identity_of(column) && is_number(column)) {
                found_.reading.numbers.push_back(
                    {column.key,
                     certainty,
                     {value_of(column_number(column, block.data()), reason)}});
            }
        }
        reason_ = reason;
    }

    static bool is_number(const tier_column &column)
    {
        return column.type == tier_column_type::number;
    }

    /* Takes the reading of the layout that explains the most entries. */
    void read_tables()
    {
        Remains remains(device_);
        std::vector<SuperReading> readings;
        for (const RescueLayout *row : LAYOUTS) {
            if (const tier_layout *layout = find_layout(row->name)) {
                readings.push_back(read_layout(*row, *layout, remains));
            }
        }
        std::ranges::stable_sort(readings, std::greater<>(), &SuperReading::explained);
        const uint64_t most = readings.front().explained;
        if (most == 0) {
            throw std::runtime_error(device_.path() +
                                     " has no super block of a known layout, and no entry of a "
                                     "table that can be told without one");
        }
        const uint64_t next = readings[1].explained;
        found_.reading = std::move(readings.front());
        SuperReading &best = found_.reading;
        const bool says_so = sources_.left && looks_like(*best.layout, *sources_.left);
        best.certainty = most >= next + CERTAIN_LEAD || says_so ? Certainty::certain
                         : most > next                          ? Certainty::likely
                                                                : Certainty::none;
        for (NumberReading &number : best.numbers) {
            number.certainty = lower(number.certainty, best.certainty);
        }
        note(fmt::format("layout {}, {}: it explains {}; runner-up {}: {}", best.layout->name,
                         certainty_text(best.certainty), best.explained_text,
                         readings[1].layout->name, readings[1].explained_text));
    }

    SuperReading read_layout(const RescueLayout &row, const tier_layout &layout, Remains &remains)
    {
        std::vector<Hint> hints;
        SuperReading reading = row.read(layout, remains, hints);
        if (sources_.left && is_confirmed(reading, *sources_.left)) {
            hints.push_back({&layout, *sources_.left, "what is left of the block", true});
            confirmed_.push_back(&layout);
        }
        if (sources_.like) {
            hints.push_back(*sources_.like);
        }
        return hints.empty() ? reading : row.read(layout, remains, hints);
    }

    void check_like() const
    {
        const tier_layout *layout = found_.reading.layout;
        if (sources_.like && sources_.like->layout != layout) {
            throw std::runtime_error(fmt::format(
                "{} is of layout {}, the tables of {} are of {}: --like needs one of the same "
                "layout",
                options_.like, sources_.like->layout->name, device_.path(), layout->name));
        }
    }

    /* Why the identity of the similar device is another; empty: it is the same cache. */
    std::string other_cache() const
    {
        const Device like(options_.like, Access::read_only);
        const SuperReading &reading = found_.reading;
        const Block block = sealed(*reading.layout, reading.block);
        return other_cache_reason(
            like, device_, {reading.layout, block, tables_of(*reading.layout, block.data())});
    }

    void read_identity()
    {
        std::string other;
        if (sources_.like && !whole_) {
            other = other_cache();
            if (!other.empty()) {
                note(options_.like + " gives no identity: " + other);
            }
        }
        found_.complete = true;
        for (const tier_column &column : found_.reading.layout->tables.front()->keys()) {
            if (const std::optional<Identity> identity = identity_of(column)) {
                found_.identity.push_back(
                    read_identity(column, *identity, sources_.like && other.empty()));
                found_.complete = found_.complete && found_.identity.back().json != PLACEHOLDER;
            }
        }
    }

    IdentityValue read_identity(const tier_column &column, Identity identity, bool is_same) const
    {
        const std::string given = given_value(options_, identity);
        if (!given.empty()) {
            return {column.key, given, "given", Certainty::certain};
        }
        const SuperReading &reading = found_.reading;
        if (whole_) {
            return {column.key, file_text(column, reading.block), reason_, certainty_};
        }
        if (std::ranges::find(confirmed_, reading.layout) != confirmed_.end() &&
            is_plausible(column, identity, *sources_.left)) {
            return {column.key, file_text(column, *sources_.left), "what is left of the block",
                    Certainty::likely};
        }
        if (is_same) {
            return {column.key, file_text(column, sources_.like->block),
                    options_.like + " is of the same cache", Certainty::likely};
        }
        return {column.key, PLACEHOLDER, "", Certainty::none};
    }

    /* The numbers are those of the block; what identifies the cache takes their places. */
    void write_file()
    {
        TemplateJson file;
        auto identity = found_.identity.begin();
        for (const tier_column &column : found_.reading.layout->tables.front()->keys()) {
            file.value(column.key, identity_of(column) ? (identity++)->json
                                                       : file_text(column, found_.reading.block));
        }
        found_.file = file.take();
    }

    const Device &device_;
    const RescueOptions &options_;
    Sources sources_;
    std::vector<const tier_layout *> confirmed_; /* by what is left of the block */
    bool whole_ = false;                         /* the block itself was taken */
    Certainty certainty_ = Certainty::none;
    std::string reason_;
    Rescued found_;
};

/* The values that may stand in place of the best one. */
std::string others_text(uint64_t best, const Values &values)
{
    const uint64_t first = values.first == best ? best + 1 : values.first;
    return fmt::format("{}: {}", range_text(first, values.last), values.reason);
}

void tell(const Rescued &found)
{
    for (const std::string &note : found.notes) {
        complain(one_line(note));
    }
    for (const NumberReading &number : found.reading.numbers) {
        const Values &best = number.values.front();
        std::string line = fmt::format("{} {}, {}: {}", number.key, best.first,
                                       certainty_text(number.certainty), best.reason);
        const auto next = std::ranges::find_if(number.values, [&best](const Values &values) {
            return values.first != best.first || values.last != best.last;
        });
        if (next != number.values.end()) {
            line += "; runner-up " + others_text(best.first, *next);
        }
        complain(one_line(line));
    }
    constexpr std::string_view OPTIONS[] = {"--uuid", "--ssd-uuid", "--ctime"};
    for (const IdentityValue &value : found.identity) {
        if (value.json != PLACEHOLDER) {
            complain(one_line(fmt::format("{} {}, {}: {}", value.key, value.json,
                                          certainty_text(value.certainty), value.reason)));
            continue;
        }
        const auto *option = std::ranges::find_if(OPTIONS, [&value](std::string_view name) {
            std::string key(name.substr(2));
            std::ranges::replace(key, '-', '_');
            return key == value.key;
        });
        complain(fmt::format("{} is in no table: the file has null, which zu_tier refuses; give it "
                             "with {}, or a saved file of this cache with --like",
                             value.key, *option));
    }
}

/* Counts what a check finds, and tells them on standard error. */
class CountReport : public Report {
public:
    explicit CountReport(const std::string &device) : Report(device, Detail::summary) {}

private:
    void write(const Finding & /*finding*/) override {}

    void write_end() override
    {
        for (const auto &[table, count] : counts()) {
            complain(fmt::format("check under it: {}: {} entries, {} in use, {} free, {} damaged, "
                                 "{} unreadable",
                                 table, count.entries, count.in_use, count.free, count.damaged,
                                 count.unreadable));
        }
        for (const auto &[kind, count] : kinds()) {
            complain(fmt::format("check under it: {} {}", count, kind));
        }
        complain(fmt::format("check under it: {} findings", findings()));
    }
};

/* The super block for a check of the tables: an unknown identity of the SSD is no finding. */
Block checked_block(const Rescued &found)
{
    const tier_layout &layout = *found.reading.layout;
    Block block = found.reading.block;
    for (const tier_column &column : layout.tables.front()->keys()) {
        if (identity_of(column) == Identity::ssd_uuid) {
            memcpy(block.data() + column.at, TIER_SSD_UUID_SAMPLE, sizeof(TIER_SSD_UUID_SAMPLE));
        }
    }
    return sealed(layout, block);
}

void verify(const RescueOptions &options, const Device &device, const Rescued &found)
{
    const Metadata metadata = make_metadata(*found.reading.layout, checked_block(found), device);
    CountReport report(options.device);
    check_metadata({.device = options.device}, device, metadata, report, nullptr);
    report.finish();
}

/* What zu_tier would say of the file, and the command that takes it. */
void tell_repair(const RescueOptions &options, const Device &device, const Rescued &found)
{
    const tier_layout &layout = *found.reading.layout;
    const Block empty{};
    const Metadata metadata{&layout, empty, {Table(*layout.tables.front(), empty.data())}};
    if (found.complete) {
        const Rebuilt rebuilt =
            rebuild(device, metadata, metadata.tables.front(), found.file, false);
        for (const std::string &message : rebuilt.messages) {
            complain("zu_tier refuses this file as it stands: " + shown_text(message));
        }
    }
    complain(fmt::format("to repair it, with this file as FILE: {} -c repair_super -v {} -f FILE; "
                         "with -y it writes",
                         tool_command(options.device), layout.version));
}

} // namespace

Rescued find_super(const Device &device, const RescueOptions &options)
{
    check_given_values(options);
    return Search(device, options).run();
}

bool rescue(const RescueOptions &options)
{
    check_given_values(options);
    const Device device(options.device, Access::read_only);
    hint_in_use(options.device);
    const Rescued found = find_super(device, options);
    print_text(found.file);
    finish_output();
    tell(found);
    if (options.verify) {
        verify(options, device, found);
    }
    tell_repair(options, device, found);
    return found.complete;
}

} // namespace tierctl
