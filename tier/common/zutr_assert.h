#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>

/* Ends the process through abort(), with `text` (the condition as its author states it) in the
 * message, when `condition` does not hold. Active in every build: what it guards is a programming
 * error, and a tool that writes to a production device must not carry on after one. */
inline void zutr_assert(bool condition, const char *text, const char *file = __builtin_FILE(),
                        unsigned line = __builtin_LINE(), const char *func = __builtin_FUNCTION())
{
    if (!condition) {
        fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name,
                file, line, func, text);
        abort();
    }
}
