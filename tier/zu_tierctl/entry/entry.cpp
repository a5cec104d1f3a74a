#include "zu_tierctl/entry/entry.h"

#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/fields.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fmt/format.h>
#include <span>

namespace tierctl {

namespace {

constexpr size_t BYTES_SHOWN = 32;

/* Runs of different bytes with at most so many equal bytes between them are shown as one. */
constexpr size_t BYTES_JOINED = 8;

constexpr const char ABSENT[] = "null";

/* One of the repeated parts of an entry. */
struct Part {
    uint32_t k;
    std::vector<Field> fields; /* a word of a bitmap is a single one, without a key */
};

/* The content of an entry: its own fields, then its parts. */
struct Content {
    std::vector<Field> fields;
    std::vector<Part> parts;
};

/* Packed entries are numbered through the table, other parts within their entry. */
uint64_t part_number(const Entry &entry, uint32_t k)
{
    return entry.table.row->packed() ? entry.no * entry.table.end_word + k : k;
}

/* `twin`, unless it is null, is the slot of another entry: packed words that are the same in both
 * are left out. */
Content content_of(const Entry &entry, const uint8_t *twin)
{
    if (!entry.table.fits()) {
        return {};
    }
    const tier_table &row = *entry.table.row;
    Content content;
    if (row.fields != nullptr) {
        content.fields = get_fields(row.fields(), entry.slot, 0, entry.table.record_length);
    }
    if (row.parts == nullptr) {
        return content;
    }
    const tier_columns columns = row.parts->fields();
    each_part(entry, [&](uint32_t k, const void *record) {
        const size_t at = part_offset(entry, k);
        const size_t size = row.parts->size;
        const bool is_told =
            twin != nullptr && row.packed() && memcmp(entry.slot + at, twin + at, size) == 0;
        if (!is_told && (row.parts->is_shown == nullptr || row.parts->is_shown(record))) {
            content.parts.push_back({k, get_fields(columns, record, at, size)});
        }
    });
    return content;
}

/* The members of a JSON object, without braces. */
std::string members(const std::vector<Field> &fields)
{
    std::string text;
    for (const Field &field : fields) {
        text += fmt::format("{}\"{}\":{}", text.empty() ? "" : ",", field.key, field.value);
    }
    return text;
}

/* The parts as JSON: a bitmap is one text, other parts are objects of an array. */
std::string parts_text(const Entry &entry, const std::vector<Part> &parts)
{
    const bool is_bitmap = entry.table.row->parts->fields().front().key.empty();
    std::string text;
    for (const Part &part : parts) {
        const std::string &word = part.fields.front().value;
        if (is_bitmap) {
            text += word.substr(1, word.size() - 2) + ' ';
        } else {
            text += fmt::format("{}{{{}}}", text.empty() ? "" : ",", members(part.fields));
        }
    }
    return fmt::format("{}{}{}", is_bitmap ? '"' : '[', text, is_bitmap ? '"' : ']');
}

/* All fields of an entry in one list, those of its parts under their full names. */
std::vector<Field> flatten(const Entry &entry, Content content)
{
    std::vector<Field> fields = std::move(content.fields);
    for (Part &part : content.parts) {
        const std::string name = part_name(entry, part.k);
        for (Field &field : part.fields) {
            field.key = name + text_if(!field.key.empty(), '.' + field.key);
            fields.push_back(std::move(field));
        }
    }
    return fields;
}

/* The comparison of two slots: which of their bits are in no difference yet. */
class Comparison {
public:
    Comparison(const Entry &a, const Entry &b) : slots_{a.slot, b.slot}
    {
        for (size_t i = 0; i < SIZE_4K; i++) {
            untold_[i] = static_cast<uint8_t>(a.slot[i] ^ b.slot[i]);
        }
    }

    /* One of the fields may be null. */
    void add_field(const Field *a, const Field *b)
    {
        if (a != nullptr && b != nullptr && a->exact == b->exact) {
            return;
        }
        for (const Field *field : {a, b}) {
            if (field != nullptr) {
                tell(*field);
            }
        }
        const Field &either = a != nullptr ? *a : *b;
        found_.push_back(
            {either.key, a != nullptr ? a->exact : ABSENT, b != nullptr ? b->exact : ABSENT});
    }

    void add_bytes()
    {
        const auto differs = [](uint8_t bits) { return bits != 0; };
        for (auto *first = std::ranges::find_if(untold_, differs); first != untold_.end();) {
            auto *end = first + 1;
            auto *next = std::find_if(end, untold_.end(), differs);
            while (next != untold_.end() && next - end <= static_cast<ptrdiff_t>(BYTES_JOINED)) {
                end = next + 1;
                next = std::find_if(end, untold_.end(), differs);
            }
            add_run(static_cast<size_t>(first - untold_.begin()),
                    static_cast<size_t>(end - untold_.begin()));
            first = next;
        }
    }

