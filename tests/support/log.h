#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace tier_test {

// One message of the tool without its source line number, which no test may depend on. Text without
// a message head (the JSON of a damaged entry, the option reader's own complaints) has an empty
// level and function, and keeps its line end where it has one.
struct LogLine {
    std::string level;
    std::string func;
    std::string text;

    bool operator==(const LogLine &) const = default;
};

using Log = std::vector<LogLine>;

LogLine error_line(std::string func, std::string text);
LogLine debug_line(std::string func, std::string text);
LogLine raw_text(std::string text);

// Splits what the tool wrote into a log file or to standard error. The JSON of a damaged entry is
// written without a line end, so a message may begin in the middle of a line.
Log parse_log(std::string_view content);

// The lines that reach standard error: messages only, without DEBUG lines unless in debug mode.
Log errors_of(const Log &log);
Log messages_of(const Log &log);

std::ostream &operator<<(std::ostream &out, const LogLine &line);

} // namespace tier_test
