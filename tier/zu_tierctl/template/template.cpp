#include "zu_tierctl/template/template.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/diagnosis.h"
#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/entry/fields.h"
#include "zu_tierctl/entry/given_super.h"
#include "zu_tierctl/entry/mend.h"
#include "zu_tierctl/entry/rebuild.h"
#include "zu_tierctl/template/json.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <optional>

namespace tierctl {

namespace {

/* The layout of that name or, without a name, the one that the block looks like. */
const tier_layout &choose_layout(const Device &device, std::string_view name, const Block &block)
{
    const auto layouts = tier_layouts();
    const auto found = std::ranges::find_if(layouts, [&](const tier_layout *layout) {
        return name.empty() ? looks_like(*layout, block) : layout->name == name;
    });
    if (found == layouts.end()) {
        throw UsageError(name.empty() ? diagnose_super(device.path(), block) +
                                            "; --layout must say which it had"
                                      : fmt::format("unknown layout {}", name));
    }
    const tier_layout *own = layout_of(block);
    if (own != nullptr && own != *found) {
        throw UsageError(fmt::format("--layout {}: {} has a sound super block of layout {}", name,
                                     device.path(), own->name));
    }
    return **found;
}

/* A super block in any state, as the only table. */
Metadata read_any_super(const Device &device, std::string_view layout_name)
{
    const Block block = read_super(device);
    const tier_layout &layout = choose_layout(device, layout_name, block);
    return {&layout, block, {Table(*layout.tables.front(), block.data())}};
}

/* Beyond the largest number that an entry can have, repairs would find another slot. */
bool can_be_named(const Table &table, uint64_t no)
{
    const tier_number &number = table.row->number;
    Block copy{};
    number.put(copy.data(), no);
    return !number || number.get(copy.data()) == no;
}

/* One template in the making. */
class Draft {
public:
    Draft(const Device &device, const Metadata &metadata, const Table &table, uint64_t no,
          const std::string &path, Damage damage)
        : device_(device), metadata_(metadata), table_(table), no_(no), path_(path)
    {
        alignas(SIZE_4K) Block block;
        if (!device.read(table.slot(no), block.data(), SIZE_4K)) {
            throw_errno(fmt::format("cannot read {} {} of {}", table.name, no, device.path()));
        }
        stored_ = block;
        source_ = block;
        if (damage == Damage::mended) {
            mended_ = mend(metadata, table, no, block);
        }
        if (is_mended()) {
            source_ = mended_.block;
        }
    }

    /* Of a block that need not be on the device. */
    Draft(const Device &device, const Metadata &metadata, const Table &table, uint64_t no,
          const Block &block)
        : device_(device), metadata_(metadata), table_(table), no_(no), path_(device.path()),
          stored_(block), source_(block)
    {
    }

    /* The file alone. */
    std::optional<std::string> make_file()
    {
        return table_.fits() && parts_fit() ? std::optional(write_file()) : std::nullopt;
    }

    Template make()
    {
        if (!table_.fits() || !parts_fit()) {
            throw std::runtime_error(
                fmt::format("an {} as the super block describes it does not fit its slot, zu_tier "
                            "repairs none of them",
                            table_.name));
        }
        note_flaws();
        std::string text = write_file();
        note_repair(text);
        note_command();
        return {std::move(text), std::move(notes_)};
    }

private:
    void note(std::string_view text) { notes_.emplace_back(text); }

    /* Parts lie after the fields of their entry and within the slot. */
    bool parts_fit() const
    {
        const tier_parts *parts = table_.row->parts;
        if (parts == nullptr || table_.row->packed()) {
            return true;
        }
        size_t fields_end = 0;
        for (const tier_column &column : table_.row->fields()) {
            fields_end = std::max<size_t>(fields_end, column.at + column.size);
        }
        const void *sb = metadata_.super();
        const uint64_t first = parts->at(sb);
        return first >= fields_end && first + uint64_t{parts->count(sb)} * parts->size <= SIZE_4K;
    }

    void note_flaws()
    {
        const uint32_t flaws = table_.flaws(no_, stored_.data());
        if (flaws != 0) {
            note("damaged: " + flaws_text(flaws));
        }
        if (is_mended()) {
            note(
                fmt::format("{} ({}): {}", explained_text(mended_.bits.size()),
                            certainty_name(mended_.certainty),
                            fmt::join(mend_texts(metadata_, table_, no_, stored_, mended_), ", ")));
            note("the file has the entry mended so; --as-is gives it as it stands");
        }
        if ((flaws & BAD_CHECKSUM) != 0 && table_.name != SUPER_TABLE && !is_mended() &&
            !is_zero(stored_.data())) {
            note("its checksum does not match its content; the file has what is there");
        }
        if ((flaws & BAD_NUMBER) != 0) {
            note(fmt::format("has number {}, the file has {}",
                             table_.row->number.get(stored_.data()), no_));
        }
        if (table_.name == SUPER_TABLE && !is_super(*metadata_.layout, source_)) {
            for (const std::string &flaw : super_flaws(stored_)) {
                note(fmt::format("{}; the file has what is there", flaw));
            }
        }
        if (is_zero(stored_.data()) && table_.row->in_use && !table_.row->packed()) {
            note("all zero: what it held is lost, and a repair with this file makes it free");
        }
    }

    bool is_mended() const { return mended_.certainty != Certainty::none; }

    /* The entry with what identifies its place: a repair makes nothing else. */
    Block identified() const
    {
        Block block = source_;
        if (table_.row->number) {
            table_.row->number.put(block.data(), no_);
        }
        if (table_.name == SUPER_TABLE) {
            metadata_.layout->version_number.put(block.data(), metadata_.layout->version_value);
        }
        return block;
    }

