#include "zu_tier/record/json.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <uuid/uuid.h>

namespace {

constexpr long double TWO_TO_63 = 9223372036854775808.0L;
constexpr long double TWO_TO_31 = 2147483648.0L;
constexpr uint64_t TOP_BIT = 1ULL << 63;

struct file_close {
    void operator()(FILE *file) const { fclose(file); }
};
using file_owner = std::unique_ptr<FILE, file_close>;

/* Gives the number literals of a text that cJSON has accepted, one after the other. */
class number_scanner {
public:
    explicit number_scanner(const char *text) : at_(text) {}

    /* The next literal in memory that cJSON_Delete may free, or null without memory. */
    char *next()
    {
        /* GCOVR_EXCL_BR_START: an accepted text has one */
        while (*at_ != '\0' && *at_ != '-' && isdigit(static_cast<unsigned char>(*at_)) == 0) {
            /* GCOVR_EXCL_BR_STOP */
            if (*at_ == '"') {
                skip_string();
            } else {
                at_++;
            }
        }
        /* cJSON ends a number at the first other character; strtold also reads hexadecimal. */
        const size_t length = strspn(at_, "0123456789+-.eE");
        auto *copy = static_cast<char *>(cJSON_malloc(length + 1));
        if (copy != nullptr) {
            memcpy(copy, at_, length);
            copy[length] = '\0';
            char *end = nullptr;
            strtold(copy, &end);
            *end = '\0';
        }
        at_ += length;
        return copy;
    }

private:
    void skip_string()
    {
        at_++;
        while (*at_ != '\0' && /* GCOVR_EXCL_BR_LINE: an accepted text closes its strings */
               *at_ != '"') {
            at_ += *at_ == '\\' && at_[1] != '\0' ? 2 : 1; /* GCOVR_EXCL_BR_LINE: the same */
        }
        at_ += *at_ == '"' ? 1 : 0; /* GCOVR_EXCL_BR_LINE: the same */
    }

    const char *at_;
};

/* Numbers stand in the text in the order in which a walk of the tree meets them; if the library
 * read a text differently, the values would differ. cJSON bounds the depth of what it parses, and
 * so the depth of this recursion. 0, -ENOMEM or -EINVAL. */
/* NOLINTNEXTLINE(misc-no-recursion): see above */
int32_t attach_literals(cJSON *first, number_scanner &scanner)
{
    int32_t ret = 0;
    for (cJSON *node = first; node != nullptr && ret == 0; node = node->next) {
        if (cJSON_IsNumber(node)) {
            node->valuestring = scanner.next();
            if (node->valuestring == nullptr) {
                return -ENOMEM;
            }
            /* GCOVR_EXCL_START: the library reads every text as it is read here */
            if (strtod(node->valuestring, nullptr) != node->valuedouble) {
                return -EINVAL;
            }
            /* GCOVR_EXCL_STOP */
        }
        ret = attach_literals(node->child, scanner);
    }
    return ret;
}

/* 0 or a negative errno. */
int32_t load(const char *path, zutr_json *document)
{
    if (path == nullptr) {
        return -EINVAL;
    }
    const file_owner file(fopen(path, "r"));
    struct stat st = {};
    if (file == nullptr || fstat(fileno(file.get()), &st) != 0) {
        return -errno;
    }
    if (st.st_size == 0) {
        return -EINVAL;
    }
    const auto size = static_cast<size_t>(st.st_size);
    const zutr_owned<char[]> text(static_cast<char *>(malloc(size + 1)));
    if (text == nullptr) {
        return -errno;
    }
    errno = 0;
    if (fread(text.get(), 1, size, file.get()) < size) {
        const int32_t ret = errno > 0 ? -errno : -EIO;
        zutr_error("zutr_json_load", "fread failed:%s, path:%s", strerror(errno), path);
        return ret;
    }
    text[size] = '\0';
    const int32_t ret = zutr_json_parse(text.get(), document);
    if (*document == nullptr && ret == -EINVAL) {
        zutr_error("zutr_json_load", "cJSON_Parse failed, path:%s", path);
    }
    return ret;
}

/* Truncates toward zero; a number that does not fit becomes the smallest one, as in the processor.
 */
int64_t to_signed(long double number, long double limit)
{
    const long double whole = std::trunc(number);
    return static_cast<int64_t>(whole >= -limit && whole < limit ? whole : -limit);
}

} // namespace

