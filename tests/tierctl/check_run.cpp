#include "check_run.h"

#include <nlohmann/json.hpp>
#include <ostream>

namespace tier_test {

namespace {

using Json = nlohmann::ordered_json;

std::string lines_of_array(const Json &array)
{
    std::string lines;
    for (const Json &element : array)
        lines += (lines.empty() ? "\n" : ",\n") + element.dump();
    return lines;
}

// What the document must be to the byte: a line for each finding, and no blanks.
std::string layout_of(const Json &document)
{
    std::string text = "{\"device\":" + document.at("device").dump() +
                       ",\"layout\":" + document.at("layout").dump() + ",\"causes\":[" +
                       lines_of_array(document.at("causes")) + "],\n\"findings\":[" +
                       lines_of_array(document.at("findings"));
    return text + "],\n\"tables\":" + document.at("tables").dump() +
           ",\n\"kinds\":" + document.at("kinds").dump() + "}\n";
}

std::vector<std::string> keys_of(const Json &object)
{
    std::vector<std::string> keys;
    for (const auto &item : object.items())
        keys.push_back(item.key());
    return keys;
}

// The text ends with what flipped bits explain of the findings.
void expect_explained(const Json &json)
{
    const std::uint64_t count = json.at("count");
    std::string end;
    for (const auto &[key, words] : {std::pair{"one_bit", "; one flipped bit explains "},
                                     {"two_bits", "; two flipped bits explain "}}) {
        EXPECT_TRUE(json.at(key).is_number_unsigned()) << json;
        const std::uint64_t explained = json.at(key);
        if (explained != 0)
            end += words + (count == 1           ? "it"
                            : explained == count ? std::string("each")
                                                 : text("%lu of them", explained));
    }
    const std::string said = json.at("text");
    EXPECT_TRUE(said.ends_with(end)) << json;
    EXPECT_EQ(said.substr(0, said.size() - end.size()).find("flipped"), std::string::npos) << json;
}

Finding finding_of(const Json &json)
{
    EXPECT_EQ(keys_of(json), (std::vector<std::string>{"kind", "severity", "table", "unit", "no",
                                                       "last", "count", "block", "offset", "zero",
                                                       "one_bit", "two_bits", "command", "text"}));
    EXPECT_TRUE(json.at("no").is_number_unsigned() && json.at("offset").is_number_integer())
        << json;
    EXPECT_TRUE(json.at("zero").is_boolean()) << json;
    EXPECT_TRUE(json.at("severity") == "error" || json.at("severity") == "warning") << json;
    EXPECT_TRUE(json.at("unit") == "entry" || json.at("unit") == "block") << json;
    std::optional<std::uint64_t> block;
    if (!json.at("block").is_null())
        block = json.at("block").get<std::uint64_t>();
    expect_explained(json);
    return {json.at("kind"),    json.at("severity"), json.at("table"),   json.at("unit"),
            json.at("no"),      json.at("last"),     json.at("count"),   block,
            json.at("offset"),  json.at("zero"),     json.at("one_bit"), json.at("two_bits"),
            json.at("command"), json.at("text")};
}

Cause cause_of(const Json &json)
{
    EXPECT_EQ(keys_of(json), (std::vector<std::string>{"table", "no", "last", "count", "text"}));
    const Cause cause{json.at("table"), json.at("no"), json.at("last"), json.at("text")};
    EXPECT_EQ(json.at("count"), cause.last - cause.no + 1);
    return cause;
}

Counts counts_of(const Json &json)
{
    EXPECT_EQ(keys_of(json),
              (std::vector<std::string>{"entries", "in_use", "free", "damaged", "unreadable"}));
    for (const Json &count : json)
        EXPECT_TRUE(count.is_number_unsigned()) << json;
    return {json.at("entries"), json.at("in_use"), json.at("free"), json.at("damaged"),
            json.at("unreadable")};
}

std::string line(const char *severity, const std::string &kind, const std::string &table,
                 const std::string &unit, std::uint64_t no, std::int64_t offset)
{
    return text("%s %s: %s %s %lu at %ld", severity, kind.c_str(), table.c_str(), unit.c_str(), no,
                offset);
}

// Up to the end of its data area.
template <class Super>
Device whole(Device device, const Super &sb)
{
    device.truncate(sb.data_offset + std::uint64_t{sb.block_size} * sb.block_cnt);
    return device;
}

} // namespace

void PrintTo(const Counts &counts, std::ostream *out)
{
    *out << counts.entries << " entries: " << counts.in_use << " in use, " << counts.free
         << " free, " << counts.damaged << " damaged, " << counts.unreadable << " unreadable";
}

Report run_check(const std::string &device, std::vector<std::string> args)
{
    args.emplace_back("--all");
    return run_check_in_runs(device, args);
}

Report run_check_in_runs(const std::string &device, const std::vector<std::string> &args)
{
    std::vector<std::string> all{"check", "--json", device};
    all.insert(all.end(), args.begin(), args.end());
    Report report;
    report.run = run_program(ZU_TIERCTL, all);
    EXPECT_EQ(report.run.err, "");
    const Json document = Json::parse(report.run.out);
    EXPECT_EQ(report.run.out, layout_of(document));
    report.device = document.at("device");
    report.layout = document.at("layout");
    for (const Json &cause : document.at("causes"))
        report.causes.push_back(cause_of(cause));
    for (const Json &finding : document.at("findings"))
        report.findings.push_back(finding_of(finding));
    for (const auto &[table, counts] : document.at("tables").items())
        report.tables[table] = counts_of(counts);
    EXPECT_EQ(report.run.status, report.findings.empty() ? 0 : 1);
    EXPECT_EQ(report.device, device);

    std::map<std::string, std::uint64_t> found;
    for (const Finding &finding : report.findings) {
        found[finding.kind] += finding.count;
        EXPECT_TRUE(report.tables.contains(finding.table)) << finding.table;
    }
    EXPECT_EQ((document.at("kinds").get<std::map<std::string, std::uint64_t>>()), found);
    for (const auto &[table, counts] : report.tables)
        EXPECT_EQ(counts.in_use + counts.free + counts.damaged + counts.unreadable, counts.entries)
            << table;
    return report;
}

std::string summary(const Finding &f)
{
    return line(f.severity.c_str(), f.kind, f.table, f.unit, f.no, f.offset);
}

std::string error(const std::string &kind, const std::string &table, std::uint64_t no,
                  std::int64_t offset, const std::string &unit)
{
    return line("error", kind, table, unit, no, offset);
}

std::string warning(const std::string &kind, const std::string &table, std::uint64_t no,
                    std::int64_t offset, const std::string &unit)
{
    return line("warning", kind, table, unit, no, offset);
}

void expect_findings(const Device &device, const std::vector<std::string> &expected,
                     const std::vector<std::string> &args)
{
    std::vector<std::string> found;
    for (const Finding &finding : run_check(device.path(), args).findings)
        found.push_back(summary(finding));
    EXPECT_EQ(found, expected);
}

Device WorldV1::device() const { return whole(make_v1_device(sb, bricks, inodes, extents), sb); }

WorldV2::WorldV2()
{
    extents[0].maps[0] = {0x7000, 1, 32768, 0, 8};
    extents[0].maps[2] = {0x1000'0000'0000'0000U, 0, 1, 200, 1};
    extents[0].maps[3] = {4096, 1, 192 * 4096, 8, 192};
}

Device WorldV2::device() const { return whole(make_v2_device(sb, bricks, inodes, extents), sb); }

} // namespace tier_test
