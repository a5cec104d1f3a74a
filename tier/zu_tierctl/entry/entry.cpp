#include "zu_tierctl/entry/entry.h"

#include "zu_tierctl/entry/entry_fields.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

namespace tierctl {

namespace {

constexpr size_t BYTES_SHOWN = 32;

/* Runs of bytes with no more than so many equal ones between them are told as one. */
constexpr size_t BYTES_JOINED = 8;

constexpr const char ABSENT[] = "null";

/* The members of a JSON object, without braces. */
std::string members(const std::vector<Field> &fields)
{
    std::string text;
    for (const Field &field : fields) {
        text.append(text.empty() ? "\"" : ",\"").append(field.key).append("\":");
        text.append(field.value);
    }
    return text;
}

bool has_bitmap(const EntryFields &entry)
{
    return entry.parts_key == "te_bitmap";
}

/* A bitmap is one text, other parts are objects of an array. */
std::string parts_text(const EntryFields &entry)
{
    std::string text;
    for (const Part &part : entry.parts) {
        if (has_bitmap(entry)) {
            text += part.fields.front().value + ' ';
        } else {
            text.append(text.empty() ? "{" : ",{").append(members(part.fields)).append("}");
        }
    }
    return text;
}

/* All fields of an entry in one list, those of its parts under their full names. */
std::vector<Field> flatten(EntryFields entry)
{
    std::vector<Field> fields = std::move(entry.fields);
    for (Part &part : entry.parts) {
        const std::string name =
            std::string(entry.part_prefix) + '[' + std::to_string(part.no) + ']';
        for (Field &field : part.fields) {
            field.key = field.key.empty() ? name : name + '.' + field.key;
            fields.push_back(std::move(field));
        }
    }
    return fields;
}

/* The comparison of two slots: which of their bits no difference has told yet. */
class comparison {
public:
    comparison(const Entry &a, const Entry &b) : slots_{a.slot, b.slot}
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
        found_.push_back({"bytes " + std::to_string(first) + ".." + std::to_string(end - 1),
                          digits(slots_[0]), digits(slots_[1])});
    }

    std::array<const uint8_t *, 2> slots_;
    std::array<uint8_t, SIZE_4K> untold_;
    std::vector<Difference> found_;
};

/* The field of that key, which is mostly at `hint`; null: there is none. */
const Field *find_field(const std::vector<Field> &fields, const std::string &key, size_t hint)
{
    if (hint < fields.size() && fields[hint].key == key) {
        return &fields[hint];
    }
    const auto found = std::ranges::find(fields, key, &Field::key);
    return found == fields.end() ? nullptr : &*found;
}

} // namespace

std::string entry_text(const Entry &entry)
{
    const EntryFields got = get_entry(entry, nullptr);
    std::string text = "{";
    text += members(got.fields);
    if (entry.table.name == SUPER_TABLE) {
        return text + '}';
    }
    const bool has_array = !got.parts_key.empty() && !has_bitmap(got);
    text.append(got.fields.empty() ? "" : ",")
        .append(has_array ? "\"meta_offset\": " : "\"meta_offset\":");
    text += std::to_string(entry.table.slot(entry.no));
    if (!got.parts_key.empty()) {
        text.append(",\"").append(got.parts_key).append(has_array ? "\":[" : "\":\"");
        text.append(parts_text(got)).append(has_array ? "]" : "\"");
    }
    return text + '}';
}

std::vector<Difference> entry_differences(const Entry &a, const Entry &b)
{
    const std::vector<Field> fields_a = flatten(get_entry(a, b.slot));
    const std::vector<Field> fields_b = flatten(get_entry(b, a.slot));
    comparison comparison(a, b);
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

} // namespace tierctl
