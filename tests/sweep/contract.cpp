#include "contract.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <gtest/gtest.h>
#include <string_view>

namespace tier_test {

namespace {

constexpr int STATUSES[] = {0, 5, 12, 14, 22};

// What stands between the marks of the message about a failed assertion.
bool may_abort(std::string_view err, unsigned situations)
{
    constexpr std::string_view START = ": Assertion `";
    constexpr std::string_view END = "' failed.\n";
    const std::size_t at = err.rfind(START);
    if (at == std::string_view::npos || !err.ends_with(END))
        return false;
    err.remove_prefix(at + START.size());
    err.remove_suffix(END.size());
    return may_fail(err, situations);
}

bool has_error(const Log &errors, std::string_view func, std::string_view start)
{
    return std::ranges::any_of(errors, [&](const LogLine &line) {
        return line.level == "ERROR" && (func.empty() || line.func == func) &&
               line.text.starts_with(start);
    });
}

// As far as a text with strings of any content shows it: a JSON value from its first to its last
// character, or the usage.
bool is_complete(std::string_view out)
{
    return out.empty() || (out.front() == '[' && out.back() == ']') ||
           (out.front() == '{' && out.back() == '}') ||
           (out.starts_with("usage: ") && out.ends_with("[-y]\n"));
}

// The place of the one entry that was printed: of the super block no place is printed.
std::optional<std::uint64_t> printed_place(std::string_view out)
{
    constexpr std::string_view KEY = "\"meta_offset\":";
    const std::size_t found = out.rfind(KEY);
    if (found == std::string_view::npos)
        return out.starts_with("{\"checksum\":") ? std::optional<std::uint64_t>(4096)
                                                 : std::nullopt;
    out.remove_prefix(std::min(out.size(), found + KEY.size() + (out[found + KEY.size()] == ' ')));
    std::uint64_t place = 0;
    const auto [end, error] = std::from_chars(out.data(), out.data() + out.size(), place);
    return error == std::errc() ? std::optional(place) : std::nullopt;
}

// The run has written its block, or where `torn` any bytes of it.
void expect_block(const RunResult &run, const Snapshot &before, const Snapshot &after,
                  const Terms &terms, bool torn)
{
    const std::optional<std::uint64_t> place = terms.place ? terms.place : printed_place(run.out);
    ASSERT_TRUE(place) << "no place is known: " << clipped(run);
    const Block now = block_at(after, *place);
    EXPECT_EQ(differences(with_block(before, *place, now), after), "")
        << "beside the block at " << *place << ": " << clipped(run);
    if (!terms.block)
        return;
    const Block old = block_at(before, *place);
    for (std::size_t i = 0; i < BLOCK_SIZE; ++i)
        ASSERT_TRUE(now[i] == (*terms.block)[i] || (torn && now[i] == old[i]))
            << "byte " << i << " of the block at " << *place << ": " << clipped(run);
}

} // namespace

void expect_contract(const RunResult &run, const Snapshot &before, const Snapshot &after,
                     const Terms &terms)
{
    const Log errors = parse_log(run.err);
    ASSERT_FALSE(run.timed_out) << clipped(run);
    if (run.signal == SIGABRT) {
        EXPECT_TRUE(may_abort(run.err, terms.situations)) << clipped(run);
        EXPECT_EQ(differences(before, after), "") << clipped(run);
        return;
    }
    ASSERT_EQ(run.signal, 0) << clipped(run);
    ASSERT_NE(std::ranges::find(STATUSES, run.status), std::end(STATUSES)) << clipped(run);
    EXPECT_TRUE(run.status != 0 || is_complete(run.out)) << clipped(run);
    // Without a super block some handlers log nothing.
    EXPECT_TRUE(run.status == 0 || (terms.situations & FORCED) != 0 || has_error(errors, "", ""))
        << "fails without a word: " << clipped(run);

    // Output is the last that can fail; before it the write can.
    const bool written = run.status == 0 || has_error(errors, "main", "write output failed:");
    const bool torn = has_error(errors, "zutr_repair_common", "write meta on offset ");
    if (terms.commit && (written || torn))
        expect_block(run, before, after, terms, torn);
    else
        EXPECT_EQ(differences(before, after), "") << clipped(run);
}

RunResult clipped(RunResult run)
{
    constexpr std::size_t MOST = 400;
    for (std::string *const text : {&run.out, &run.err})
        text->resize(std::min(text->size(), MOST));
    return run;
}

} // namespace tier_test
