#include "zu_tierctl/sample/random.h"

#include "zu_tier/format/records.h"

#include <string_view>

namespace tierctl {

namespace {

constexpr std::string_view ALPHANUMERIC =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

} // namespace

bool Random::in_use(uint64_t no, uint64_t count)
{
    return no == 0 || (no + 1 < count && !one_in(4));
}

void Random::uuid(uint8_t *uuid)
{
    for (int i = 0; i < 16; i++) {
        uuid[i] = static_cast<uint8_t>(below(256));
    }
    uuid[6] = static_cast<uint8_t>((uuid[6] & 0x0F) | 0x40); /* version 4: random */
    uuid[8] = static_cast<uint8_t>((uuid[8] & 0x3F) | 0x80); /* the variant of RFC 4122 */
}

std::string Random::volume_id()
{
    std::string id = TIER_SSD_UUID_SAMPLE;
    for (char &c : id) {
        if (c != '-') {
            c = ALPHANUMERIC[below(ALPHANUMERIC.size())];
        }
    }
    return id;
}

} // namespace tierctl
