// Every key of every repair file: missing, twice, in another case, of every other type and with
// every number that is of interest. What each file comes to is computed from the tables of keys.

#include "configuration.h"
#include "configuration_numbers.h"
#include "damage_device.h"
#include "repair_file.h"

#include <algorithm>
#include <cctype>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

SweepRuns configuration_runs("configuration");

const std::string ADDRESS = "<address>";

// Where `expected` says "<address>", any may stand.
bool matches(const std::string &expected, const std::string &actual)
{
    const std::size_t at = expected.find(ADDRESS);
    if (at == std::string::npos)
        return expected == actual;
    const std::string behind = expected.substr(at + ADDRESS.size());
    if (actual.size() < at + behind.size() || actual.substr(0, at) != expected.substr(0, at) ||
        !actual.ends_with(behind))
        return false;
    const std::string address = actual.substr(at, actual.size() - at - behind.size());
    return address.size() > 2 && address.starts_with("0x") &&
           address.find_first_not_of("0123456789abcdef", 2) == std::string::npos;
}

void expect_errors(const RunResult &run, const Log &expected)
{
    const Log errors = parse_log(run.err);
    ASSERT_EQ(errors.size(), expected.size()) << run;
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(errors[i].level, "ERROR");
        EXPECT_EQ(errors[i].func, expected[i].func) << run;
        EXPECT_TRUE(matches(expected[i].text, errors[i].text))
            << "expected: " << expected[i].text << '\n'
            << run;
    }
}

class Configuration : public testing::TestWithParam<const ConfigTable *> {
protected:
    const ConfigTable &table = *GetParam();
    const Members file = sample_members(table);
    SweptDevice device{table.device(), configuration_runs};

    void TearDown() override { configuration_runs.record_test(); }

    // The sample file with the value of one key changed.
    Members with(const ConfigKey &key, const std::string &value) const
    {
        Members members = file;
        std::ranges::find(members, key.name, &Members::value_type::first)->second = value;
        return members;
    }

    static bool takes(const ConfigKey &key, const std::string &value)
    {
        const std::string digits = "0123456789";
        switch (key.holds) {
        case Holds::NUMBER:
            return digits.find(value.front()) != std::string::npos;
        case Holds::ARRAY:
            return value.front() == '[';
        default:
            return value.front() == '"';
        }
    }

    std::string refusal(const ConfigKey &key, const std::string &message) const
    {
        return message.empty() ? "parse " + key.name + " failed" : message;
    }

    // The parse ends at the key.
    void expect_refused_at(const ConfigKey &key, const Members &members, const std::string &message)
    {
        Log errors{error_line(key.func.empty() ? table.parser : key.func, message)};
        if (!key.func.empty())
            errors.push_back(error_line(
                table.parser, text("repair super exp inode failed, cmd: %d", table.code)));
        expect_refused(members, errors);
    }

    // A number that the file gives the key, and how it comes out in 64 bits.
    void expect_number(const ConfigKey &key, const SweptNumber &number)
    {
        SCOPED_TRACE(key.name + ": " + number.text);
        const Members members = with(key, number.text);
        const std::uint64_t value = kept_bits(key, taken(number, key.taken));
        const std::string refused = key.refuse ? key.refuse(value) : std::string();
        if (!refused.empty())
            return expect_refused_at(key, members, refused);
        Made made = table.sample;
        store(made, key, value);
        expect_made(members, made);
    }

    void expect_text(const ConfigKey &key, const TextCase &given)
    {
        SCOPED_TRACE(key.name + ": " + given.given);
        const Members members =
            with(key, key.holds == Holds::ARRAY ? given.given : json_string(given.given));
        if (!given.error.empty())
            return expect_refused_at(key, members, given.error);
        Made made = table.sample;
        if (key.holds == Holds::HEX)
            store(made, key, given.number);
        else if (!key.apply)
            put_whole_text(made.block, key, given.stored);
        expect_made(members, made);
    }

    void expect_absent(const ConfigKey &key)
    {
        SCOPED_TRACE(key.name);
        Members members = file;
        std::erase_if(members, [&](const auto &member) { return member.first == key.name; });
        if (key.needed != Needed::OPTIONAL)
            return expect_refused_at(key, members, refusal(key, key.missing));
        Made made = table.sample;
        store(made, key, key.fallback ? key.fallback(made.block) : 0);
        expect_made(members, made);
    }

    // All keys are read, which makes this.
    void expect_made(const Members &members, Made made)
    {
        if (is_free(made))
            made.block = freed(made.block);
        table.seal(made.block);
        const Log errors = table.refusals(made.block);
        if (!errors.empty())
            expect_refused(members, errors);
        if (table.forced)
            expect_accepted(members, made, {"-F"});
        else if (errors.empty())
            expect_accepted(members, made, {});
    }

private:
    static std::uint64_t kept_bits(const ConfigKey &key, std::uint64_t value)
    {
        return key.width == 64 ? value : value & ((std::uint64_t{1} << key.width) - 1);
    }

    static void store(Made &made, const ConfigKey &key, std::uint64_t value)
    {
        if (key.apply)
            key.apply(made, value);
        else
            put_bits(made.block, key, value);
    }

    // A UUID has 16 bytes, any other text ends in zeros.
    static void put_whole_text(Block &block, const ConfigKey &key, const std::string &value)
    {
        const std::size_t old =
            key.holds == Holds::UUID
                ? 16
                : std::string(reinterpret_cast<const char *>(block.data() + key.byte)).size();
        std::fill_n(block.begin() + static_cast<std::ptrdiff_t>(key.byte), old, std::uint8_t{0});
        put_text(block, key.byte, value);
    }

