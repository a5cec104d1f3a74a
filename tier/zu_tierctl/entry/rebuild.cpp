#include "zu_tierctl/entry/rebuild.h"

#include "zu_tierctl/entry/log_capture.h"

namespace tierctl {

Rebuilt rebuild(const Device &device, const Metadata &metadata, const Table &table,
                const std::string &text, bool force)
{
    zutr_json document;
    if (zutr_json_parse(text.c_str(), &document) != 0) {
        return {std::nullopt, {"it is no valid JSON"}, -1};
    }
    Block super_block = metadata.super_block;
    zutr_params_t params = {};
    params.fd = device.fd();
    params.cmd = ZUTR_CMD_REPAIR_SUPER;
    params.sb = super_block.data();
    params.meta_no = -1;
    params.force = force ? 1 : 0;
    const LogCapture log;
    Rebuilt rebuilt;
    rebuilt.block.emplace();
    rebuilt.block->fill(0);
    rebuilt.offset = table.row->repair.parse(&params, document.get(), rebuilt.block->data());
    if (rebuilt.offset < 0) {
        rebuilt.block.reset();
    }
    rebuilt.messages = log.messages();
    return rebuilt;
}

} // namespace tierctl
