#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string_view>

/* The emitting function, which the caller names because shared code speaks for several layouts, and
 * the source line of the call, which is filled in. */
struct zutr_log_site {
    const char *func;
    uint32_t line;

    constexpr zutr_log_site(const char *name, uint32_t at = __builtin_LINE()) : func(name), line(at)
    {
    }
};

/* Writes one line to the log stream, if there is one, and to standard error. */
[[gnu::format(printf, 2, 3)]] void zutr_error(zutr_log_site site, const char *format, ...);

void zutr_verror(zutr_log_site site, const char *format, va_list args);

/* Writes one line to the log stream, if there is one, and in debug mode to standard error. */
[[gnu::format(printf, 2, 3)]] void zutr_debug(zutr_log_site site, const char *format, ...);

/* Where a line goes: to the log stream, to standard error, to both or nowhere. */
struct zutr_log_sinks {
    FILE *log;
    FILE *err;

    explicit operator bool() const { return log != nullptr || err != nullptr; }
    void write(std::string_view line) const;
};

/* The sinks of a DEBUG line; tries the default log file when there is no log stream. */
zutr_log_sinks zutr_debug_sinks();

/* Writes "[LEVEL] [func:line] " at `to`, which has ZUTR_LOG_PREFIX_ROOM bytes; gives the end. Texts
 * are told apart by their address. */
constexpr size_t ZUTR_LOG_PREFIX_ROOM = 128;
char *zutr_put_log_prefix(char *to, const char *level, const zutr_log_site &site);

bool zutr_is_debug_mode();
void zutr_set_debug_mode();

/* The log stream; opens the default log file when there is none, and gives null when that fails,
 * to try again at the next call. */
FILE *zutr_get_logger();

/* Closes the log file and appends to `path` from now on. False with errno set when it cannot be
 * opened; then the default log file is tried again. */
bool zutr_set_log_file(const char *path);

/* Sends what is meant for the log to `log`, and what is meant for standard error to `errors`, until
 * it is called with null for both. The caller owns the streams. */
void zutr_redirect_log(FILE *log, FILE *errors);

/* Whether `stream` is the open log file. */
bool zutr_is_log(const FILE *stream);