    std::vector<Difference> take() { return std::move(found_); }

private:
    void tell(const Field &field)
    {
        for (size_t i = 0; i < field.length; i++) {
            const auto bits = static_cast<uint8_t>(field.bits >> 8 * (i % sizeof(field.bits)));
            untold_[field.at + i] = static_cast<uint8_t>(untold_[field.at + i] & ~bits);
        }
    }

    void add_run(size_t first, size_t end)
    {
        const auto digits = [first, end](const uint8_t *slot) {
            const size_t shown = std::min(end - first, BYTES_SHOWN);
            std::string text = "\"";
            for (const uint8_t byte : std::span(slot + first, shown)) {
                text.append(ZUTR_HEX_DIGITS[byte].data(), 2);
            }
            return text.append(shown < end - first ? "...\"" : "\"");
        };
        found_.push_back({fmt::format("bytes {}..{}", first, end - 1), digits(slots_[0]),
                          digits(slots_[1]), first});
    }

    std::array<const uint8_t *, 2> slots_;
    std::array<uint8_t, SIZE_4K> untold_;
    std::vector<Difference> found_;
};

/* The field of that key, usually at `hint`; null: there is none. */
const Field *find_field(const std::vector<Field> &fields, const std::string &key, size_t hint)
{
    if (hint < fields.size() && fields[hint].key == key) {
        return &fields[hint];
    }
    const auto found = std::ranges::find(fields, key, &Field::key);
    return found == fields.end() ? nullptr : &*found;
}

} // namespace

size_t part_offset(const Entry &entry, uint32_t k)
{
    const tier_parts &parts = *entry.table.row->parts;
    const size_t first = parts.at != nullptr ? parts.at(entry.metadata.super()) : 0;
    return first + size_t{k} * parts.size;
}

std::string part_name(const Entry &entry, uint32_t k)
{
    return fmt::format("{}[{}]", entry.table.row->parts->prefix, part_number(entry, k));
}

std::string stretch_text(const Metadata &metadata, const tier_table &row, size_t byte)
{
    if (row.stretches == nullptr) {
        return "";
    }
    for (const tier_stretch &stretch : row.stretches(metadata.super())) {
        if (byte < stretch.end) {
            return fmt::format(" ({})", stretch.name);
        }
    }
    return "";
}

void each_part(const Entry &entry, const std::function<void(uint32_t, const void *)> &use)
{
    const tier_parts &parts = *entry.table.row->parts;
    const void *sb = entry.metadata.super();
    const uint32_t count = parts.count != nullptr ? parts.count(sb) : SIZE_4K / parts.size;
    for (uint32_t k = parts.first; k < count; k++) {
        if (part_offset(entry, k) + parts.size > SIZE_4K) { /* the super block may hold anything */
            return;
        }
        alignas(uint64_t) std::array<uint8_t, 64> record;
        parts.show(sb, entry.slot, entry.no, k, record.data());
        use(k, record.data());
    }
}

std::string entry_text(const Entry &entry)
{
    const Content content = content_of(entry, nullptr);
    std::string text = '{' + members(content.fields);
    if (entry.table.name == SUPER_TABLE) {
        return text + '}';
    }
    text += fmt::format("{}\"meta_offset\":{}", content.fields.empty() ? "" : ",",
                        entry.table.slot(entry.no));
    if (entry.table.row->parts != nullptr && entry.table.fits()) {
        text += fmt::format(",\"{}\":{}", entry.table.row->parts->key,
                            parts_text(entry, content.parts));
    }
    return text + '}';
}

std::vector<Difference> entry_differences(const Entry &a, const Entry &b)
{
    const std::vector<Field> fields_a = flatten(a, content_of(a, b.slot));
    const std::vector<Field> fields_b = flatten(b, content_of(b, a.slot));
    Comparison comparison(a, b);
    for (size_t i = 0; i < fields_a.size(); i++) {
        comparison.add_field(&fields_a[i], find_field(fields_b, fields_a[i].key, i));
    }
    for (size_t i = 0; i < fields_b.size(); i++) {
        if (find_field(fields_a, fields_b[i].key, i) == nullptr) {
            comparison.add_field(nullptr, &fields_b[i]);
        }
    }
    comparison.add_bytes();
    return comparison.take();
}

std::string differences_text(const std::vector<Difference> &differences)
{
    std::string text;
    for (const Difference &difference : differences) {
        text.append("  ").append(difference.key).append(": ").append(difference.a);
        text.append(" -> ").append(difference.b).append("\n");
    }
    return text;
}

std::string differing_fields(const std::vector<Difference> &differences)
{
    constexpr size_t NAMED = 3;
    std::string text;
    for (size_t i = 0; i < std::min(differences.size(), NAMED); i++) {
        text.append(i == 0 ? "" : ", ").append(differences[i].key);
    }
    if (differences.size() > NAMED) {
        text += fmt::format(" and {} more", differences.size() - NAMED);
    }
    return text;
}

} // namespace tierctl
