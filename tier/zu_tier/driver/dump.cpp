#include "zu_tier/driver/dump.h"

#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/record/log.h"
#include "zu_tier/record/text.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr const char *FUNC = "zutr_dump_common";

/* One call of the driver. */
struct table_dump {
    zutr_params_t *params;
    const char *meta_type;
    int64_t meta_start;
    int32_t max_cnt;
    meta_format_func_t format_func;
    uint8_t *buffer;
    const char *delim = "";
    int32_t next = 0; /* entries already walked */

    int32_t entry() const;
    int32_t walk();
    void chunk(int64_t offset, uint32_t len);
    int32_t reread(int32_t entry_no, int64_t chunk_offset, uint32_t within) const;
    void print_error(int32_t ret, int32_t entry_no, int64_t offset) const;
};

int32_t table_dump::entry() const
{
    const auto index = static_cast<int32_t>(static_cast<uint32_t>(params->meta_no) -
                                            static_cast<uint32_t>(params->base_no));
    const int64_t offset = zutr_advance(meta_start, int64_t{index} * SIZE_4K);
    const ssize_t got = zutr_readn(params->fd, buffer, SIZE_4K, offset);
    if (got != SIZE_4K) {
        zutr_error(FUNC, "read %s %d failed:%d, offset:%ld", meta_type, params->meta_no,
                   static_cast<int32_t>(got), offset);
        return -EIO;
    }
    return std::min(format_func(params->meta_no, buffer, "", params), 0);
}

int32_t table_dump::walk()
{
    zutr_write(params->out_fp, "[");
    const int64_t end = zutr_advance(meta_start, int64_t{max_cnt} * SIZE_4K);
    int64_t offset = meta_start;
    while (offset < end) {
        const auto len = static_cast<uint32_t>(std::min<int64_t>(SIZE_1M, end - offset));
        zutr_assert(len % SIZE_4K == 0, "len % SIZE_4K == 0");
        chunk(offset, len);
        offset += len;
    }
    zutr_write(params->out_fp, "]");
    return 0;
}

void table_dump::chunk(int64_t offset, uint32_t len)
{
    const ssize_t got = zutr_readn(params->fd, buffer, len, offset);
    const bool whole = got == static_cast<ssize_t>(len);
    if (!whole) {
        zutr_debug(FUNC, "read %s failed:%d, offset:%ld, len:%d", meta_type,
                   static_cast<int32_t>(got), offset, static_cast<int32_t>(len));
    }
    for (uint32_t within = 0; within < len; within += SIZE_4K, next++) {
        const auto entry_no = static_cast<int32_t>(static_cast<uint32_t>(next) +
                                                   static_cast<uint32_t>(params->base_no));
        const int32_t ret = whole ? format_func(entry_no, buffer + within, delim, params)
                                  : reread(entry_no, offset, within);
        const bool is_error = ret < 0 && params->filter.error != 0;
        if (is_error) {
            print_error(ret, entry_no, offset + within);
        }
        if (ret == 0 || is_error) {
            delim = ",";
        }
    }
}

/* The block at `within` of a chunk that could not be read as a whole. */
int32_t table_dump::reread(int32_t entry_no, int64_t chunk_offset, uint32_t within) const
{
    const ssize_t got = zutr_readn(params->fd, buffer, SIZE_4K, chunk_offset + within);
    if (got != SIZE_4K) {
        zutr_debug(FUNC, "read %s %d failed:%d, offset:%ld", meta_type, entry_no,
                   static_cast<int32_t>(got), chunk_offset);
        return -EIO;
    }
    return format_func(entry_no, buffer, delim, params);
}

/* An error record in the place of an entry. */
void table_dump::print_error(int32_t ret, int32_t entry_no, int64_t offset) const
{
    zutr_text out(params->out_fp);
    out.put(delim);
    out.put("{\"error\":");
    out.signed_decimal(-ret);
    out.put(", \"");
    out.put(meta_type);
    out.put("\":");
    out.signed_decimal(entry_no);
    out.put(", \"meta_offset\":");
    out.signed_decimal(offset);
    out.put("}");
}

} // namespace

int32_t zutr_dump_common(zutr_params_t *params, const char *meta_type, int64_t meta_start,
                         int32_t max_cnt, meta_format_func_t format_func)
{
    zutr_assert(params != nullptr && meta_type != nullptr && max_cnt > 0 && format_func != nullptr,
                "params && meta_type && max_cnt > 0 && format_func");
    zutr_assert(params->fd >= 0 && params->out_fp != nullptr, "params->fd >= 0 && params->out_fp");
    zutr_assert(meta_start % SIZE_4K == 0, "meta_start % SIZE_4K == 0");
    if (params->meta_no >= max_cnt) {
        zutr_error(FUNC, "invalid %s %d, max cnt:%u", meta_type, params->meta_no,
                   static_cast<uint32_t>(max_cnt));
        return -EINVAL;
    }
    zutr_buffer buffer;
    const int32_t ret = zutr_alloc_aligned(SIZE_1M, &buffer);
    if (ret != 0) {
        zutr_error(FUNC, "posix memalign failed:%d, %s:%d", ret, meta_type, params->meta_no);
        return -ENOMEM;
    }
    table_dump dump = {params, meta_type, meta_start, max_cnt, format_func, buffer.get()};
    return params->meta_no >= 0 ? dump.entry() : dump.walk();
}

void zutr_assert_entry(int32_t no, const void *meta, const char *delim, const zutr_params_t *params)
{
    zutr_assert(no >= 0 && meta != nullptr && delim != nullptr && params != nullptr,
                "no >= 0 && meta && delim && params");
}

void zutr_assert_super(const zutr_params_t *params, zutr_super_check_t check,
                       const char *super_text)
{
    zutr_assert(params != nullptr && params->sb != nullptr && params->fd >= 0,
                "params && params->sb && params->fd >= 0");
    zutr_assert(check(params->sb) == 0, super_text);
}
