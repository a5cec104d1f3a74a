// Loading a repair file: what is refused, and how exact the numbers stay.

#include "in_process.h"
#include "zu_tier/record/json.h"

#include <cerrno>

using namespace tier_test;

namespace {

Log read_failed(const std::string &reason, const std::string &path)
{
    return {error_line("zutr_json_load",
                       text("fread failed:%s, path:%s", reason.c_str(), path.c_str()))};
}

Log not_json(const std::string &path)
{
    return {error_line("zutr_json_load", text("cJSON_Parse failed, path:%s", path.c_str()))};
}

class JsonLoad : public testing::Test {
protected:
    TempDir directory;

    // No document, with this error number and these messages.
    static void expect_refused(const char *path, int error, const Log &log)
    {
        const Call call = captured([&] {
            errno = 0;
            return zutr_json_load(path) == nullptr ? errno : 0;
        });
        EXPECT_EQ(call, (Call{.result = error, .out = "", .log = log}));
    }

    zutr_json load(const std::string &content) const
    {
        return zutr_json_load(directory.write("conf", content).c_str());
    }

    static std::uint64_t number(const cJSON *node) { return zutr_to_u64(zutr_json_number(node)); }
};

TEST_F(JsonLoad, NoPath) { expect_refused(nullptr, EINVAL, {}); }

TEST_F(JsonLoad, FileThatCannotBeOpened)
{
    expect_refused(directory.path("missing").c_str(), ENOENT, {});
    expect_refused((directory.write("file", "{}") + "/below").c_str(), ENOTDIR, {});
}

TEST_F(JsonLoad, FileOfNoSize)
{
    expect_refused(directory.write("empty", "").c_str(), EINVAL, {});
    expect_refused("/dev/null", EINVAL, {});
}

TEST_F(JsonLoad, FileThatCannotBeRead)
{
    directory.write("entry", "{}");
    const std::string path = directory.path("");
    expect_refused(path.c_str(), EISDIR, read_failed("Is a directory", path));
}

TEST_F(JsonLoad, TextThatIsNotJson)
{
    const std::string path = directory.path("conf");
    for (const std::string content :
         {" ", "\n\t ", "{", "{\"a\":1", "{\"a\" 1}", "{\"a\":}", "{\"a\":1e}", "{\"a\":--1}",
          "{\"a\":0x10}", "{\"a\":+1}", "{\"a\":inf}", "{\"a\":1-2}", "[1,]", "nothing"}) {
        SCOPED_TRACE(content);
        directory.write("conf", content);
        expect_refused(path.c_str(), EINVAL, not_json(path));
    }
}

TEST_F(JsonLoad, TextBehindTheDocumentIsAccepted)
{
    for (const std::string rest : {"", "\n", " {\"a\":2}", " and more", "]"}) {
        const zutr_json document = load(text("{\"a\":1}%s", rest.c_str()));
        ASSERT_NE(document, nullptr) << rest;
        EXPECT_EQ(number(cJSON_GetObjectItem(document.get(), "a")), 1U);
    }
    EXPECT_NE(load(std::string("{\"a\":1}\0 \xFF", 10)), nullptr);
}

TEST_F(JsonLoad, TextBehindANumberMayLookLikeMoreOfIt)
{
    for (const auto &[content, value] : std::vector<std::pair<std::string, std::uint64_t>>{
             {"0x10", 0}, {"0X1F", 0}, {"0x1p3", 0}, {"-0x5", 0}, {"7-2", 7}, {"12infinity", 12}}) {
        const zutr_json document = load(content);
        ASSERT_NE(document, nullptr) << content;
        EXPECT_EQ(number(document.get()), value) << content;
    }
}

TEST_F(JsonLoad, LargeFileIsLoadedWhole)
{
    std::string content = "[";
    for (int i = 0; i < 100'000; ++i)
        content += std::to_string(i) + ",";
    const zutr_json document = load(content + "18446744073709551615]");
    ASSERT_NE(document, nullptr);
    ASSERT_EQ(cJSON_GetArraySize(document.get()), 100'001);
    std::uint64_t expected = 0;
    for (const cJSON *node = document->child; node->next != nullptr; node = node->next)
        ASSERT_EQ(number(node), expected++);
    EXPECT_EQ(number(document->child->prev), 18446744073709551615U);
}

TEST_F(JsonLoad, NumbersKeepTheirValueToTheLastBit)
{
    const std::vector<std::pair<std::string, std::uint64_t>> numbers{
        {"0", 0},
        {"-0", 0},
        {"1", 1},
        {"9007199254740993", 9007199254740993U}, // 2^53 + 1
        {"9223372036854775807", 9223372036854775807U},
        {"9223372036854775808", 9223372036854775808U},
        {"9223372036854775809", 9223372036854775809U},
        {"18446744073709551614", 18446744073709551614U},
        {"18446744073709551615", 18446744073709551615U},
        {"18446744073709551615.0", 18446744073709551615U},
        {"1844674407370955161.5e1", 18446744073709551615U},
        {"1.8446744073709551615E+19", 18446744073709551615U},
        {"184467440737095516150e-1", 18446744073709551615U},
        {"1500000000999999999", 1500000000999999999U},
        {"0.99999999999999999", 0},
        {"12.75", 12},
        {"-12.75", static_cast<std::uint64_t>(-12)},
        {"-9223372036854775807", static_cast<std::uint64_t>(-9223372036854775807LL)},
        {"007", 7},
        {"-.5", 0},
        {"3.", 3},
        {"1e400", std::uint64_t{1} << 63},
        {"1e5000", std::uint64_t{1} << 63},
        {"-1e5000", std::uint64_t{1} << 63},
        {"1e-5000", 0},
    };
    for (const auto &[literal, value] : numbers) {
        SCOPED_TRACE(literal);
        for (const std::string &content :
             {literal, text("[%s]", literal.c_str()), text("{\"key\" : %s }", literal.c_str())}) {
            const zutr_json document = load(content);
            ASSERT_NE(document, nullptr) << content;
            const cJSON *node = document->child != nullptr ? document->child : document.get();
            EXPECT_EQ(number(node), value) << content;
        }
    }
}

TEST_F(JsonLoad, EveryNumberFindsItsOwnLiteral)
{
    const zutr_json document =
        load("{\"9007199254740993\":\"9007199254740995\", \"quote \\\" 17 \\\\\":1,\n"
             " \"deep\":[[[9007199254740997],{\"x\":[]}],\"-3\",true,false,null,{\"y\":-4}],"
             "\"last\":9007199254740999}");
    ASSERT_NE(document, nullptr);
    const cJSON *first = document->child;
    EXPECT_STREQ(cJSON_GetStringValue(first), "9007199254740995");
    EXPECT_EQ(number(first->next), 1U);
    const cJSON *deep = cJSON_GetObjectItem(document.get(), "deep");
    EXPECT_EQ(number(deep->child->child->child), 9007199254740997U);
    EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetArrayItem(deep, 1)), "-3");
    EXPECT_EQ(number(cJSON_GetArrayItem(deep, 5)->child), static_cast<std::uint64_t>(-4));
    EXPECT_EQ(number(cJSON_GetObjectItem(document.get(), "last")), 9007199254740999U);
}

TEST_F(JsonLoad, NumbersOfAnyLengthLeaveTheNumbersBehindThemAlone)
{
    for (const int zeros : {30, 61, 62, 500, 5000}) {
        SCOPED_TRACE(zeros);
        const std::string small = text("{\"a\":1.%0*d,\"b\":7}", zeros, 0);
        const std::string large = text("{\"a\":%0*d,\"b\":7}", zeros, 3);
        for (const auto &[content, value] : {std::pair{small, 1U}, std::pair{large, 3U}}) {
            const zutr_json document = load(content);
            ASSERT_NE(document, nullptr);
            EXPECT_EQ(number(document->child), value);
            EXPECT_EQ(number(document->child->next), 7U);
        }
    }
}

} // namespace
