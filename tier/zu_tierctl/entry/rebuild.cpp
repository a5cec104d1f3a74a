#include "zu_tierctl/entry/rebuild.h"

#include "zu_tierctl/device/error.h"

#include <cstdlib>
#include <new>
#include <sstream>

namespace tierctl {

namespace {

/* A stream into memory. */
class MemoryStream {
public:
    MemoryStream() : stream_(open_memstream(&text_, &size_))
    {
        if (stream_ == nullptr) {
            throw std::bad_alloc();
        }
    }
    MemoryStream(const MemoryStream &) = delete;
    MemoryStream &operator=(const MemoryStream &) = delete;
    ~MemoryStream()
    {
        fclose(stream_);
        free(text_);
    }

    FILE *get() const { return stream_; }
    std::string text() const
    {
        fflush(stream_);
        return {text_, size_};
    }

private:
    char *text_ = nullptr;
    size_t size_ = 0;
    FILE *stream_;
};

/* Sends the tool's log to memory during its lifetime. */
class LogCapture {
public:
    LogCapture() { zutr_redirect_log(log_.get(), errors_.get()); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    ~LogCapture() { zutr_redirect_log(nullptr, nullptr); }

    /* The messages of what was written, "[ERROR] [function:line] message"; the text of a message
     * may go on in other lines. */
    std::vector<std::string> messages() const
    {
        std::vector<std::string> messages;
        std::istringstream lines(errors_.text());
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("[ERROR] [")) {
                messages.push_back(line.substr(line.find("] ", line.find("] ") + 2) + 2));
            } else {
                messages.back() += '\n' + line;
            }
        }
        return messages;
    }

private:
    MemoryStream log_;
    MemoryStream errors_;
};

} // namespace

Rebuilt rebuild(const Device &device, const Metadata &metadata, const Table &table,
                const std::string &text, bool force)
{
    zutr_json document;
    if (zutr_json_parse(text.c_str(), &document) != 0) {
        return {std::nullopt, {"it is no valid JSON"}};
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
    if (table.row->repair.parse(&params, document.get(), rebuilt.block->data()) < 0) {
        rebuilt.block.reset();
    }
    rebuilt.messages = log.messages();
    return rebuilt;
}

} // namespace tierctl
