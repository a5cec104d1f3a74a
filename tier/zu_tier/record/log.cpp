#include "zu_tier/record/log.h"

#include "common/zutr_assert.h"

#include <array>
#include <cstdarg>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr const char *DEFAULT_LOG_DIRECTORY = "/kd/log/zu";
constexpr const char *DEFAULT_LOG_FILE = "/kd/log/zu/zu_tier.log";

bool g_debug_mode = false;
FILE *g_log_fp = nullptr;
zutr_log_sinks g_redirected = {nullptr, nullptr};

FILE *error_stream() { return g_redirected.err != nullptr ? g_redirected.err : stderr; }

void write_line(const char *level, const zutr_log_site &site, const char *format, va_list args,
                const zutr_log_sinks &sinks)
{
    /* Prefix and message in one format, so that a line reaches an unbuffered stream whole. */
    std::array<char, 512> line{};
    char *message = zutr_put_log_prefix(line.data(), level, site);
    const auto room = static_cast<size_t>(line.data() + line.size() - message);
    const int length = snprintf(message, room, "%s\n", format);
    /* GCOVR_EXCL_BR_START: texts are never empty */
    zutr_assert(length > 0 && static_cast<size_t>(length) < room, "length < room");
    /* GCOVR_EXCL_BR_STOP */
    for (FILE *sink : {sinks.log, sinks.err}) {
        if (sink != nullptr) {
            va_list again;
            va_copy(again, args);
            vfprintf(sink, line.data(), again);
            va_end(again);
        }
    }
}

} // namespace

void zutr_error(zutr_log_site site, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    zutr_verror(site, format, args);
    va_end(args);
}

void zutr_verror(zutr_log_site site, const char *format, va_list args)
{
    write_line("ERROR", site, format, args, {zutr_get_logger(), error_stream()});
}

void zutr_debug(zutr_log_site site, const char *format, ...)
{
    const zutr_log_sinks sinks = zutr_debug_sinks();
    if (!sinks) {
        return;
    }
    va_list args;
    va_start(args, format);
    write_line("DEBUG", site, format, args, sinks);
    va_end(args);
}

void zutr_log_sinks::write(std::string_view line) const
{
    for (FILE *sink : {log, err}) {
        if (sink != nullptr) {
            fwrite_unlocked(line.data(), 1, line.size(), sink);
        }
    }
}

zutr_log_sinks zutr_debug_sinks()
{
    return {zutr_get_logger(), zutr_is_debug_mode() ? error_stream() : nullptr};
}

char *zutr_put_log_prefix(char *to, const char *level, const zutr_log_site &site)
{
    /* Most lines come from the same place as the line before. */
    static std::array<char, ZUTR_LOG_PREFIX_ROOM> prefix;
    static int length = 0;
    static const char *last_level = nullptr;
    static constinit zutr_log_site last_site(nullptr, 0);
    if (last_level != level || last_site.func != site.func || last_site.line != site.line) {
        length =
            snprintf(prefix.data(), prefix.size(), "[%s] [%s:%u] ", level, site.func, site.line);
        /* GCOVR_EXCL_BR_START: texts are never empty */
        zutr_assert(length > 0 && static_cast<size_t>(length) < prefix.size(), "length < room");
        /* GCOVR_EXCL_BR_STOP */
        last_level = level;
        last_site = site;
    }
    memcpy(to, prefix.data(), prefix.size());
    return to + length;
}

bool zutr_is_debug_mode() { return g_debug_mode; }

void zutr_set_debug_mode() { g_debug_mode = true; }

FILE *zutr_get_logger()
{
    if (g_redirected.log != nullptr) {
        return g_redirected.log;
    }
    /* Tried at every message: a missing directory costs least. */
    struct stat directory;
    if (g_log_fp == nullptr && stat(DEFAULT_LOG_DIRECTORY, &directory) == 0) {
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

void zutr_redirect_log(FILE *log, FILE *errors) { g_redirected = {log, errors}; }

bool zutr_is_log(const FILE *stream) { return stream == g_log_fp; }
