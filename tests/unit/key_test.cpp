// Every key of every repair file: missing, of another type, with every number and text at which its
// meaning changes, in any order and case. The result of each file is computed from the model.

#include "in_process.h"
#include "json_number.h"
#include "key_sweep.h"

#include <algorithm>

using namespace tier_test;

namespace {

class Keys : public KeySweep {
protected:
    LoggedRun run(const std::vector<std::string> &args) override
    {
        return run_in_process(device, table.repair, args);
    }

    const SweptKey *key(const std::string &name) const
    {
        const auto found = std::ranges::find(sample.keys, name, &SweptKey::name);
        return found == sample.keys.end() ? nullptr : &*found;
    }
};

TEST_P(Keys, AllOfThem)
{
    const Parsed expected = sample.parsed();
    ASSERT_TRUE(expected.block);
    expect(sample.members);
}

TEST_P(Keys, Missing)
{
    expect_missing_keys();
    expect({});
    Members required = sample.members;
    std::erase_if(required,
                  [&](const auto &member) { return key(member.first)->need == Need::OPTIONAL; });
    expect(required);
}

TEST_P(Keys, OfOtherTypes) { expect_other_types(); }

TEST_P(Keys, WithTextsAndNumbersOfTheirOwn) { expect_own_values(); }

// In all keys at once, where it does not decide what is read and where it goes.
TEST_P(Keys, NumbersAreCutToTheirFields)
{
    std::vector<std::string> numbers;
    for (const JsonNumber &number : boundary_numbers())
        numbers.push_back(number.text);
    for (const unsigned width : {1U, 4U, 13U, 16U, 18U, 19U, 31U})
        for (const int by : {-1, 0, 1})
            numbers.push_back(std::to_string((std::int64_t{1} << width) + by));
    for (const std::string &number : numbers) {
        Members all = sample.members;
        for (auto &[name, value] : all) {
            const SweptKey &each = *key(name);
            if (each.type != SweptKey::Type::NUMBER)
                continue;
            if (each.decides && table.name != "super")
                expect(with(name, number));
            else
                value = number;
        }
        expect(all);
    }
}

TEST_P(Keys, FillTheirOwnFields)
{
    Members numbered = sample.members;
    int last = 10;
    for (auto &[name, value] : numbered)
        if (key(name)->type == SweptKey::Type::NUMBER &&
            (!key(name)->decides || table.name == "super"))
            value = std::to_string(++last);
    expect(numbered);
}

TEST_P(Keys, InReverseOrder)
{
    Members reversed = sample.members;
    std::ranges::reverse(reversed);
    expect(reversed);
}

TEST_P(Keys, InAnyCaseAndTheFirstOfTwoCounts) { expect_any_case(); }

// Of several wrong keys the first in reading order is named.
TEST_P(Keys, NothingIsReadAfterAWrongOne)
{
    Members wrong = sample.members;
    for (auto &[name, value] : wrong)
        value = "null";
    for (const SweptKey &each : sample.keys) {
        expect(wrong);
        const auto at = [&](auto &members) {
            return std::ranges::find(members, each.name, &Members::value_type::first);
        };
        at(wrong)->second = at(sample.members)->second;
    }
}

TEST_P(Keys, ThatAreNotRead)
{
    std::vector<std::string> names = table.unread_keys;
    names.insert(names.end(), {"unknown", "orig_len", "data_phy_offset", "in_use"});
    for (const std::string value : {"3", "\"0x1\"", "[{}]", "null", "{}"}) {
        Members more;
        for (const std::string &name : names)
            if (key(name) == nullptr)
                more.emplace_back(name, value);
        more.insert(more.end(), sample.members.begin(), sample.members.end());
        expect(more);
    }
}

// Whatever the other keys say.
TEST_P(Keys, OfAFreeEntry)
{
    if (table.use.empty() || table.takes_place || !sample.before.empty())
        return;
    for (const char *value : {"7", "\"text\"", "null", "[{}]", ""}) {
        Members members = sample.members;
        for (auto &[name, given] : members)
            if (key(name)->need != Need::ALWAYS)
                given = value;
        std::erase_if(members, [](const auto &member) { return member.second.empty(); });
        for (auto &[name, given] : members)
            if (name.ends_with("_use"))
                given = "0";
        ASSERT_TRUE(parsed(table, sample.super, sample.document(members)).is_free);
        expect(members);
    }
}

INSTANTIATE_TEST_SUITE_P(All, Keys, testing::ValuesIn(all_samples()), sample_name);

// Converted to an unsigned number of 64 bits, of which the low 32 are kept, in all layouts.
TEST(BrickUnlink, KeepsTheLowBitsOfAnyUnsignedNumber)
{
    struct Case {
        const char *given;
        std::uint32_t stored;
    };
    for (const char *const name : {"BrickV1", "BrickV2", "BrickV3"}) {
        const RepairSample &sample = repair_sample(name);
        Device device = sample.device();
        const auto place = static_cast<std::uint64_t>(sample.parsed().place);
        for (const Case &each :
             {Case{"18446744073709551615", 4294967295}, Case{"18446744073709551614", 4294967294},
              Case{"9223372036854775809", 1}, Case{"9223372036854775808", 0},
              Case{"-1", 4294967295}}) {
            SCOPED_TRACE(std::string(name) + ": " + each.given);
            Members members = sample.members;
            members.back().second = each.given;
            const std::vector<std::string> args{
                "-y", "-f", device.directory().write("conf.json", sample.document(members))};
            const LoggedRun run = run_in_process(device, "repair_brick", args);
            EXPECT_EQ(run.status, 0) << run;
            EXPECT_EQ(get_u32(device.block(place), 160), each.stored);
            EXPECT_NE(run.out.find(text("\"bi_unlink\":%u,", each.stored)), std::string::npos);
        }
    }
}

} // namespace
