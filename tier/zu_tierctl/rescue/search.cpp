#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/fields.h"
#include "zu_tierctl/rescue/identity.h"
#include "zu_tierctl/rescue/rescue.h"
#include "zu_tierctl/revert/same_cache.h"
#include "zu_tierctl/template/json.h"

#include <algorithm>
#include <fmt/format.h>

namespace tierctl {

/* The search for a lost super block: the block itself, mended; else the layout that explains the
 * most of what is on the device, and what identifies the cache. */

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

constexpr const char LEFT_SOURCE[] = "what is left of the block";

/* A field of a super block as a repair file has it. */
std::string file_text(const tier_column &column, const Block &block)
{
    return column.form == zutr_form::hex_and_time
               ? number_text(zutr_form::hex, column_number(column, block.data()))
               : column_text(column, block.data());
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

/* Whether no byte of a super block's magic is left. */
bool has_lost_magic(const tier_layout &layout, const Block &left)
{
    const tier_table &row = *layout.tables.front();
    const uint64_t wrong = row.magic.get(left.data()) ^ row.magic_value;
    for (uint64_t rest = wrong, byte = 0; byte < sizeof(row.magic_value); byte++, rest >>= 8) {
        if ((rest & 0xFF) == 0) {
            return false;
        }
    }
    return true;
}

/* Whether the checksum denies what the block says of what no table tells, when the tables confirm
 * all else: it is wrong with the layout's magic and version, too. It tells nothing when the magic
 * next to it is gone, and it may be gone as well. */
bool is_denied(const tier_layout &layout, const Block &left)
{
    const tier_table &row = *layout.tables.front();
    Block block = left;
    row.magic.put(block.data(), row.magic_value);
    layout.version_number.put(block.data(), layout.version_value);
    return !has_lost_magic(layout, left) &&
           Table(row, block.data()).checksum_difference(block.data()) != 0;
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
    bool is_denied = false; /* what is left of the block, by its checksum */
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
        if (sources_.like) { /* it is sound, the block is not */
            hints.push_back(*sources_.like);
        }
        if (sources_.left) {
            to->left = compare(to->reading, *sources_.left);
            to->is_denied = is_denied(layout, *sources_.left);
            if (to->left.is_close()) {
                hints.push_back({&layout, *sources_.left, LEFT_SOURCE, to->left.is_whole,
                                 !to->left.is_full(), to->is_denied});
            }
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
        is_denied_ = all.front().is_denied;
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
        found_.complete = std::ranges::find(found_.identity, NO_VALUE, &IdentityValue::json) ==
                          found_.identity.end();
    }

    /* What is given comes first, then what the same cache has elsewhere, then what is left of the
     * block. What one of these says otherwise is told. */
    IdentityValue read_identity(const tier_column &column, bool is_same)
    {
        std::vector<IdentityValue> values;
        const std::string given = given_value(column.key, options_);
        if (!given.empty()) {
            values.push_back({column.key, given, "given", Certainty::certain});
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
            values.push_back({column.key, file_text(column, *sources_.left), LEFT_SOURCE,
                              is_denied_ ? Certainty::none : Certainty::likely});
        }
        if (values.empty()) {
            return {column.key, std::string(NO_VALUE)};
        }
        if (values.front().certainty == Certainty::none) {
            return {column.key, std::string(NO_VALUE),
                    fmt::format("{} says {}, but its checksum is wrong, and by what the tables say "
                                "the fault is in what no table tells",
                                LEFT_SOURCE, values.front().json)};
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
    Agreement left_;         /* of what is left of the block with the tables */
    bool is_denied_ = false; /* by its checksum */
    bool whole_ = false;     /* the block itself was taken */
    Certainty certainty_ = Certainty::none;
    std::string reason_;
    Rescued found_;
};

} // namespace

void register_rescue(const RescueLayout *layout) { rescue_layouts().push_back(layout); }

Rescued find_super(const Device &device, const RescueOptions &options)
{
    return Search(device, options).run();
}

} // namespace tierctl
