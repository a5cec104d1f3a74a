#pragma once

#include "common/zutr_utils.h"
#include "zu_tier/record/log.h"

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
 * from a text (cut to leave a terminator), an integer from a number (low bits kept). */
template <class Record, class Member>
struct zutr_key {
    const char *name;
    Member Record::*member;
    uint64_t (*convert)(long double) = nullptr;
    zutr_need need = zutr_need::required;
};
template <class Record, class Member>
zutr_key(const char *, Member Record::*, uint64_t (*)(long double) = nullptr, zutr_need = {})
    -> zutr_key<Record, Member>;

/* Reads the keys of one JSON object. Messages carry the name `func` of the parser on whose behalf
 * it reads: ERROR when a key cannot be read, DEBUG with the value that was stored. Every read gives
 * 0 or -EINVAL. */
class zutr_json_reader {
public:
    zutr_json_reader(const char *func, const cJSON *object) : func_(func), object_(object) {}

    /* Looks for a number; `*node` stays null when an optional key is absent. */
    int32_t number(const char *name, zutr_need need, const cJSON **node) const;
    int32_t string(const char *name, const char **text) const;
    int32_t uuid(const char *name, uint8_t *uu) const;
    /* Copies at most `size` - 1 bytes and fills the rest with zeros. */
    int32_t text(const char *name, char *field, size_t size) const;

    /* Reads a number of which the low `width` bits, 1 to 64, count; `*value` keeps what it had when
     * an optional key is absent. */
    int32_t bits(const char *name, zutr_need need, uint64_t (*convert)(long double), uint32_t width,
                 uint64_t *value) const;

    void accepted(const char *name, uint64_t value) const;
    void accepted(const char *name, const char *text) const;

    template <class Record, class Member>
    int32_t read(const zutr_key<Record, Member> &key, Record *record) const
    {
        Member &member = record->*key.member;
        if constexpr (!std::is_array_v<Member>) {
            const cJSON *node = nullptr;
            const int32_t ret = number(key.name, key.need, &node);
            if (node != nullptr) {
                member = static_cast<Member>(key.convert(zutr_json_number(node)));
                accepted(key.name, static_cast<uint64_t>(member));
            }
            return ret;
        } else if constexpr (std::is_same_v<std::remove_extent_t<Member>, char>) {
            return text(key.name, member, sizeof(member));
        } else {
            static_assert(sizeof(Member) == 16);
            return uuid(key.name, member);
        }
    }

    /* Reads the keys in the order of the table, up to the first that fails. */
    template <class Record, class... Members>
    int32_t read(const std::tuple<zutr_key<Record, Members>...> &keys, Record *record) const
    {
        int32_t ret = 0;
        std::apply(
            [&](const auto &...key) {
                static_cast<void>((((ret = read(key, record)) == 0) && ...));
            },
            keys);
        return ret;
    }

    const char *func() const { return func_; }
    const cJSON *object() const { return object_; }

private:
    const char *func_;
    const cJSON *object_;
};
