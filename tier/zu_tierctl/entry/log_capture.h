#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace tierctl {

struct CloseStream {
    void operator()(FILE *stream) const { fclose(stream); }
};

/* Keeps the tool's log from its file and from standard error during its lifetime. */
class LogCapture {
public:
    LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    ~LogCapture();

    /* The ERROR messages so far, without what precedes their text, which may have several lines. */
    std::vector<std::string> messages() const;

private:
    using Stream = std::unique_ptr<FILE, CloseStream>;

    struct FreeText {
        void operator()(char **text) const;
    };

    char *text_ = nullptr; /* of the errors */
    size_t size_ = 0;
    std::unique_ptr<char *, FreeText> owner_{
        &text_}; /* frees the text after its stream is closed */
    Stream errors_;
    Stream log_; /* drops what is written to it */
};

} // namespace tierctl
