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

std::vector<const RescueLayout *> &rescue_layouts()
{
    static std::vector<const RescueLayout *> layouts;
    return layouts;
}

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

std::string_view certainty_text(Certainty certainty)
{
    return certainty == Certainty::none ? "not certain" : certainty_name(certainty);
}

bool is_uuid(const uint8_t *uuid)
{
    const int type = uuid_type(uuid); /* 0 comes before the first */
    return uuid_variant(uuid) == UUID_VARIANT_DCE &&
           static_cast<unsigned>(type - UUID_TYPE_DCE_TIME) < UUID_TYPE_DCE_SHA1;
}

bool is_ctime(uint64_t time) { return time >= CTIME_MIN && time < CTIME_MAX; }

bool is_ssd_uuid(std::string_view text)
{
    return text.size() == TIER_SSD_UUID_LEN &&
           std::ranges::all_of(text, [](char c) { return c > ' ' && c < 0x7F; });
}

/* The values that the command line gives, as JSON. */

std::string given_uuid(const std::string &text)
{
    uuid_t uuid;
    if (uuid_parse(text.c_str(), uuid) != 0) {
        throw UsageError("--uuid " + text + ": expected a UUID");
    }
    if (uuid_is_null(uuid) != 0) {
        throw UsageError("--uuid " + text + ": no cache has the identity 0");
    }
    return json_text(zutr_uuid_utoa(uuid));
}

std::string given_ssd_uuid(const std::string &text)
{
    if (!is_ssd_uuid(text)) {
        throw UsageError(fmt::format("--ssd-uuid {}: it has {} characters, expected {}, none of "
                                     "them blank, as in {}",
                                     shown_text(text), text.size(), TIER_SSD_UUID_LEN,
                                     TIER_SSD_UUID_SAMPLE));
    }
    return json_text(text);
}

/* Also as a dump shows it: "0x1816687ec0570000(2025-01-01 00:00:00)". */
std::string given_ctime(const std::string &text)
{
    const std::string number = text.ends_with(')') ? text.substr(0, text.find('(')) : text;
    const uint64_t time = read_number("--ctime", number);
    if (!is_ctime(time)) {
        throw UsageError("--ctime " + text +
                         ": expected a time from 2010 to 2100, in nanoseconds since the epoch");
    }
    return number_text(zutr_form::hex, time);
}

/* Fields that identify a cache, which no table tells. */
struct Identity {
    std::string_view key; /* in a repair file */
    std::string_view option;
    std::string RescueOptions::*given;
    std::string (*check)(const std::string &text); /* gives the JSON of what is given */
};
constexpr Identity IDENTITIES[] = {
    {"uuid", "--uuid", &RescueOptions::uuid, given_uuid},
    {"ssd_uuid", "--ssd-uuid", &RescueOptions::ssd_uuid, given_ssd_uuid},
    {"ctime", "--ctime", &RescueOptions::ctime, given_ctime},
};

/* Throws a usage error when a given value is no such value. */
void check_given_values(const RescueOptions &options)
{
    for (const Identity &identity : IDENTITIES) {
        if (!(options.*identity.given).empty()) {
            identity.check(options.*identity.given);
        }
    }
}

/* Whether a field of a super block is no number of its tables. */
bool is_identity(const tier_column &column)
{
    return column.type != tier_column_type::number || column.form == zutr_form::hex_and_time;
}

/* A field of a super block as a repair file has it. */
std::string file_text(const tier_column &column, const Block &block)
{
    return column.form == zutr_form::hex_and_time
               ? number_text(zutr_form::hex, column_number(column, block.data()))
               : column_text(column, block.data());
}

/* Whether a field of a damaged block can be what it was. */
bool is_well_formed(const tier_column &column, const Block &block)
{
    const uint8_t *field = block.data() + column.at;
    switch (column.type) {
    case tier_column_type::uuid:
        return is_uuid(field);
    case tier_column_type::text:
        return is_ssd_uuid(zutr_bounded(reinterpret_cast<const char *>(field), column.size));
    default:
        return is_ctime(column_number(column, block.data()));
    }
}

Block sealed(const tier_layout &layout, Block block)
{
    Table(*layout.tables.front(), block.data()).seal_slot(block.data());
    return block;
}

/* Whether the tool takes the numbers of a super block: those that two bits mend by chance break its
 * rules. */
bool obeys_rules(const tier_layout &layout, const Block &block)
{
    return std::ranges::all_of(layout.tables.front()->rules, [&block](const tier_rule &rule) {
        return rule.complain == nullptr || rule.holds(block.data());
    });
}

/* Where values of the super block come from, but for the tables. */
struct Sources {
    std::optional<Block> left; /* the damaged block, when it can be read */
    std::optional<Hint> like;  /* a similar device */
};

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

/* How the numbers that the tables give compare with those that are left in the block. */
struct Agreement {
    uint64_t same = 0; /* of those that the tables make likely */
    uint64_t other = 0;
    bool is_whole = true; /* all are the same, and those that are not even likely */

