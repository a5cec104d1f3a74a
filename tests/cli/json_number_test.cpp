// Numbers on their way from the text of a repair file into the fields of an extent.

#include "dump_text.h"
#include "json_number.h"
#include "table_repair.h"

using namespace tier_test;

namespace {

// Integers that differ from their neighbours only beyond 53 bits.
constexpr std::uint64_t ABOVE_2_53 = 9007199254740993U;
constexpr std::uint64_t LARGEST = 18446744073709551615U;

class JsonNumbers : public TableRepair<ExtentTableV1> {
protected:
    void expect_hot(const std::string &number, std::uint64_t value)
    {
        SCOPED_TRACE(number);
        ExtentV1 extent = sample;
        extent.hot = value;
        expect_entry(RepairFile(file).set("te_hot", number).text(), extent);
    }

    void expect_no_json(const std::string &number)
    {
        SCOPED_TRACE(number);
        expect_not_loaded(RepairFile(file).set("te_hot", number).text(),
                          {error_line("zutr_json_load", "cJSON_Parse failed, path:" + conf()),
                           error_line("zutr_repair_common",
                                      "load repair conf " + conf() + " failed:Invalid argument")});
    }
};

TEST_F(JsonNumbers, BitmapHoldsThemInOrder)
{
    std::vector<std::string> items;
    ExtentV1 extent = sample;
    extent.bitmap.clear();
    for (const JsonNumber &number : boundary_numbers()) {
        items.push_back(number.text);
        extent.bitmap.push_back(convert(Conversion::UNSIGNED_64, number.value));
    }
    SuperV1 changed = super;
    changed.extent_size = static_cast<std::uint32_t>(56 + 8 * items.size());
    set_super(changed);
    expect_entry(RepairFile(file).set("te_bitmap", joined(items)).text(), extent);
}

TEST_F(JsonNumbers, LargeIntegersAreExact)
{
    expect_hot("9007199254740992", ABOVE_2_53 - 1);
    expect_hot("9007199254740993", ABOVE_2_53);
    expect_hot("9007199254740995", ABOVE_2_53 + 2);
    expect_hot("9223372036854775807", 0x7FFF'FFFF'FFFF'FFFF);
    expect_hot("9223372036854775809", 0x8000'0000'0000'0001);
    expect_hot("18446744073709551614", LARGEST - 1);
    expect_hot("18446744073709551615", LARGEST);
    expect_hot("15000000000000000001", 15000000000000000001U);
    expect_hot("-9223372036854775807", 0x8000'0000'0000'0001);
    expect_hot("1234567890123456789", 1234567890123456789U);
}

TEST_F(JsonNumbers, LargeIntegersWithAFractionOrAnExponentAreExact)
{
    expect_hot("18446744073709551615.0", LARGEST);
    expect_hot("1844674407370955161.5e1", LARGEST);
    expect_hot("18.446744073709551615E+18", LARGEST);
    expect_hot("184467440737095516150e-1", LARGEST);
    expect_hot("9007199254740993000e-3", ABOVE_2_53);
    expect_hot("9007199254740993.9", ABOVE_2_53);
}

TEST_F(JsonNumbers, FormsThatTheLibraryTakes)
{
    expect_hot("007", 7);
    expect_hot("-0", 0);
    expect_hot("-.5", 0);
    expect_hot("1.", 1);
    expect_hot("1.e2", 100);
    expect_hot("1E+03", 1000);
    expect_hot("10000e-4", 1);
    expect_hot("0e99999", 0);
}

TEST_F(JsonNumbers, AnyNumberOfDigits)
{
    for (const std::size_t zeros : {1U, 42U, 43U, 44U, 500U, 5000U}) {
        const std::string more(zeros, '0');
        expect_hot(more + "18446744073709551615", LARGEST);
        expect_hot("18446744073709551615." + more, LARGEST);
        expect_hot("0." + more + "9007199254740993e" + std::to_string(zeros + 16), ABOVE_2_53);
        expect_hot("18446744073709551615" + more, 0x8000'0000'0000'0000);
    }
}

TEST_F(JsonNumbers, FormsThatAreNoNumbers)
{
    for (const std::string number :
         {"+1",    ".5",    "-",     "--1",      "1-2",
          "0x10",  "1e",    "1e+",   "1e5e5",    "1.5.2",
          "1 000", "1_000", "1,000", "Infinity", "-Infinity",
          "NaN",   "nan",   "inf",   "-inf",     "18446744073709551615L"})
        expect_no_json(number);
}

// Whatever stands before a key, the key gets its own number with all its digits.
TEST_F(JsonNumbers, TextInFrontOfTheKeys)
{
    ExtentV1 extent = sample;
    extent.size = LARGEST;
    extent.hot = ABOVE_2_53;
    extent.bitmap = {LARGEST - 1, ABOVE_2_53};
    const std::string members = file_text(extent).substr(1);
    const std::vector<std::string> prefixes{
        R"("a\"1": "2\\",)",
        R"("a": "3", "b": "\"4\"", "c": "\\\"5,6:7",)",
        R"("\\": "\\\\", "\"": "\\\"",)",
        R"("8": 9, "-1": -1e-1,)",
        R"("x": "{\"te_size\": 1, [2, 3]}",)",
        R"("x": {"te_size": 1, "te_bitmap": [2, 3], "te_hot": {"te_hot": 4}},)",
        R"("x": [1, [2, [3, []], {}], {"te_size": 5, "y": [6]}, [[[7]]]],)",
        R"("x": [], "y": {}, "z": [{}, [], [{}]], "s": "",)",
        R"("x": [true, 1, false, null, "2", -3],)",
        R"("x": "\u0031\ud83d\ude00\u0022 7", "\u00229": 8,)",
        R"("x": "1e5", "y": 1e5, "z": 1e400, "w": 18446744073709551616,)",
        R"("": 0, "": {"": 0},)",
        R"("x": "\/\b\f\n\r\t1",)",
        "\"x\": \"raw\ttab\nand line end 1\",",
        "\t\r\n \"x\" : [ 1 , 2 ] ,\n",
        "\x01\"x\"\x02:\x03 1\x1f,", // the library takes every control character as a blank
    };
    for (const std::string &prefix : prefixes) {
        SCOPED_TRACE(prefix);
        expect_spelt("{" + prefix + members, extent);
        expect_spelt("\xef\xbb\xbf{" + prefix + prefix + members, extent);
    }
}

TEST_F(JsonNumbers, FirstOfSeveralKeysGivesItsNumber)
{
    ExtentV1 extent = sample;
    extent.hot = ABOVE_2_53;
    extent.bitmap = {LARGEST, ABOVE_2_53};
    const std::string first = R"({"TE_HOT": 9007199254740993,
        "te_bitmap": [18446744073709551615, 9007199254740993], "Te_Bitmap": [1, 2, 3],)";
    const std::string rest = RepairFile(file).set("te_bitmap", "[]").number("te_hot", 1).text();
    expect_entry(first + rest.substr(1), extent);

    std::string with_more = file_text(extent);
    with_more.replace(with_more.rfind('}'), 1, R"(, "te_hot": 3, "te_bitmap": [1, 2]})");
    expect_entry(with_more, extent);
}

} // namespace
