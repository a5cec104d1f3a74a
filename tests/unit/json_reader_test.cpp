// Reading a record from a JSON object by a table of keys.

#include "bytes.h"
#include "in_process.h"
#include "zu_tier/record/json.h"

#include <algorithm>
#include <cstring>

using namespace tier_test;

namespace {

constexpr const char *PARSE_RECORD = "parse_record";
constexpr const char *UUID_TEXT = "0123ABCD-4567-89ef-0011-223344556677";

struct ParsedRecord {
    std::uint16_t narrow;
    std::uint64_t wide;
    std::uint32_t spare;
    char text[6];
    std::uint8_t uuid[16];
};

constexpr auto KEYS = std::tuple{
    zutr_key{"narrow", &ParsedRecord::narrow, zutr_to_s32},
    zutr_key{"wide", &ParsedRecord::wide, zutr_to_u64},
    zutr_key{"spare", &ParsedRecord::spare, zutr_to_s64, zutr_need::optional},
    zutr_key{"text", &ParsedRecord::text},
    zutr_key{"uuid", &ParsedRecord::uuid},
};

LogLine accepted(const std::string &key, const std::string &value)
{
    return debug_line(PARSE_RECORD, text("%s: %s", key.c_str(), value.c_str()));
}

class JsonReader : public testing::Test {
protected:
    TempDir directory;
    ParsedRecord record{};

    Call read(const std::string &content)
    {
        const std::string path = directory.write("conf", content);
        std::memset(&record, 0xEE, sizeof(record));
        return captured([&] {
            const zutr_json document = zutr_json_load(path.c_str());
            zutr_json_reader in(PARSE_RECORD, document.get());
            in.read(KEYS, &record);
            return in.failed() ? -22 : 0;
        });
    }

    // The object {"narrow":1,"wide":2,"text":"t","uuid":...} with one member replaced.
    static std::string object(const std::string &key, const std::string &value)
    {
        std::vector<std::pair<std::string, std::string>> members{
            {"narrow", "1"}, {"wide", "2"}, {"text", "\"t\""}, {"uuid", quoted(UUID_TEXT)}};
        const auto same = [&](const auto &member) { return member.first == key; };
        std::erase_if(members, same);
        if (!value.empty())
            members.emplace_back(key, value);
        std::string result;
        for (const auto &[name, content] : members)
            result.append(result.empty() ? "{" : ",")
                .append(quoted(name))
                .append(":")
                .append(content);
        return result + "}";
    }

    static std::string quoted(const std::string &content)
    {
        return text("\"%s\"", content.c_str());
    }
};

TEST_F(JsonReader, FillsEveryFieldInTheOrderOfTheKeys)
{
    const Call call = read("{\"uuid\":" + quoted(UUID_TEXT) +
                           ",\"text\":\"abcdefgh\",\"spare\":-1,"
                           "\"wide\":18446744073709551615,\"narrow\":65538}");
    EXPECT_EQ(call, (Call{.result = 0,
                          .log = {accepted("narrow", "2"), accepted("wide", "18446744073709551615"),
                                  accepted("spare", "4294967295"), accepted("text", "abcde"),
                                  accepted("uuid", "0123abcd-4567-89ef-0011-223344556677")}}));
    EXPECT_EQ(record.narrow, 2);
    EXPECT_EQ(record.wide, 18446744073709551615U);
    EXPECT_EQ(record.spare, 4294967295U);
    EXPECT_EQ(std::string_view(record.text, 6), std::string_view("abcde\0", 6));
    const Uuid uuid{0x01, 0x23, 0xAB, 0xCD, 0x45, 0x67, 0x89, 0xEF,
                    0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    EXPECT_TRUE(std::ranges::equal(record.uuid, uuid));
}

TEST_F(JsonReader, OptionalKeyThatIsAbsentLeavesItsField)
{
    EXPECT_EQ(read(object("spare", "")).result, 0);
    EXPECT_EQ(record.spare, 0xEEEEEEEEU);
}

TEST_F(JsonReader, ShortTextIsFilledWithZeros)
{
    EXPECT_EQ(read(object("text", "\"\"")).result, 0);
    EXPECT_EQ(std::string_view(record.text, 6), std::string_view("\0\0\0\0\0\0", 6));
}

TEST_F(JsonReader, KeyThatIsMissingOrOfAnotherTypeEndsTheReading)
{
    const std::vector<std::string> numbers{"", "\"1\"", "true", "null", "[1]", "{}"};
    const std::vector<std::string> texts{"", "1", "true", "null", "[\"t\"]", "{}"};
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows{
        {"narrow", numbers},
        {"wide", numbers},
        {"text", texts},
        {"uuid", texts},
        {"spare", {"\"1\"", "null", "[]"}}};
    for (const auto &[key, values] : rows) {
        for (const std::string &value : values) {
            SCOPED_TRACE(key + " " + value);
            const Call call = read(object(key, value));
            EXPECT_EQ(call.result, -22);
            ASSERT_FALSE(call.log.empty());
            EXPECT_EQ(call.log.back(),
                      error_line(PARSE_RECORD, text("parse %s failed", key.c_str())));
        }
    }
}

TEST_F(JsonReader, NothingIsReadBehindTheFirstFailure)
{
    const Call call = read(object("wide", "\"2\""));
    EXPECT_EQ(call, (Call{.result = -22,
                          .log = {accepted("narrow", "1"),
                                  error_line(PARSE_RECORD, "parse wide failed")}}));
    EXPECT_EQ(record.wide, 0xEEEEEEEEEEEEEEEEU);
    EXPECT_EQ(record.text[0], '\xEE');
}

TEST_F(JsonReader, UuidMustBeWellFormed)
{
    for (const std::string bad :
         {"", "0123abcd-4567-89ef-0011-22334455667", "0123abcd-4567-89ef-0011-2233445566778",
          "0123abcd-4567-89ef-0011_223344556677", "g123abcd-4567-89ef-0011-223344556677"}) {
        const Call call = read(object("uuid", quoted(bad)));
        EXPECT_EQ(call.result, -22);
        ASSERT_FALSE(call.log.empty());
        EXPECT_EQ(call.log.back(),
                  error_line(PARSE_RECORD, text("parse uuid %s failed:-1", bad.c_str())));
    }
}

TEST_F(JsonReader, KeysMatchInAnyCaseAndTheFirstOfDuplicatesWins)
{
    EXPECT_EQ(read("{\"NARROW\":7,\"narrow\":8,\"Wide\":9,\"TEXT\":\"x\",\"tExt\":\"y\",\"uuid\":" +
                   quoted(UUID_TEXT) + "}")
                  .result,
              0);
    EXPECT_EQ(record.narrow, 7);
    EXPECT_EQ(record.wide, 9U);
    EXPECT_STREQ(record.text, "x");
}

TEST_F(JsonReader, DocumentsWithoutMembersLackEveryKey)
{
    for (const std::string content : {"{}", "[]", "1", "\"narrow\"", "null"})
        EXPECT_EQ(read(content),
                  (Call{.result = -22, .log = {error_line(PARSE_RECORD, "parse narrow failed")}}))
            << content;
}

} // namespace
