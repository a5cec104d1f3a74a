#include "zu_tier/layout/super.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

/* A key that holds a hexadecimal number as text, of which at most `limit` characters count. */
class hex_text {
public:
    int32_t read(const zutr_json_reader &in, const char *name, size_t limit)
    {
        const char *whole = nullptr;
        const int32_t ret = in.string(name, &whole);
        if (ret == 0) {
            memcpy(copy_.data(), whole, strnlen(whole, limit));
            errno = 0;
            value_ = strtoul(copy_.data(), nullptr, 16);
            error_ = errno;
        }
        return ret;
    }
    const char *text() const { return copy_.data(); }
    uint64_t value() const { return value_; }
    int32_t error() const { return error_; }

private:
    std::array<char, 32> copy_{};
    uint64_t value_ = 0;
    int32_t error_ = 0;
};

constexpr size_t CTIME_LENGTH = 18; /* "0x" and 16 digits */
constexpr size_t VERSION_LENGTH = 31;

} // namespace

int32_t tier_read_ctime(const zutr_json_reader &in, zutr_cmd_t cmd, uint64_t *ctime)
{
    hex_text number;
    const int32_t ret = number.read(in, "ctime", CTIME_LENGTH);
    if (ret != 0) {
        return ret;
    }
    if (number.error() != 0) {
        zutr_error(in.func(), "ctime %s is invalid:%s. cmd:%d", number.text(),
                   strerror(number.error()), cmd);
        return -EINVAL;
    }
    *ctime = number.value();
    in.accepted("ctime", number.text());
    return 0;
}

int32_t tier_read_version(const zutr_json_reader &in, zutr_cmd_t cmd, uint32_t expected,
                          uint32_t *version)
{
    hex_text number;
    const int32_t ret = number.read(in, "version", VERSION_LENGTH);
    if (ret != 0) {
        return ret;
    }
    if (number.error() != 0 || (expected != 0 && number.value() != expected)) {
        zutr_error(in.func(), "version str %s is invalid:%s. cmd:%d", number.text(),
                   strerror(number.error()), cmd);
        return -EINVAL;
    }
    *version = static_cast<uint32_t>(number.value());
    in.accepted("version", number.text());
    return 0;
}

int32_t tier_check_ssd_uuid(const char *func, const char (&ssd_uuid)[48])
{
    const auto length = static_cast<int64_t>(zutr_bounded(ssd_uuid).size());
    constexpr auto EXPECTED = static_cast<int64_t>(TIER_SSD_UUID_LEN);
    if (length != EXPECTED) {
        zutr_error(func, "ssd uuid(%.*s) length(%ld) is invalid. expect:%ld",
                   static_cast<int>(length), ssd_uuid, length, EXPECTED);
        return -EINVAL;
    }
    return static_cast<int32_t>(length);
}
