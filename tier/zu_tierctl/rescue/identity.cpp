#include "zu_tierctl/rescue/identity.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/fields.h"

#include <algorithm>
#include <fmt/format.h>
#include <uuid/uuid.h>

namespace tierctl {

namespace {

/* Times of creation that can be true: from 2010 to 2100, in nanoseconds since the epoch. */
constexpr uint64_t CTIME_MIN = 1262304000ULL * 1000000000;
constexpr uint64_t CTIME_MAX = 4102444800ULL * 1000000000;

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

/* Null: the command line gives no such value. */
const Identity *find_identity(std::string_view key)
{
    const auto *identity = std::ranges::find(IDENTITIES, key, &Identity::key);
    return identity == std::end(IDENTITIES) ? nullptr : identity;
}

} // namespace

bool is_identity(const tier_column &column)
{
    return column.type != tier_column_type::number || column.form == zutr_form::hex_and_time;
}

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

std::string given_value(std::string_view key, const RescueOptions &options)
{
    const Identity *identity = find_identity(key);
    if (identity == nullptr || (options.*identity->given).empty()) {
        return "";
    }
    return identity->check(options.*identity->given);
}

void check_given_values(const RescueOptions &options)
{
    for (const Identity &identity : IDENTITIES) {
        given_value(identity.key, options);
    }
}

std::string identity_line(const IdentityValue &value)
{
    if (value.json != NO_VALUE) {
        return fmt::format("{} {}, {}: {}", value.key, value.json, certainty_text(value.certainty),
                           value.reason);
    }
    const Identity *identity = find_identity(value.key);
    std::string way = "give ";
    if (identity != nullptr) {
        way += fmt::format("it with {}, or ", identity->option);
    }
    return fmt::format(
        "{} is in no table: the file has null, which zu_tier refuses; {}a saved file "
        "of this cache with --like{}",
        value.key, way,
        text_if(!value.reason.empty(), fmt::format("; not certain: {}", value.reason)));
}

} // namespace tierctl
