#include "zu_tierctl/entry/log_capture.h"

#include "zu_tier/record/log.h"

#include <cstdlib>
#include <new>
#include <sstream>

namespace tierctl {

LogCapture::LogCapture()
    : errors_(open_memstream(&text_, &size_)), log_(fopencookie(nullptr, "w", {}))
{
    if (errors_ == nullptr || log_ == nullptr) {
        throw std::bad_alloc();
    }
    zutr_redirect_log(log_.get(), errors_.get());
}

LogCapture::~LogCapture() { zutr_redirect_log(nullptr, nullptr); }

void LogCapture::FreeText::operator()(char **text) const { free(*text); }

std::vector<std::string> LogCapture::messages() const
{
    fflush(errors_.get());
    std::vector<std::string> messages;
    std::istringstream lines(std::string(text_, size_));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("[ERROR] [")) {
            messages.push_back(line.substr(line.find("] ", line.find("] ") + 2) + 2));
        } else if (!messages.empty()) {
            messages.back() += '\n' + line;
        }
    }
    return messages;
}

} // namespace tierctl