    void put(TemplateJson &file, const tier_column &column, const void *record)
    {
        if (column.form == zutr_form::hex_and_time) { /* the file has the number alone */
            file.value(column.key, number_text(zutr_form::hex, column_number(column, record)));
            return;
        }
        if (column.type != tier_column_type::text) {
            file.value(column.key, column_text(column, record));
            return;
        }
        const std::string_view stored =
            zutr_bounded(static_cast<const char *>(record) + column.at, column.size);
        if (valid_utf8(stored) != stored) {
            note(fmt::format("{} is not valid UTF-8: the file has U+FFFD for what is not",
                             column.key));
        }
        file.value(column.key, json_text(stored));
    }

    std::string write_file()
    {
        TemplateJson file;
        const Block block = identified();
        const tier_table &row = *table_.row;
        if (row.keys != nullptr) {
            for (const tier_column &column : row.keys()) {
                put(file, column, block.data());
            }
        } else {
            file.value("meta_offset", std::to_string(table_.slot(no_)));
        }
        if (row.parts != nullptr) {
            write_parts(file, {metadata_, table_, no_, block.data()});
        }
        return file.take();
    }

    void write_parts(TemplateJson &file, const Entry &entry)
    {
        const tier_parts &parts = *table_.row->parts;
        const tier_columns columns = parts.keys();
        if (columns.front().key.empty()) { /* plain numbers */
            std::vector<std::string> numbers;
            each_part(entry, [&](uint32_t, const void *record) {
                numbers.push_back(column_text(columns.front(), record));
            });
            file.value(parts.key, fmt::format("[{}]", fmt::join(numbers, ", ")));
            return;
        }
        file.open_array(parts.key);
        each_part(entry, [&](uint32_t, const void *record) {
            const bool in_use =
                !table_.row->packed() || table_.in_use(static_cast<const uint8_t *>(record));
            if (!in_use || (parts.is_kept != nullptr && !parts.is_kept(record))) {
                return;
            }
            file.open_object();
            for (const tier_column &column : columns) {
                put(file, column, record);
            }
            file.close();
        });
        file.close();
    }

    /* Says what a repair with the unchanged file changes, or why zu_tier refuses the file. */
    void note_repair(const std::string &text)
    {
        const Rebuilt rebuilt = rebuild(device_, metadata_, table_, text, false);
        if (rebuilt.block) {
            note_changes(*rebuilt.block, text, false);
            return;
        }
        const Rebuilt forced = rebuild(device_, metadata_, table_, text, true);
        if (forced.block) {
            note_changes(*forced.block, text, true);
        }
        for (const std::string &message : rebuilt.messages) {
            note("zu_tier refuses this file as it stands: " + shown_text(message));
        }
    }

    /* What the tool makes up anew each time, like the identity of a free brick, is the same in no
     * two blocks that it builds. */
    void note_changes(const Block &block, const std::string &text, bool force)
    {
        const Rebuilt again = rebuild(device_, metadata_, table_, text, force);
        const Entry before{metadata_, table_, no_, stored_.data()};
        const Entry after{metadata_, table_, no_, block.data()};
        const Entry other{metadata_, table_, no_, again.block->data()};
        std::vector<std::string> random;
        for (const Difference &difference : entry_differences(after, other)) {
            random.push_back(difference.key);
        }
        for (const Difference &difference : entry_differences(before, after)) {
            const bool is_random = std::ranges::find(random, difference.key) != random.end();
            note(fmt::format("a repair changes {}{}: {} -> {}", difference.key,
                             stretch_of(difference), difference.a,
                             is_random ? "a new one each time" : difference.b));
        }
    }

    std::string stretch_of(const Difference &difference) const
    {
        if (!difference.first_byte) {
            return "";
        }
        return stretch_text(metadata_, *table_.row, *difference.first_byte);
    }

    void note_command()
    {
        std::string option;
        if (table_.name == SUPER_TABLE && !is_super(*metadata_.layout, stored_)) {
            option = fmt::format(" -v {}", metadata_.layout->version);
        }
        note(fmt::format("to repair it{}: {} -c repair_{}{} -f {}; with -y it writes",
                         path_.empty() ? ", with this file as FILE" : "",
                         tool_command(device_.path()), table_.name, option,
                         path_.empty() ? "FILE" : shell_word(path_)));
    }

    const Device &device_;
    const Metadata &metadata_;
    const Table &table_;
    uint64_t no_;
    const std::string &path_;
    Block stored_;
    Mended mended_;
    Block source_; /* of the file */
    std::vector<std::string> notes_;
};

} // namespace

Metadata read_template_metadata(const Device &device, std::string_view table,
                                std::string_view layout, const std::string &super_file)
{
    if (table == SUPER_TABLE && !super_file.empty()) {
        throw UsageError("--super is for the entries of other tables: the template of that super "
                         "block is made from " +
                         super_file + " itself");
    }
    if (table != SUPER_TABLE && !layout.empty()) {
        throw UsageError("--layout is for the super block only");
    }
    return table == SUPER_TABLE ? read_any_super(device, layout)
                                : read_metadata(device, super_file);
}

Template make_template(const Device &device, const Metadata &metadata, const Table &table,
                       uint64_t no, const std::string &path, Damage damage)
{
    if (!can_be_named(table, no)) {
        throw std::runtime_error(fmt::format("no repair file can name {} {}", table.name, no));
    }
    return Draft(device, metadata, table, no, path, damage).make();
}

std::optional<std::string> repair_file(const Device &device, const Metadata &metadata,
                                       const Table &table, uint64_t no, const Block &block)
{
    return can_be_named(table, no) ? Draft(device, metadata, table, no, block).make_file()
                                   : std::nullopt;
}

} // namespace tierctl
