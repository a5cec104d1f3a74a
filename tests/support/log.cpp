#include "log.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <regex>

namespace tier_test {

LogLine error_line(std::string func, std::string text)
{
    return {"ERROR", std::move(func), std::move(text)};
}

LogLine debug_line(std::string func, std::string text)
{
    return {"DEBUG", std::move(func), std::move(text)};
}

LogLine raw_text(std::string text) { return {"", "", std::move(text)}; }

Log parse_log(std::string_view content)
{
    static const std::regex HEAD(R"(\[(ERROR|DEBUG)\] \[(\w+):[0-9]+\] )");
    Log log;
    while (!content.empty()) {
        const std::string_view line = content.substr(0, content.find('\n'));
        const std::string_view whole = content.substr(0, line.size() + 1);
        content.remove_prefix(whole.size());
        std::match_results<std::string_view::const_iterator> head;
        if (!std::regex_search(line.begin(), line.end(), head, HEAD)) {
            log.push_back(raw_text(std::string(whole)));
            continue;
        }
        if (head.prefix().length() > 0)
            log.push_back(raw_text(head.prefix().str()));
        log.push_back({head[1].str(), head[2].str(), head.suffix().str()});
    }
    return log;
}

Log errors_of(const Log &log)
{
    Log errors;
    std::ranges::copy_if(log, std::back_inserter(errors),
                         [](const LogLine &line) { return line.level == "ERROR"; });
    return errors;
}

Log messages_of(const Log &log)
{
    Log messages;
    std::ranges::copy_if(log, std::back_inserter(messages),
                         [](const LogLine &line) { return !line.level.empty(); });
    return messages;
}

std::ostream &operator<<(std::ostream &out, const LogLine &line)
{
    if (line.level.empty())
        return out << '"' << line.text << '"';
    return out << '[' << line.level << "] [" << line.func << "] " << line.text;
}

} // namespace tier_test
