// Lines whose message the compiler splits, compared with the same lines by the C library.

#include "bytes.h"
#include "temp_dir.h"
#include "zu_tier/record/debug.h"

#include <gtest/gtest.h>
#include <limits>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace tier_test;

namespace {

struct Sinks {
    bool log;
    bool err; // debug mode
};
constexpr Sinks ALL_SINKS[] = {{true, false}, {true, true}, {false, true}, {false, false}};

struct Written {
    std::string log;
    std::string err;

    bool operator==(const Written &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Written &written)
{
    return out << "log: " << written.log << "\nstandard error: " << written.err;
}

// What the call writes. It has a process of its own: debug mode cannot be left.
Written written(const Sinks &sinks, const std::function<void()> &call)
{
    const TempDir directory;
    const std::string log = directory.write("log", "");
    const int err = memfd_create("stderr", MFD_CLOEXEC);
    std::fflush(stderr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(err, STDERR_FILENO);
        if (zutr_set_log_file(sinks.log ? log.c_str() : "/nowhere/log") != sinks.log)
            _exit(1);
        if (sinks.err)
            zutr_set_debug_mode();
        call();
        std::fflush(nullptr);
        _exit(0);
    }
    int state = -1;
    EXPECT_EQ(waitpid(child, &state, 0), child);
    EXPECT_EQ(state, 0);
    Written result{read_file(log), read_file("/proc/self/fd/" + std::to_string(err))};
    close(err);
    return result;
}

// The line at `site` goes to each of the sinks and is what the C library makes of it.
template <const auto &Message, class... Args>
void expect_line(const zutr_log_site &site, const Args &...args)
{
    const std::string line =
        text("[DEBUG] [%s:%u] ", site.func, site.line) + text(Message, args...) + "\n";
    for (const Sinks &sinks : ALL_SINKS) {
        SCOPED_TRACE(text("%slog, %sdebug mode", sinks.log ? "" : "no ", sinks.err ? "" : "no "));
        const Written expected{sinks.log ? line : "", sinks.err ? line : ""};
        EXPECT_EQ(written(sinks, [&] { zutr_debug(site, Message, args...); }), expected);
        EXPECT_EQ(written(sinks, [&] { zutr_debug_line<Message>(site, args...); }), expected);
    }
}

constexpr char NUMBERS[] = "ignore extent:%d, in_use:%d, shard_no:%d";
constexpr char TEXTS[] = "%s of %s|%d";
constexpr char ONLY_A_NUMBER[] = "%d";
constexpr char ADJACENT[] = "%d%s%d%s";
constexpr char LONG_PIECES[] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef%d"
                               "fedcba9876543210fedcba9876543210fedcba9876543210fedcba987654321%s.";
constexpr char LONGEST_LINE[] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef%s"
                                "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef%s"
                                "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef%s"
                                "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef%s"
                                "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

constexpr std::int32_t LARGEST_INT = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t SMALLEST = std::numeric_limits<std::int32_t>::min();

TEST(DebugLine, Numbers)
{
    expect_line<NUMBERS>({"f", 1}, 0, 9, 10);
    expect_line<NUMBERS>({"f", 1}, -1, LARGEST_INT, SMALLEST);
    expect_line<ONLY_A_NUMBER>({"f", 1}, -1000000);
}

TEST(DebugLine, NarrowNumbers)
{
    expect_line<NUMBERS>({"f", 1}, std::uint16_t{65535}, std::int16_t{-32768}, std::uint8_t{255});
}

TEST(DebugLine, Texts)
{
    const std::string widest(64, 'w');
    expect_line<TEXTS>({"f", 1}, "a", "b", 3);
    expect_line<TEXTS>({"f", 1}, "", "", -1);
    expect_line<TEXTS>({"f", 1}, widest.c_str(), widest.c_str(), SMALLEST);
    expect_line<TEXTS>({"f", 1}, "100%d", "%s%n", 0);
    expect_line<ADJACENT>({"f", 1}, 1, "", 2, "");
    expect_line<ADJACENT>({"f", 1}, SMALLEST, widest.c_str(), SMALLEST, widest.c_str());
}

TEST(DebugLine, LongestPieces)
{
    const std::string widest(64, 'w');
    expect_line<LONG_PIECES>({"f", 1}, SMALLEST, widest.c_str());
    expect_line<LONG_PIECES>({widest.c_str(), std::numeric_limits<std::uint32_t>::max()}, 0, "");
    const char *wide = widest.c_str();
    expect_line<LONGEST_LINE>({wide, 1}, wide, wide, wide, wide);
}

TEST(DebugLine, NamesTheSourceLineOfTheCall)
{
    const Sinks sinks{.log = true, .err = false};
    std::uint32_t before = 0;
    const auto call = [&] {
        before = __LINE__;
        zutr_debug_line<ONLY_A_NUMBER>("caller", 7);
    };
    call();
    EXPECT_EQ(written(sinks, call).log, text("[DEBUG] [caller:%u] 7\n", before + 1));
}

TEST(DebugLine, LinesKeepTheirOrderAmongOthers)
{
    const Sinks sinks{.log = true, .err = true};
    const zutr_log_site site("f", 5);
    const Written both = written(sinks, [&] {
        zutr_debug(site, "%d", 1);
        zutr_debug_line<ONLY_A_NUMBER>(site, 2);
        zutr_error(site, "%d", 3);
        zutr_debug_line<ONLY_A_NUMBER>(site, 4);
    });
    const std::string lines =
        "[DEBUG] [f:5] 1\n[DEBUG] [f:5] 2\n[ERROR] [f:5] 3\n[DEBUG] [f:5] 4\n";
    EXPECT_EQ(both, (Written{lines, lines}));
}

} // namespace
