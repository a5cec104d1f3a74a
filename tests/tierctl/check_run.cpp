#include "check_run.h"

#include <algorithm>
#include <ostream>
#include <regex>
#include <string_view>

namespace tier_test {

namespace {

const std::string STRING = R"re("((?:[^"\\\x01-\x1f]|\\["\\]|\\u[0-9a-f]{4})*)")re";
const std::string NUMBER = "(0|[1-9][0-9]*)";

// The part of `text` that matches, up to the end of its line, which is cut from its start; ends the
// test when none does.
std::cmatch cut(std::string_view &text, const std::string &pattern)
{
    static std::map<std::string, std::regex> known;
    const std::regex &compiled = known.try_emplace(pattern, pattern).first->second;
    const std::size_t line = std::min(text.find('\n') + 1, text.size());
    std::cmatch match;
    if (!std::regex_search(text.data(), text.data() + line, match, compiled,
                           std::regex_constants::match_continuous))
        throw std::runtime_error("expected " + pattern + " at " + std::string(text.substr(0, 200)));
    text.remove_prefix(static_cast<std::size_t>(match.length()));
    return match;
}

std::string unescaped(const std::string &json)
{
    std::string text;
    for (std::size_t i = 0; i < json.size(); ++i) {
        if (json[i] != '\\') {
            text += json[i];
        } else if (json[++i] != 'u') {
            text += json[i];
        } else {
            text += static_cast<char>(std::stoi(json.substr(i + 1, 4), nullptr, 16));
            i += 4;
        }
    }
    return text;
}

void parse_findings(std::string_view &text, Report &report)
{
    static const std::string FINDING =
        "\n\\{\"kind\":\"([a-z0-9_]+)\",\"severity\":\"(error|warning)\",\"table\":\"([a-z]+)\","
        "\"unit\":\"(entry|block)\",\"no\":" +
        NUMBER + ",\"offset\":(-?[0-9]+),\"command\":" + STRING + ",\"text\":" + STRING + "\\}";
    std::string delimiter;
    while (!text.starts_with("],\n")) {
        cut(text, delimiter + "(?=\n)");
        text.remove_prefix(1); // the line end, so that `cut` sees the whole line
        const std::cmatch m = cut(text, FINDING.substr(1));
        report.findings.push_back({m[1], m[2], m[3], m[4], std::stoull(m[5]), std::stoll(m[6]),
                                   unescaped(m[7]), unescaped(m[8])});
        delimiter = ",";
    }
}

std::map<std::string, std::uint64_t> parse(std::string_view text, Report &report)
{
    std::cmatch m = cut(text, "\\{\"device\":" + STRING + ",\"layout\":" + STRING +
                                  ",\"findings\":\\[(?=\n|\\])");
    report.device = unescaped(m[1]);
    report.layout = m[2];
    parse_findings(text, report);

    cut(text, "\\],\n");
    cut(text, "\"tables\":\\{");
    std::string delimiter;
    while (!text.starts_with("},\n")) {
        m = cut(text, delimiter + "\"([a-z]+)\":\\{\"entries\":" + NUMBER +
                          ",\"in_use\":" + NUMBER + ",\"free\":" + NUMBER +
                          ",\"damaged\":" + NUMBER + ",\"unreadable\":" + NUMBER + "\\}");
        report.tables[m[1]] = {std::stoull(m[2]), std::stoull(m[3]), std::stoull(m[4]),
                               std::stoull(m[5]), std::stoull(m[6])};
        delimiter = ",";
    }
    cut(text, "\\},\n");
    cut(text, "\"kinds\":\\{");
    std::map<std::string, std::uint64_t> kinds;
    delimiter.clear();
    while (!text.starts_with("}}")) {
        m = cut(text, delimiter + "\"([a-z0-9_]+)\":" + NUMBER);
        kinds[m[1]] = std::stoull(m[2]);
        delimiter = ",";
    }
    EXPECT_EQ(text, "}}\n");
    return kinds;
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

Report run_check(const std::string &device, const std::vector<std::string> &args)
{
    std::vector<std::string> all{"check", "--json", device};
    all.insert(all.end(), args.begin(), args.end());
    Report report;
    report.run = run_program(ZU_TIERCTL, all);
    EXPECT_EQ(report.run.err, "");
    const std::map<std::string, std::uint64_t> kinds = parse(report.run.out, report);
    EXPECT_EQ(report.run.status, report.findings.empty() ? 0 : 1);
    EXPECT_EQ(report.device, device);

    std::map<std::string, std::uint64_t> found;
    for (const Finding &finding : report.findings) {
        found[finding.kind]++;
        EXPECT_TRUE(report.tables.contains(finding.table)) << finding.table;
    }
    EXPECT_EQ(kinds, found);
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

Device WorldV1::device() const
{
    return whole(make_v1_device(sb, bricks, inodes, extents), sb);
}

WorldV2::WorldV2()
{
    extents[0].maps[0] = {0x7000, 1, 32768, 0, 8};
    extents[0].maps[2] = {0x8000'0000'0000'0000U, 0, 1, 200, 1};
    extents[0].maps[3] = {4096, 1, sb.block_size, 8, 192};
}

Device WorldV2::device() const
{
    return whole(make_v2_device(sb, bricks, inodes, extents), sb);
}

} // namespace tier_test