    /* What is left tells more than the tables. */
    bool is_close() const { return same >= AGREEING_MIN && same >= AGREEING_TIMES * other; }
    bool is_full() const { return same >= AGREEING_MIN && other == 0; }
};

Agreement compare(const SuperReading &reading, const Block &left)
{
    Agreement found;
    for (const NumberReading &number : reading.numbers) {
        const uint64_t stored = super_number(*reading.layout, left, number.key).value();
        if (number.certainty != Certainty::none && number.value() != 0) {
            (stored == number.value() ? found.same : found.other)++;
        }
        found.is_whole = found.is_whole && stored == number.value();
    }
    return found;
}

/* Whether entries of both layouts have the same magics: what is sound in one is so in the other. */
bool are_related(const tier_layout &a, const tier_layout &b)
{
    return std::ranges::any_of(a.tables.subspan(1), [&b](const tier_table *row) {
        return row->magic && std::ranges::find(b.tables, row->magic_value,
                                               &tier_table::magic_value) != b.tables.end();
    });
}

/* A layout's reading of a device. */
struct Contender {
    uint64_t head; /* entries in the head of the device */
    SuperReading reading{};
    Agreement left{};
};

/* The search for the super block of a device. */
class Search {
public:
    Search(const Device &device, const RescueOptions &options) : device_(device), options_(options)
    {
    }

    Rescued run()
    {
        alignas(SIZE_4K) Block block{};
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
            if (mended.certainty != Certainty::none && obeys_rules(*layout, mended.block)) {
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
            if (!is_identity(column)) {
                found_.reading.numbers.push_back({.key = column.key, .certainty = certainty});
                found_.reading.numbers.back().candidates.push_back(
                    {column_number(column, block.data()), reason});
            }
        }
        reason_ = reason;
    }

    /* Reads the tables of each layout that has some in the head of the device. When none has, of
     * each. */
    std::vector<Contender> read_layouts()
    {
        Remains remains(device_);
        std::vector<std::pair<const RescueLayout *, Contender>> all;
        uint64_t most = 0;
        for (const tier_layout *layout : tier_layouts()) {
            const auto row = std::ranges::find(rescue_layouts(), layout->name, &RescueLayout::name);
            if (row != rescue_layouts().end()) {
                const uint64_t head = count_head(remains.blocks(), *layout);
                all.push_back({*row, {head, {.layout = layout}}});
                most = std::max(most, head);
            }
        }
        std::vector<Contender> found;
        for (auto &[row, contender] : all) {
            if (contender.head != 0 || most == 0) {
                read_layout(*row, remains, &contender);
                found.push_back(std::move(contender));
            }
        }
        return found;
    }

    void read_layout(const RescueLayout &row, Remains &remains, Contender *to)
    {
        const tier_layout &layout = *to->reading.layout;
        std::vector<Hint> hints;
        to->reading = row.read(layout, remains, hints);
        if (sources_.left) {
            to->left = compare(to->reading, *sources_.left);
            if (to->left.is_close()) {
                hints.push_back(
                    {&layout, *sources_.left, "what is left of the block", to->left.is_whole});
            }
        }
        if (sources_.like) {
            hints.push_back(*sources_.like);
        }
        if (!hints.empty()) {
            to->reading = row.read(layout, remains, hints);
        }
    }

    /* Takes the layout with the most entries in the head of the device, where no data is; then the
     * one that explains the most. */
    void read_tables()
    {
        std::vector<Contender> all = read_layouts();
        const auto says_so = [this](const Contender &contender) {
            return sources_.left && looks_like(*contender.reading.layout, *sources_.left);
        };
        const auto is_like = [this](const Contender &contender) {
            return sources_.like && sources_.like->layout == contender.reading.layout;
        };
        std::ranges::stable_sort(all, std::greater<>(), [&](const Contender &contender) {
            return std::tuple(contender.head, contender.reading.explained, says_so(contender),
                              is_like(contender));
        });
        if (all.front().reading.explained == 0) {
            throw std::runtime_error(device_.path() +
                                     " has no super block of a known layout, and no entry of a "
                                     "table that can be told without one");
        }
        const bool is_contested =
            all.front().reading.is_contested ||
            std::ranges::any_of(all, [&all](const Contender &contender) {
                return contender.head != 0 &&
                       !are_related(*contender.reading.layout, *all.front().reading.layout);
            });
        const Contender nothing{0};
        const Contender &next = all.size() > 1 ? all[1] : nothing;
        SuperReading &best = all.front().reading;
        const uint64_t lead = all.front().head != next.head
                                  ? all.front().head - next.head
                                  : best.explained - next.reading.explained;
        if ((lead >= CERTAIN_LEAD && !is_contested) || says_so(all.front())) {
            best.certainty = Certainty::certain;
        } else if (lead > 0 || is_like(all.front())) {
            best.certainty = Certainty::likely;
        }
        for (NumberReading &number : best.numbers) {
            number.certainty = lower(number.certainty, best.certainty);
        }
        note(fmt::format("layout {}, {}: it explains {}", best.layout->name,
                         certainty_text(best.certainty), best.explained_text) +
             text_if(next.reading.layout != nullptr,
                     fmt::format("; runner-up {}: {}",
                                 next.reading.layout == nullptr ? "" : next.reading.layout->name,
                                 next.reading.explained_text)));
        left_ = all.front().left;
        found_.reading = std::move(best);
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
        bool is_same = false;
        if (sources_.like && !whole_) {
            const std::string other = other_cache();
            is_same = other.empty();
            if (!is_same) {
                note(options_.like + " gives no identity: " + other);
            }
        }
        for (const tier_column &column : found_.reading.layout->tables.front()->keys()) {
            if (is_identity(column)) {
                found_.identity.push_back(read_identity(column, is_same));
            }
        }
        found_.complete = std::ranges::find(found_.identity, PLACEHOLDER, &IdentityValue::json) ==
                          found_.identity.end();
    }

