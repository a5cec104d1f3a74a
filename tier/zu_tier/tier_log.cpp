#include "zu_tier/tier_log.h"

#include "common/zutr_assert.h"

#include <array>
#include <cstdarg>

namespace {

constexpr const char *DEFAULT_LOG_FILE = "/kd/log/zu/zu_tier.log";

bool g_debug_mode = false;
FILE *g_log_fp = nullptr;

void write_line(const char *level, const zutr_log_site &site, const char *format, va_list args,
                bool to_stderr)
{
    FILE *log = zutr_get_logger();
    if (log == nullptr && !to_stderr) {
        return;
    }
    /* Prefix and message in one format, so that a line reaches an unbuffered stream whole. */
    std::array<char, 512> line{};
    const int length = snprintf(line.data(), line.size(), "[%s] [%s:%u] %s\n", level, site.func,
                                site.line, format);
    zutr_assert(length > 0 && static_cast<size_t>(length) < line.size(), "length < line.size()");
    if (log != nullptr) {
        va_list again;
        va_copy(again, args);
        vfprintf(log, line.data(), again);
        va_end(again);
    }
    if (to_stderr) {
        vfprintf(stderr, line.data(), args);
    }
}

} // namespace

void zutr_error(zutr_log_site site, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    write_line("ERROR", site, format, args, true);
    va_end(args);
}

void zutr_debug(zutr_log_site site, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    write_line("DEBUG", site, format, args, zutr_is_debug_mode());
    va_end(args);
}

bool zutr_is_debug_mode()
{
    return g_debug_mode;
}

void zutr_set_debug_mode()
{
    g_debug_mode = true;
}

FILE *zutr_get_logger()
{
    if (g_log_fp == nullptr) {
        g_log_fp = fopen(DEFAULT_LOG_FILE, "a");
    }
    return g_log_fp;
}

bool zutr_set_log_file(const char *path)
{
    if (g_log_fp != nullptr) {
        fclose(g_log_fp);
    }
    g_log_fp = fopen(path, "a");
    return g_log_fp != nullptr;
}

bool zutr_is_log(const FILE *stream)
{
    return stream == g_log_fp;
}