zutr_json zutr_json_load(const char *path)
{
    zutr_json document;
    const int32_t ret = load(path, &document);
    if (ret < 0) {
        errno = -ret;
    }
    return document;
}

int32_t zutr_json_parse(const char *text, zutr_json *document)
{
    document->reset(cJSON_Parse(text));
    if (*document == nullptr) {
        return -EINVAL;
    }
    number_scanner scanner(text);
    const int32_t ret = attach_literals(document->get(), scanner);
    if (ret != 0) {
        document->reset();
    }
    return ret;
}

uint64_t zutr_to_u64(long double number)
{
    if (number >= TWO_TO_63) {
        return static_cast<uint64_t>(to_signed(number - TWO_TO_63, TWO_TO_63)) | TOP_BIT;
    }
    return zutr_to_s64(number);
}

uint64_t zutr_to_s64(long double number)
{
    return static_cast<uint64_t>(to_signed(number, TWO_TO_63));
}

uint64_t zutr_to_s32(long double number)
{
    return static_cast<uint64_t>(to_signed(number, TWO_TO_31));
}

long double zutr_json_number(const cJSON *node) { return strtold(node->valuestring, nullptr); }

void zutr_json_reader::refuse(zutr_log_site site, const char *format, ...)
{
    if (failed_) {
        return;
    }
    failed_ = true;
    va_list args;
    va_start(args, format);
    zutr_verror(site, format, args);
    va_end(args);
}

const cJSON *zutr_json_reader::number(const char *name, zutr_need need)
{
    const cJSON *node = failed_ ? nullptr : item(name);
    if (cJSON_IsNumber(node)) {
        return node;
    }
    if (node != nullptr || need == zutr_need::required) {
        refuse(func_, "parse %s failed", name);
    }
    return nullptr;
}

const char *zutr_json_reader::string(const char *name)
{
    const char *value = failed_ ? nullptr : cJSON_GetStringValue(item(name));
    if (value == nullptr) {
        refuse(func_, "parse %s failed", name);
    }
    return value;
}

void zutr_json_reader::uuid(const char *name, uint8_t *uu)
{
    const char *value = string(name);
    if (value == nullptr) {
        return;
    }
    const int64_t parsed = uuid_parse(value, uu);
    if (parsed != 0) {
        refuse(func_, "parse uuid %s failed:%ld", value, parsed);
        return;
    }
    accepted(name, zutr_uuid_utoa(uu));
}

void zutr_json_reader::text(const char *name, char *field, size_t size)
{
    const char *value = string(name);
    if (value == nullptr) {
        return;
    }
    memset(field, 0, size);
    memcpy(field, value, strnlen(value, size - 1));
    accepted(name, field);
}

uint64_t zutr_json_reader::hex_text(const char *name, size_t limit, const char *label,
                                    uint64_t expected)
{
    const char *whole = string(name);
    if (whole == nullptr) {
        return 0;
    }
    std::array<char, 32> copy{};
    memcpy(copy.data(), whole, strnlen(whole, limit));
    errno = 0;
    const uint64_t value = strtoul(copy.data(), nullptr, 16);
    if (errno != 0 || (expected != 0 && value != expected)) {
        refuse(func_, "%s %s is invalid:%s. cmd:%d", label, copy.data(), strerror(errno), cmd_);
        return 0;
    }
    accepted(name, copy.data());
    return value;
}

void zutr_json_reader::accepted(const char *name, uint64_t value) const
{
    zutr_debug(func_, "%s: %lu", name, value);
}

void zutr_json_reader::accepted(const char *name, const char *text) const
{
    zutr_debug(func_, "%s: %s", name, text);
}
