#include "zu_tier/driver/repair.h"

#include "common/zutr_assert.h"
#include "common/zutr_utils.h"
#include "zu_tier/record/json.h"
#include "zu_tier/record/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr const char *FUNC = "zutr_repair_common";

/* 0 or a negative errno; without the commit flag nothing but a message is written. */
int32_t write_if_committed(zutr_params_t *params, const uint8_t *block, int64_t offset)
{
    if (params->commit == 0) {
        zutr_debug(FUNC, "'commit' flag not set, won't write dev. cmd:%d, conf:%s", params->cmd,
                   params->repair_conf);
        return 0;
    }
    const ssize_t put = zutr_writen(params->fd, block, SIZE_4K, offset);
    if (put != SIZE_4K) {
        zutr_error(FUNC, "write meta on offset %ld failed:%d, cmd:%d, dev:%s, conf:%s", offset,
                   static_cast<int32_t>(put), params->cmd, params->dev_path, params->repair_conf);
        return -EIO;
    }
    params->written = offset;
    return 0;
}

} // namespace

int64_t zutr_build_block(const char *func, zutr_params_t *params, const zutr_repair_t &repair,
                         bool hand_on_errno, zutr_buffer *block)
{
    const int32_t failed = zutr_alloc_aligned(SIZE_4K, block);
    if (failed != 0) {
        zutr_error(func, "posix memalign failed:%d", failed);
        return -ENOMEM;
    }
    memset(block->get(), 0, SIZE_4K);
    const zutr_json document = zutr_json_load(params->repair_conf);
    if (document == nullptr) {
        const int32_t cause = errno;
        zutr_error(func, "load repair conf %s failed:%s", params->repair_conf, strerror(cause));
        return hand_on_errno ? -cause : -EINVAL;
    }
    const int64_t offset = repair.parse(params, document.get(), block->get());
    if (offset < 0) {
        zutr_error(func, "parse meta info failed:%d, cmd:%d, dev:%s, conf:%s",
                   static_cast<int32_t>(offset), params->cmd, params->dev_path,
                   params->repair_conf);
    } else if (repair.print != nullptr) {
        repair.print(block->get(), params->sb, offset, stdout);
    }
    return offset;
}

int32_t zutr_repair_common(zutr_params_t *params, const zutr_repair_t &repair)
{
    zutr_assert(params != nullptr && repair.parse != nullptr, "params && parse_func");
    if (params->repair_conf == nullptr || params->fd < 0) {
        zutr_error(FUNC, "failed to get repair_conf or open repair_conf fd");
        return -EINVAL;
    }
    zutr_buffer block;
    const int64_t offset = zutr_build_block(FUNC, params, repair, false, &block);
    return offset < 0 ? static_cast<int32_t>(offset)
                      : write_if_committed(params, block.get(), offset);
}

ssize_t zutr_repair_readn(int32_t fd, void *buf, size_t nbyte, int64_t offset)
{
    if (fd < 0 || buf == nullptr || nbyte == 0 || nbyte % SIZE_4K != 0) {
        return -1;
    }
    auto *to = static_cast<uint8_t *>(buf);
    size_t runit = 0;
    for (size_t done = 0; done < nbyte; done += runit) {
        runit = std::min<size_t>(nbyte - done, SIZE_1M);
        const int64_t at = zutr_advance(offset, static_cast<int64_t>(done));
        if (zutr_readn(fd, to + done, runit, at) >= 0) {
            continue;
        }
        for (size_t retry = 0; retry < runit / SIZE_4K; retry++) {
            const ssize_t ret = zutr_readn(fd, to + done, SIZE_4K, at);
            if (ret < 0) {
                zutr_error("zutr_repair_readn", "read failed. offset:%ld ret: %ld", at, ret);
                memset(to + done, 0, SIZE_4K);
            }
        }
    }
    return static_cast<ssize_t>(nbyte);
}

bool tier_check_slot(const char *func, int64_t offset)
{
    if (offset < 0) {
        zutr_error(func, "entry offset %ld is invalid", offset);
    }
    return offset >= 0;
}

void zutr_assert_parse(const zutr_params_t *params, const cJSON *document, const void *m,
                       const char *text)
{
    zutr_assert(params != nullptr && params->sb != nullptr && document != nullptr && m != nullptr,
                text);
}
