// The template command foresees what a repair with its file does: for every damaged bit of a super
// block, and for every word of every table at the ends of its range.

#include "in_process.h"
#include "v3_device.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/template/template.h"

#include <iostream>
#include <map>

using namespace tier_test;

namespace {

using Notes = std::vector<std::string>;

const std::map<std::string_view, zutr_cmd_t> REPAIRS{
    {"super", ZUTR_CMD_REPAIR_SUPER}, {"brick", ZUTR_CMD_REPAIR_BRICK},
    {"inode", ZUTR_CMD_REPAIR_INODE}, {"extent", ZUTR_CMD_REPAIR_EXTENT},
    {"shard", ZUTR_CMD_REPAIR_SHARD}, {"hot", ZUTR_CMD_REPAIR_HOT_TABLE},
};

// What follows a prefix in those notes that begin with it.
Notes notes_with(const std::vector<std::string> &notes, const std::string &prefix)
{
    Notes found;
    for (const std::string &note : notes)
        if (note.starts_with(prefix))
            found.push_back(note.substr(prefix.size()));
    return found;
}

// The device of a test, whose entries are damaged in turn. What the tool prints is dropped unless
// something is wrong.
class Foresight {
public:
    Foresight(Device &device, const std::string &layout)
        : device_(device), layout_(*tierctl::find_layout(layout)), tool_(device),
          companion_(device.path(), tierctl::Access::read_only)
    {
        testing::internal::CaptureStdout();
    }
    Foresight(const Foresight &) = delete;
    Foresight &operator=(const Foresight &) = delete;
    ~Foresight()
    {
        const std::string printed = testing::internal::GetCapturedStdout();
        if (testing::Test::HasFailure())
            std::cout << printed;
    }

    const tier_layout &layout() const { return layout_; }
    std::size_t refused() const { return refused_; }

    // With `stored` in place of entry `no`, whose slot is what it was afterwards.
    void check(const std::string &table_name, std::uint64_t no, const Block &stored)
    {
        tierctl::Block super = tierctl::read_super(companion_);
        const tierctl::Metadata whole = {&layout_, super,
                                         tierctl::tables_of(layout_, super.data())};
        const auto offset =
            static_cast<std::uint64_t>(tierctl::find_table(whole.tables, table_name).slot(no));
        const Block good = device_.block(offset);
        device_.write(offset, stored);
        super = tierctl::read_super(companion_);
        const bool tells = table_name != "super" || tierctl::looks_like(layout_, super);
        const tierctl::Metadata damaged = tierctl::read_template_metadata(
            companion_, table_name, tells ? "" : std::string(layout_.name));
        const tierctl::Template made = tierctl::make_template(
            companion_, damaged, tierctl::find_table(damaged.tables, table_name), no, "",
            tierctl::Damage::as_is);
        const Notes refusals = notes_with(made.notes, "zu_tier refuses this file as it stands: ");
        const Notes changes = notes_with(made.notes, "a repair changes ");

        file_ = device_.directory().write("template.json", made.file);
        EXPECT_EQ(repair(table_name, super, false), refusals);
        refused_ += refusals.empty() ? 0 : 1;
        const bool written = refusals.empty() || repair(table_name, super, true).empty();
        Notes differences;
        if (written) {
            const tierctl::Metadata metadata = {&layout_, super,
                                                tierctl::tables_of(layout_, super.data())};
            const tierctl::Table &table = tierctl::find_table(metadata.tables, table_name);
            const Block after = device_.block(offset);
            for (const tierctl::Difference &difference : tierctl::entry_differences(
                     {metadata, table, no, stored.data()}, {metadata, table, no, after.data()}))
                differences.push_back(difference.key + ": " + difference.a + " -> " + difference.b);
        }
        expect_told(changes, differences);
        device_.write(offset, good);
    }

private:
    // The messages of the parser; none when the block has been written.
    Notes repair(const std::string &table, tierctl::Block &super, bool force) const
    {
        zutr_params_t params = params_on(device_, tool_);
        params.cmd = REPAIRS.at(table);
        params.sb = table == "super" ? nullptr : super.data();
        params.spec_ver = table == "super" ? layout_.version : 0;
        params.repair_conf = file_.c_str();
        params.commit = 1;
        params.force = force ? 1 : 0;
        zutr_cmd_func_t handler = nullptr;
        EXPECT_EQ(zutr_get_selector(layout_.version)(params.cmd, params.sb, &handler), 0);
        const MemoryStream log;
        const MemoryStream errors;
        zutr_redirect_log(log.get(), errors.get());
        const std::int32_t result = handler(&params);
        zutr_redirect_log(nullptr, nullptr);
        Notes messages;
        for (const LogLine &line : parse_log(errors.text()))
            if (line.func != "zutr_repair_common")
                messages.push_back(tierctl::shown_text(line.text));
        EXPECT_EQ(result == 0, messages.empty());
        return messages;
    }