    bool is_free(const Made &made) const
    {
        const auto use = std::ranges::find(table.keys, table.use, &ConfigKey::name);
        return use != table.keys.end() && get_bits(made.block, *use) == 0;
    }

    Block freed(const Block &block) const
    {
        Block result{};
        if (table.magic != 0)
            put_u32(result, 4, table.magic);
        for (const ConfigKey &key : table.keys)
            if (key.needed == Needed::ALWAYS)
                put_bits(result, key, get_bits(block, key));
        return result;
    }

    std::vector<std::string> arguments(const Members &members, std::vector<std::string> args) const
    {
        const std::string document = table.before + object_of(members) + table.behind;
        args.insert(args.end(), {"-f", device.file("conf.json", document)});
        return args;
    }

    LogLine driver_line(const std::string &start) const
    {
        return error_line("zutr_repair_common",
                          text("%s, cmd:%d, dev:%s, conf:%s.json", start.c_str(), table.code,
                               device.path().c_str(), conf_stem().c_str()));
    }
    std::string conf_stem() const
    {
        return device.path().substr(0, device.path().rfind('/')) + "/conf";
    }

    void expect_refused(const Members &members, Log errors)
    {
        const RunResult run =
            device.run(table.command, arguments(members, {"-y"}), {.commit = true});
        errors.push_back(driver_line("parse meta info failed:-22"));
        EXPECT_EQ(run.status, 22) << run;
        EXPECT_EQ(run.out, "") << run;
        expect_errors(run, errors);
    }

    void expect_printed(const RunResult &run, const Made &made) const
    {
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_EQ(run.err, "") << run;
        if (table.checksum_key.empty()) {
            EXPECT_EQ(run.out, "");
            return;
        }
        const std::string start =
            text("{\"%s\":\"0x%x\",", table.checksum_key.c_str(), get_u32(made.block, 0));
        EXPECT_TRUE(run.out.starts_with(start)) << start << '\n' << run;
        const std::string key = "\"meta_offset\":";
        if (const std::size_t at = run.out.find(key); at != std::string::npos) {
            EXPECT_EQ(std::stoll(run.out.substr(at + key.size())), table.place(made)) << run;
        }
    }

    void expect_accepted(const Members &members, Made made, const std::vector<std::string> &args)
    {
        const std::vector<std::string> dry = arguments(members, args);
        std::vector<std::string> commit = dry;
        commit.emplace_back("-y");
        const std::int64_t place = table.place(made);
        const auto at = static_cast<std::uint64_t>(place);
        if (is_free(made) && table.makes_uuid) { // known once it is written
            const RunResult run = device.run(table.command, commit, {.commit = true, .place = at});
            const Block left = device.left(at);
            EXPECT_NE(get_uuid(left, 16), Uuid{});
            put_bytes(made.block, 16, get_uuid(left, 16));
            table.seal(made.block);
            EXPECT_EQ(left, made.block);
            return expect_printed(run, made);
        }
        expect_printed(device.run(table.command, dry), made);
        const RunResult run =
            device.run(table.command, commit, {.commit = true, .place = at, .block = made.block});
        if (place % 512 == 0)
            return expect_printed(run, made);
        // Direct I/O takes no such place.
        EXPECT_EQ(run.status, 5) << run;
        expect_errors(run, {driver_line(text("write meta on offset %ld failed:-1", place))});
    }
};

TEST_P(Configuration, SampleAndMissingKeys)
{
    expect_made(file, table.sample);
    for (const ConfigKey &key : table.keys)
        expect_absent(key);
}

TEST_P(Configuration, OtherTypes)
{
    for (const ConfigKey &key : table.keys) {
        for (const std::string value :
             {"null", "true", "false", "5", "\"5\"", "[]", "[5]", "{}", R"({"a":5})"}) {
            SCOPED_TRACE(key.name + ": " + value);
            if (!takes(key, value))
                expect_refused_at(key, with(key, value), refusal(key, key.mistyped));
        }
    }
}

TEST_P(Configuration, Numbers)
{
    for (const ConfigKey &key : table.keys)
        if (key.holds == Holds::NUMBER)
            for (const SweptNumber &number : swept_numbers(key))
                expect_number(key, number);
}

TEST_P(Configuration, TextsAndArrays)
{
    for (const ConfigKey &key : table.keys)
        for (const TextCase &given : key.texts)
            expect_text(key, given);
}

TEST_P(Configuration, AnotherCase)
{
    for (const bool upper : {true, false}) {
        Members members = file;
        for (auto &[name, value] : members)
            for (std::size_t i = 0; i < name.size(); i += upper ? 1 : 2)
                name[i] = static_cast<char>(std::toupper(name[i]));
        expect_made(members, table.sample);
    }
}

// The first of two counts, in whatever case it stands.
TEST_P(Configuration, KeysTwice)
{
    for (std::size_t i = 0; i < file.size(); ++i) {
        const ConfigKey &key = table.keys[i];
        SCOPED_TRACE(key.name);
        std::string shouted = key.name;
        std::ranges::transform(shouted, shouted.begin(),
                               [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        for (const std::string &name : {key.name, shouted}) {
            Members members = file;
            members.emplace_back(name, "true");
            expect_made(members, table.sample);
            members.pop_back();
            members.insert(members.begin(), {name, "true"});
            expect_refused_at(key, members, refusal(key, key.mistyped));
        }
    }
}

std::vector<const ConfigTable *> tables()
{
    std::vector<const ConfigTable *> all;
    for (const ConfigTable &table : config_tables())
        all.push_back(&table);
    return all;
}

INSTANTIATE_TEST_SUITE_P(Sweep, Configuration, testing::ValuesIn(tables()),
                         [](const auto &test) { return test.param->name; });

} // namespace
