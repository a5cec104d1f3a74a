#pragma once

#include "zu_tier/record/json.h"
#include "zu_tier/record/record.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/metadata.h"
#include "zu_tierctl/template/json.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace tierctl {

/* A repair file in the making, and what is to be said of it: an entry as it stands, and the block
 * that a repair makes of the file. */

/* A part of a slot, up to, but not at, `end`; it begins where the one before ends. */
struct Stretch {
    std::string_view name; /* empty: it has none */
    size_t end;
};

/* A field of a record, and how its bytes are shown. */
struct StoredField {
    std::string_view key;
    zutr_form form;
    size_t at;
    size_t size;
    std::string (*show)(zutr_form form, const uint8_t *bytes);
};

struct Draft {
    const Device &device;
    const Table &table;
    uint64_t no;
    const uint8_t *block; /* as it stands */
    alignas(uint64_t) std::array<uint8_t, SIZE_4K> repaired{};
    TemplateJson file{};
    std::vector<std::string> notes{};
    std::vector<std::string> refusals{}; /* why the tool does not take the file as it is */

    /* The entry as it stands. */
    template <class Record>
    Record record() const
    {
        Record record;
        memcpy(&record, block, sizeof(record));
        return record;
    }

    /* The entry that the repair makes, at byte `at` of its block. */
    template <class Record>
    void repair(const Record &record, size_t at = 0)
    {
        memcpy(repaired.data() + at, &record, sizeof(record));
    }

    void note(std::string text) { notes.push_back(std::move(text)); }
    void note_change(std::string_view what, const std::string &before, const std::string &after);
    void note_field(const StoredField &field);
    void note_number_change(const std::string &what, uint64_t before, uint64_t after);
    void note_refusal(std::string_view why) { refusals.emplace_back(why); }

    /* Says of each area, the first of which begins at byte `begin`, what the repair clears. */
    void note_cleared(size_t begin, std::span<const Stretch> areas);

    /* Puts the text that a field holds into the file as far as JSON takes it, and gives that. */
    std::string text(const char *key, std::string_view stored);

    template <const auto &Fields, class Record>
    void note_fields();
};

/* "0x1f" */
std::string hex_text(uint64_t value);

/* Copies the members that keys name from an entry as it stands to the file and, as far as the
 * repair reads them, to the zeroed entry that it makes. */
template <class Record>
class Carrier {
public:
    Carrier(Draft &draft, const Record &from, Record &to, bool read = true)
        : draft_(draft), from_(from), to_(to), read_(read)
    {
    }

    Draft &draft() const { return draft_; }
    const Record &from() const { return from_; }
    Record &to() const { return to_; }

    template <class Member>
    void carry(const zutr_key<Record, Member> &key) const
    {
        const Member &value = from_.*key.member;
        Member &repaired = to_.*key.member;
        if constexpr (std::is_same_v<std::remove_extent_t<Member>, char>) {
            const std::string text = draft_.text(key.name, zutr_bounded(value));
            if (read_) {
                text.copy(repaired, sizeof(Member) - 1);
            }
            return;
        } else if constexpr (std::is_array_v<Member>) {
            static_assert(sizeof(Member) == 16);
            draft_.file.text(key.name, zutr_uuid_utoa(value));
        } else {
            draft_.file.number(key.name, static_cast<std::make_unsigned_t<Member>>(value));
        }
        if (read_) {
            memcpy(&repaired, &value, sizeof(value));
        }
    }

    template <class... Members>
    void carry(const std::tuple<zutr_key<Record, Members>...> &keys) const
    {
        std::apply([this](const auto &...key) { (carry(key), ...); }, keys);
    }

private:
    Draft &draft_;
    const Record &from_;
    Record &to_;
    bool read_;
};

/* A number as the tool prints it in this form; a time, which would lose digits, also as it is. */
std::string shown_number(zutr_form form, uint64_t value);

/* The bytes of a value as people are told of it. Different values never look alike. */
template <class Member>
std::string shown_bytes(zutr_form form, const uint8_t *bytes)
{
    if constexpr (std::is_same_v<std::remove_extent_t<Member>, char>) {
        const std::string_view whole(reinterpret_cast<const char *>(bytes), sizeof(Member));
        return quoted(whole.substr(0, whole.find_last_not_of('\0') + 1));
    } else if constexpr (std::is_array_v<Member>) {
        return zutr_uuid_utoa(bytes);
    } else {
        Member value;
        memcpy(&value, bytes, sizeof(value));
        return shown_number(form, value);
    }
}

template <class Field>
constexpr size_t stored_size()
{
    if constexpr (requires(Field field) { field.member; }) {
        return sizeof(typename Field::member_type);
    }
    return 0;
}

template <class Record, class... Fields>
constexpr bool covers(const std::tuple<Fields...> &)
{
    return (stored_size<Fields>() + ...) == sizeof(Record);
}

/* Says of each field of the table, which together make up the record, what the repair changes. */
template <const auto &Fields, class Record>
void Draft::note_fields()
{
    static_assert(covers<Record>(Fields));
    static constexpr Record AT_ZERO{};
    const auto tell = [this](const auto &field) {
        if constexpr (requires { field.member; }) {
            using member = typename std::remove_cvref_t<decltype(field)>::member_type;
            const auto at = reinterpret_cast<const uint8_t *>(&(AT_ZERO.*field.member)) -
                            reinterpret_cast<const uint8_t *>(&AT_ZERO);
            note_field({field.key, field.form, static_cast<size_t>(at), sizeof(member),
                        shown_bytes<member>});
        }
    };
    std::apply([&](const auto &...field) { (tell(field), ...); }, Fields);
}

} // namespace tierctl