    /* What is given comes first, then what the same cache has elsewhere, then what is left of the
     * block. What one of these says otherwise is told. */
    IdentityValue read_identity(const tier_column &column, bool is_same)
    {
        std::vector<IdentityValue> values;
        const auto *identity = std::ranges::find(IDENTITIES, column.key, &Identity::key);
        if (identity != std::end(IDENTITIES) && !(options_.*identity->given).empty()) {
            values.push_back({column.key, identity->check(options_.*identity->given), "given",
                              Certainty::certain});
        }
        if (whole_) {
            values.push_back(
                {column.key, file_text(column, found_.reading.block), reason_, certainty_});
        }
        if (is_same) {
            values.push_back({column.key, file_text(column, sources_.like->block),
                              options_.like + " is of the same cache", Certainty::likely});
        }
        if (left_.is_full() && is_well_formed(column, *sources_.left)) {
            values.push_back({column.key, file_text(column, *sources_.left),
                              "what is left of the block", Certainty::likely});
        }
        if (values.empty()) {
            return {column.key, PLACEHOLDER};
        }
        for (const IdentityValue &value : values) {
            if (value.json != values.front().json) {
                note(fmt::format("{}: {} says {}, which is not taken", column.key, value.reason,
                                 value.json));
            }
        }
        return values.front();
    }

    /* The numbers are those of the block; what identifies the cache takes their places. */
    void write_file()
    {
        TemplateJson file;
        auto identity = found_.identity.begin();
        for (const tier_column &column : found_.reading.layout->tables.front()->keys()) {
            file.value(column.key, is_identity(column) ? (identity++)->json
                                                       : file_text(column, found_.reading.block));
        }
        found_.file = file.take();
    }

    const Device &device_;
    const RescueOptions &options_;
    Sources sources_;
    Agreement left_;     /* of what is left of the block with the tables */
    bool whole_ = false; /* the block itself was taken */
    Certainty certainty_ = Certainty::none;
    std::string reason_;
    Rescued found_;
};

std::string number_line(const NumberReading &number)
{
    std::string line =
        fmt::format("{} {}, {}: {}", number.key, number.value(), certainty_text(number.certainty),
                    number.candidates.front().reason);
    if (number.candidates.size() > 1) {
        const Candidate &next = number.candidates[1];
        line += fmt::format("; runner-up {}: {}", next.value, next.reason);
    }
    if (number.range && number.range->last < ANY_NUMBER.last) {
        line += fmt::format("; else {}: {}", range_text(number.range->first, number.range->last),
                            number.range->reason);
    } else if (number.candidates.size() > 1) {
        line += "; or any other";
    }
    return line;
}

std::string identity_line(const IdentityValue &value)
{
    if (value.json != PLACEHOLDER) {
        return fmt::format("{} {}, {}: {}", value.key, value.json, certainty_text(value.certainty),
                           value.reason);
    }
    const auto *identity = std::ranges::find(IDENTITIES, value.key, &Identity::key);
    std::string way = "give ";
    if (identity != std::end(IDENTITIES)) {
        way += fmt::format("it with {}, or ", identity->option);
    }
    return fmt::format(
        "{} is in no table: the file has null, which zu_tier refuses; {}a saved file "
        "of this cache with --like",
        value.key, way);
}

void tell(const Rescued &found)
{
    for (const std::string &note : found.notes) {
        complain(one_line(note));
    }
    for (const NumberReading &number : found.reading.numbers) {
        complain(one_line(number_line(number)));
    }
    for (const IdentityValue &value : found.identity) {
        complain(one_line(identity_line(value)));
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
        if (column.type == tier_column_type::text) {
            memcpy(block.data() + column.at, TIER_SSD_UUID_SAMPLE,
                   std::min<size_t>(column.size, sizeof(TIER_SSD_UUID_SAMPLE)));
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

void register_rescue(const RescueLayout *layout) { rescue_layouts().push_back(layout); }

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
