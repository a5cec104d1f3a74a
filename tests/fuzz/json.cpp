// Repair files: loading them, with numbers that are exact. An input is the text of a file.

#include "zu_tier/record/json.h"
#include "contract.h"
#include "mutation.h"
#include "run.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>

using namespace tier_fuzz;

namespace {

// The conversions once more, by other means: through the number's exact value in 128 bits.
__int128 whole(long double number)
{
    constexpr long double BEYOND = 0x1p100L;
    return static_cast<__int128>(std::fmin(std::fmax(number, -BEYOND), BEYOND));
}

std::uint64_t narrowed(__int128 number, std::int64_t smallest)
{
    const bool fits = number >= smallest && number <= -(__int128{smallest} + 1);
    return static_cast<std::uint64_t>(fits ? static_cast<std::int64_t>(number) : smallest);
}

void check_conversions(long double number)
{
    constexpr std::int64_t SMALLEST_64 = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t SMALLEST_32 = std::numeric_limits<std::int32_t>::min();
    constexpr std::uint64_t TOP = std::uint64_t{1} << 63;
    const __int128 value = whole(number);
    require(zutr_to_s64(number) == narrowed(value, SMALLEST_64), "a signed number of 64 bits");
    require(zutr_to_s32(number) == narrowed(value, SMALLEST_32), "a signed number of 32 bits");
    const bool upper = value >= __int128{TOP};
    const std::uint64_t expected =
        upper ? narrowed(value - __int128{TOP}, SMALLEST_64) | TOP : narrowed(value, SMALLEST_64);
    require(zutr_to_u64(number) == expected, "an unsigned number of 64 bits");
}

// Every number carries its literal, found in the text after the one before.
void check_numbers(const cJSON *first, std::string_view &text)
{
    for (const cJSON *node = first; node != nullptr; node = node->next) {
        if (cJSON_IsNumber(node)) {
            require(node->valuestring != nullptr, "a number has its literal");
            const std::string_view literal(node->valuestring);
            const std::size_t at = text.find(literal);
            require(!literal.empty() && at != std::string_view::npos, "which stands in the text");
            text.remove_prefix(at + literal.size());
            require(std::strtod(node->valuestring, nullptr) == node->valuedouble, "its own one");
            check_conversions(zutr_json_number(node));
        }
        check_numbers(node->child, text);
    }
}

// Everything that the library takes for JSON is accepted, and nothing else.
std::int64_t load(const std::string &text)
{
    errno = 0;
    const zutr_json document = zutr_json_load(REPAIR_NAME);
    require(document != nullptr || errno == EINVAL, "a file that is refused is not valid");
    const zutr_json parsed(text.empty() ? nullptr : cJSON_Parse(text.c_str()));
    require((document == nullptr) == (parsed == nullptr), "a file that is valid is accepted");
    std::string_view rest(text);
    check_numbers(document.get(), rest);
    return document == nullptr ? -errno : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    world.reset();
    world.repair_file = {data, size};
    const std::string text(reinterpret_cast<const char *>(data), size);
    const Outcome outcome = run([&] { return load(text); });
    require(outcome.ending == Ending::returned, "a file fails no assertion");
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size,
                                               std::size_t most, unsigned seed)
{
    Mutation mutation(seed);
    Bytes text(data, data + size);
    mutation.json(text, most);
    std::memcpy(data, text.data(), text.size());
    return text.size();
}
