#pragma once

#include "common/zutr_utils.h"
#include "zu_tier/format/bits.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/record.h"

#include <cjson/cJSON.h>
#include <cstdint>
#include <memory>
#include <tuple>
#include <type_traits>

/* Repair files: a JSON tree whose numbers are exact, and the reading of records from it by tables
 * of keys. */

struct zutr_json_free {
    void operator()(cJSON *document) const { cJSON_Delete(document); }
};
using zutr_json = std::unique_ptr<cJSON, zutr_json_free>;

/* The parsed document in the file at `path`, or null with errno set. Each number node carries its
 * literal as `valuestring`, since `valuedouble` is exact only up to 2^53. */
zutr_json zutr_json_load(const char *path);

/* The same of a text: 0, -EINVAL when it is no JSON, or -ENOMEM. */
int32_t zutr_json_parse(const char *text, zutr_json *document);

/* The three ways a JSON number becomes the bits of an integer; all drop the fraction. A number
 * outside the signed range (after 2^63 was subtracted, for zutr_to_u64 of numbers from 2^63 up)
 * yields the smallest signed number, as the processor's conversion instruction does. */
uint64_t zutr_to_u64(long double number); /* negative numbers keep their two's complement */
uint64_t zutr_to_s64(long double number);
uint64_t zutr_to_s32(long double number);

/* The value of a number node of a document from zutr_json_load. */
long double zutr_json_number(const cJSON *node);

enum class zutr_need { required, optional };

/* One key of a repair file and the member that it fills: 16 bytes from a UUID text, a char array
 * from a text (cut to leave a terminator), an integer from a number (low bits kept). A dump shows
 * the member as a field. */
template <class Record, class Member>
struct zutr_key {
    using member_type = Member;
    static constexpr zutr_form form = zutr_form::plain;
    const char *key;
    Member Record::*member;
    uint64_t (*convert)(long double) = nullptr;
    zutr_need need = zutr_need::required;
    bool swapped = false; /* the bytes are stored in reverse */
};
template <class Record, class Member>
zutr_key(const char *, Member Record::*, uint64_t (*)(long double) = nullptr, zutr_need = {},
         bool = false) -> zutr_key<Record, Member>;

/* A key of which bits of a member keep the low bits. */
template <class Record, class Member>
struct zutr_bits_key {
    tier_bits bits;
    Member Record::*member;
    zutr_need need = zutr_need::required;
    const char *key = bits.key;
};
template <class Record, class Member>
zutr_bits_key(tier_bits, Member Record::*, zutr_need = {}, const char * = {})
    -> zutr_bits_key<Record, Member>;

/* A key that holds a hexadecimal number as text, of which at most `limit` characters count, 31 or
 * fewer; the number ends before the first character that is no such digit. `form` is that of a
 * dump. */
template <class Record, class Member>
struct zutr_hex_key {
    using member_type = Member;
    const char *key;
    Member Record::*member;
    zutr_form form;
    size_t limit;
    const char *label;    /* of the key, in the message about an invalid text */
    Member expected = {}; /* 0: any number */
};
template <class Record, class Member>
zutr_hex_key(const char *, Member Record::*, zutr_form, size_t, const char *, Member = {})
    -> zutr_hex_key<Record, Member>;

/* Reads the keys of JSON objects on behalf of the parser `func`, whose name its messages carry:
 * ERROR when a key cannot be read, DEBUG with the value that was stored. It remembers its first
 * error; after that it reads and logs nothing. */
class zutr_json_reader {
public:
    /* `cmd`, the command's number, only appears in messages. */
    zutr_json_reader(const char *func, const cJSON *object, int32_t cmd = 0)
        : func_(func), object_(object), cmd_(cmd)
    {
    }

    bool failed() const { return failed_; }

    /* Refuses what has been read. Logs the reason unless there was an error already. */
    [[gnu::format(printf, 3, 4)]] void refuse(zutr_log_site site, const char *format, ...);

    const char *func() const { return func_; }

    /* The item of that name, or null. */
    const cJSON *item(const char *name) const { return cJSON_GetObjectItem(object_, name); }

    /* Calls `use(index)` for each item of an array, while it reads from that item: up to the first
     * error. */
    template <class Use>
    void each(const cJSON *array, const Use &use)
    {
        const cJSON *outer = object_;
        int32_t index = 0;
        for (object_ = array->child; object_ != nullptr && !failed_; object_ = object_->next) {
            use(index++);
        }
        object_ = outer;
    }

    /* The object it reads from. */
    const cJSON *object() const { return object_; }

    template <class Record, class Member, class Target>
    void read(const zutr_key<Record, Member> &key, Target *record)
    {
        Member &member = record->*key.member;
        if constexpr (!std::is_array_v<Member>) {
            if (const cJSON *node = number(key.key, key.need)) {
                member = static_cast<Member>(key.convert(zutr_json_number(node)));
                accepted(key.key, static_cast<uint64_t>(member));
                if constexpr (std::is_same_v<Member, uint32_t>) {
                    member = key.swapped ? __builtin_bswap32(member) : member;
                }
            }
        } else if constexpr (std::is_same_v<std::remove_extent_t<Member>, char>) {
            text(key.key, member, sizeof(member));
        } else {
            static_assert(sizeof(Member) == 16);
            uuid(key.key, member);
        }
    }

    template <class Record, class Member, class Target>
    void read(const zutr_bits_key<Record, Member> &key, Target *record)
    {
        if (const cJSON *node = number(key.key, key.need)) {
            Member &member = record->*key.member;
            member = static_cast<Member>(key.bits.put(member, zutr_to_u64(zutr_json_number(node))));
            accepted(key.key, key.bits.get(member));
        }
    }

    template <class Record, class Member, class Target>
    void read(const zutr_hex_key<Record, Member> &key, Target *record)
    {
        record->*key.member =
            static_cast<Member>(hex_text(key.key, key.limit, key.label, uint64_t{key.expected}));
    }

    /* Reads the keys in the order of the table. */
    template <class... Keys, class Target>
    void read(const std::tuple<Keys...> &keys, Target *record)
    {
        std::apply([&](const auto &...key) { (read(key, record), ...); }, keys);
    }

private:
    /* The node of a number; null when an optional key is absent, or after an error. */
    const cJSON *number(const char *name, zutr_need need);
    /* Null after an error. */
    const char *string(const char *name);
    void uuid(const char *name, uint8_t *uu);
    /* Copies at most `size` - 1 bytes and fills the rest with zeros. */
    void text(const char *name, char *field, size_t size);
    uint64_t hex_text(const char *name, size_t limit, const char *label, uint64_t expected);

    void accepted(const char *name, uint64_t value) const;
    void accepted(const char *name, const char *text) const;

    const char *func_;
    const cJSON *object_;
    int32_t cmd_;
    bool failed_ = false;
};