    // Bytes may be told under the name of their stretch.
    static void expect_told(const Notes &told, const Notes &differences)
    {
        ASSERT_EQ(told.size(), differences.size())
            << testing::PrintToString(told) << testing::PrintToString(differences);
        for (std::size_t i = 0; i < told.size(); ++i) {
            const std::string key = differences[i].substr(0, differences[i].find(": "));
            const bool in_stretch = key.starts_with("bytes ") && told[i][key.size()] == ' ';
            const std::size_t rest = in_stretch ? told[i].find("): ") + 1 : key.size();
            const std::string change = told[i].substr(0, key.size()) + told[i].substr(rest);
            const std::string made_up = "a new one each time";
            if (change.ends_with(made_up))
                EXPECT_EQ(change.substr(0, change.size() - made_up.size()),
                          differences[i].substr(0, change.size() - made_up.size()));
            else
                EXPECT_EQ(change, differences[i]);
        }
    }

    Device &device_;
    const tier_layout &layout_;
    OpenDevice tool_;
    tierctl::Device companion_;
    std::string file_;
    std::size_t refused_ = 0;
};

// Every bit of a super block's record.
template <class Super>
void check_bits(Device device, const std::string &layout)
{
    const Block good = device.block(SUPER_OFFSET);
    Foresight foresight(device, layout);
    for (std::size_t bit = 0; bit < 8 * Super::LENGTH; ++bit) {
        SCOPED_TRACE(bit);
        Block bad = good;
        bad[bit / 8] = static_cast<std::uint8_t>(bad[bit / 8] ^ 1U << bit % 8);
        foresight.check("super", 0, bad);
        if (testing::Test::HasFailure())
            return;
    }
    // Of the bits of sizes and counts nearly all break a rule, of those of checksum, magic,
    // version, time and identity none does.
    EXPECT_GT(foresight.refused(), 8 * Super::LENGTH / 4);
    EXPECT_LT(foresight.refused(), 8 * Super::LENGTH * 7 / 8);
}

TEST(TemplateOfEveryBit, V1) { check_bits<SuperV1>(make_v1_device(super_v1(2, 3, 4)), "v1"); }

TEST(TemplateOfEveryBit, V2) { check_bits<SuperV2>(make_v2_device(super_v2(2, 3, 4)), "v2"); }

TEST(TemplateOfEveryBit, V2WithAnExpansionArea)
{
    SuperV2 sb = super_v2(2, 3, 4);
    set_expansion(sb, 153600, true);
    check_bits<SuperV2>(make_v2_device(sb, {}, {inode_v2(3), inode_v2(153602)}), "v2");
}

TEST(TemplateOfEveryBit, V3) { check_bits<SuperV3>(make_v3_device(super_v3(2, 3)), "v3"); }

// Each word of entry 1 of every table, and its halves and quarters, at the ends of their ranges.
void check_words(Device device, const std::string &layout)
{
    constexpr std::uint64_t TOP = std::uint64_t{1} << 63;
    constexpr std::size_t WORDS = 84; // then the extents of V2 have ended
    Foresight foresight(device, layout);
    const tierctl::Metadata metadata =
        tierctl::read_metadata(tierctl::Device(device.path(), tierctl::Access::read_only));
    for (const tierctl::Table &table : metadata.tables) {
        const std::uint64_t no = table.name == tierctl::SUPER_TABLE ? 0 : 1;
        const Block good = device.block(static_cast<std::uint64_t>(table.slot(no)));
        for (std::size_t word = 1; word < WORDS; ++word) {
            for (const std::uint64_t value :
                 {UINT64_MAX, TOP, TOP - 1, TOP - 512, TOP + 1025, (std::uint64_t{1} << 53) + 1,
                  std::uint64_t{0x8000800080008000}, std::uint64_t{0}}) {
                if (8 * word >= table.record_length && value != UINT64_MAX)
                    break; // nobody reads it
                SCOPED_TRACE(text("%s, word %zu: 0x%lx", table.row->name.data(), word, value));
                Block bad = good;
                put_u64(bad, 8 * word, value);
                foresight.check(std::string(table.name), no, bad);
                if (testing::Test::HasFailure())
                    return;
            }
        }
    }
    EXPECT_GT(foresight.refused(), 0U);
}

TEST(TemplateOfEveryWord, V1)
{
    check_words(
        make_v1_device(super_v1(2, 3, 4), {brick_used(1)}, {inode_used(1, 1)}, {extent_used(1, 1)}),
        "v1");
}

TEST(TemplateOfEveryWord, V2)
{
    check_words(make_v2_device(super_v2(2, 3, 4), {brick_used(1)}, {inode_v2_used(1, 1)},
                               {extent_v2_used(1, 1)}),
                "v2");
}

TEST(TemplateOfEveryWord, V3)
{
    ShardBlockV3 shards;
    ExtentBlockV3 extents;
    for (std::uint32_t slot = 1; slot < SLOTS_V3; slot += 3) {
        shards.shards.push_back({.slot = slot, .ino = slot % 3, .index = slot});
        extents.extents.push_back({.slot = slot, .lba = slot, .shard = 1, .sense = slot % 16});
    }
    check_words(make_v3_device(super_v3(2, 3), {brick_v3_used(1)}, {inode_v3_used(1, 1)},
                               {{1, shards}}, {{1, extents}}),
                "v3");
}

} // namespace
