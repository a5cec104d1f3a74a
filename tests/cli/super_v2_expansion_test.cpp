// The expansion inode area of a V2 super block: which repair files set it up, clear it or fail.

#include "super_v2_expansion.h"

using namespace tier_test;

namespace {

TEST_F(SuperV2Expansion, FirstAndLastSlotAreEnough)
{
    format(SMALLEST_EXPANSION);
    const Block first = device.block(static_cast<std::uint64_t>(expansion_offset(super, 0)));
    expect_accepted(file_with(SMALLEST_EXPANSION), with_area(SMALLEST_EXPANSION, false),
                    all_keys(SMALLEST_EXPANSION, "0x0"));
    expect_accepted(file_with(SMALLEST_EXPANSION, true), with_area(SMALLEST_EXPANSION, true),
                    all_keys(SMALLEST_EXPANSION, "0x53"));
    EXPECT_EQ(device.block(static_cast<std::uint64_t>(expansion_offset(super, 0))), first);
}

TEST_F(SuperV2Expansion, InodesInUseAreFormattedToo)
{
    put_slot(0, encode(inode_v2_used(super.inode_cnt, 1)));
    put_slot(SMALLEST_EXPANSION - 1,
             encode(inode_v2_used(super.inode_cnt + SMALLEST_EXPANSION - 1, 99)));
    expect_accepted(file_with(SMALLEST_EXPANSION), with_area(SMALLEST_EXPANSION, false),
                    all_keys(SMALLEST_EXPANSION, "0x0"));
}

TEST_F(SuperV2Expansion, DryRunWritesNothing)
{
    format(SMALLEST_EXPANSION);
    const Block before = device.block(SUPER_OFFSET);
    const LoggedRun run = repair(file_with(SMALLEST_EXPANSION), {});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, json(with_area(SMALLEST_EXPANSION, false)));
    EXPECT_EQ(device.block(SUPER_OFFSET), before);
}

TEST_F(SuperV2Expansion, DumpedLineGivesTheSameBlockAgain)
{
    format(SMALLEST_EXPANSION);
    for (const bool in_use : {false, true}) {
        const SuperV2 sb = with_area(SMALLEST_EXPANSION, in_use);
        device.write(SUPER_OFFSET, encode(sb));
        const LoggedRun dump = run_logged(device, "dump_super");
        ASSERT_EQ(dump.out, json(sb));
        device.write(SUPER_OFFSET, Block{});
        device.directory().write("conf.json", dump.out);
        EXPECT_EQ(run_logged(device, "repair_super", {"-v", "2", "-f", conf(), "-y"}).status, 0);
        EXPECT_EQ(device.block(SUPER_OFFSET), encode(sb));
    }
}

TEST_F(SuperV2Expansion, SmallerAreasAreRefused)
{
    format(SMALLEST_EXPANSION);
    for (const std::uint32_t count : {1U, 25600U, SMALLEST_EXPANSION - 1})
        expect_not_formatted(count, {});
}

TEST_F(SuperV2Expansion, CountsBetweenTwoUnitsAreRoundedDown)
{
    for (const std::uint32_t count : {SMALLEST_EXPANSION + 1, 179199U, 200000U}) {
        SCOPED_TRACE(count);
        format(count);
        expect_accepted(file_with(count), with_area(count, false), all_keys(count, "0x0"));
    }
    EXPECT_EQ(expansion_count(with_area(200000, false)), 179200U);
    EXPECT_EQ(with_area(200000, false).exp_area, 7);
}

TEST_F(SuperV2Expansion, AreaKeepsOneByte)
{
    for (const std::uint32_t units : {255U, 256U, 257U, 262U}) {
        SCOPED_TRACE(units);
        const std::uint32_t count = units * EXPANSION_UNIT;
        format(count);
        const SuperV2 sb = with_area(count, true);
        ASSERT_EQ(sb.exp_area, units % 256);
        expect_accepted(file_with(count, true), sb, all_keys(count, "0x53"));
    }
}

TEST_F(SuperV2Expansion, CountIsReadAs64BitsAndKeepsTheLow32)
{
    format(SMALLEST_EXPANSION);
    for (const char *count : {"153600.9", "4295120896", "-4294813696", "1.536e5"}) {
        RepairFile file = file_with(SMALLEST_EXPANSION);
        file.set("exp_inode_cnt", count);
        expect_accepted(file, with_area(SMALLEST_EXPANSION, false),
                        all_keys(SMALLEST_EXPANSION, "0x0"));
    }
    // A count that is negative as it is shown.
    expect_not_formatted(0xFFFFFFFF, {unreadable_slot(0xFFFFFFFE)});
}

TEST_F(SuperV2Expansion, WithoutACountTheOtherKeysAreNotRead)
{
    for (const char *other : {"\"0x4558\"", "\"0x53\"", "7", "null", "[]"}) {
        SCOPED_TRACE(other);
        const Values keys{{"exp_inode_magic", other}, {"exp_inode_inuse", other}};
        expect_accepted(file_with(keys), super, {});
        for (const char *count : {"0", "0.9", "-0.5", "4294967296", "1e30"}) {
            RepairFile file = file_with(keys);
            file.set("exp_inode_cnt", count);
            expect_accepted(file, super, {key_line("exp_inode_cnt", "0")});
        }
    }
}

TEST_F(SuperV2Expansion, AnotherMagicClearsTheAreaUnread)
{
    // Neither slots nor the last key are needed.
    for (const std::string &magic :
         {std::string("0x4559"), std::string("0X4558"), std::string("0x455"), std::string("4558"),
          std::string(" 0x4558"), std::string(""), std::string("none"), std::string(40, 'x')}) {
        SCOPED_TRACE(magic);
        for (const std::uint32_t count : {1U, SMALLEST_EXPANSION}) {
            const Values keys{{"exp_inode_cnt", std::to_string(count)},
                              {"exp_inode_magic", json_string(magic)}};
            expect_accepted(file_with(keys), super, count_and_magic(count, magic.substr(0, 31)));
        }
    }
}

TEST_F(SuperV2Expansion, OnlyTheBeginOfTheTextsCounts)
{
    format(SMALLEST_EXPANSION);
    const std::string long_tail(40, '9');
    for (const std::string &magic : {std::string("0x45581"), std::string("0x4558)"),
                                     std::string("0x4558 and more"), "0x4558" + long_tail}) {
        SCOPED_TRACE(magic);
        RepairFile file = file_with(SMALLEST_EXPANSION, true);
        file.string("exp_inode_magic", magic);
        expect_accepted(file, with_area(SMALLEST_EXPANSION, true),
                        all_keys(SMALLEST_EXPANSION, "0x53", magic.substr(0, 31)));
    }
    const std::vector<std::pair<std::string, bool>> uses{
        {"0x53", true},  {"0x530", true},   {"0x53" + long_tail, true}, {"0x5", false},
        {"0X53", false}, {"53", false},     {" 0x53", false},           {"0x54", false},
        {"", false},     {long_tail, false}};
    for (const auto &[inuse, in_use] : uses) {
        SCOPED_TRACE(inuse);
        RepairFile file = file_with(SMALLEST_EXPANSION);
        file.string("exp_inode_inuse", inuse);
        expect_accepted(file, with_area(SMALLEST_EXPANSION, in_use),
                        all_keys(SMALLEST_EXPANSION, inuse.substr(0, 31)));
    }
}

TEST_F(SuperV2Expansion, MissingKeys)
{
    format(SMALLEST_EXPANSION);
    expect_refused(file_with(SMALLEST_EXPANSION).erase("exp_inode_magic"),
                   {key_line("exp_inode_cnt", "153600"),
                    error_line(EXPANSION_PARSER, "parse exp_inode_magic failed")});
    Log lines = count_and_magic(SMALLEST_EXPANSION);
    lines.push_back(error_line(EXPANSION_PARSER, "parse exp_inode_inuse failed"));
    expect_refused(file_with(SMALLEST_EXPANSION).erase("exp_inode_inuse"), lines);
}

TEST_F(SuperV2Expansion, KeysOfAnotherType)
{
    format(SMALLEST_EXPANSION);
    const Log keys = all_keys(SMALLEST_EXPANSION, "0x0");
    const std::vector<std::string> names{"exp_inode_cnt", "exp_inode_magic", "exp_inode_inuse"};
    for (std::size_t i = 0; i < names.size(); ++i)
        for (const std::string &value :
             {std::string(i == 0 ? "\"153600\"" : "17752"), std::string("null"),
              std::string("true"), std::string("[]"), std::string("{}")}) {
            SCOPED_TRACE(names[i] + ": " + value);
            Log lines(keys.begin(), keys.begin() + static_cast<std::ptrdiff_t>(i));
            lines.push_back(error_line(EXPANSION_PARSER, "parse " + names[i] + " failed"));
            expect_refused(file_with(SMALLEST_EXPANSION).set(names[i], value), lines);
        }
}

TEST_F(SuperV2Expansion, SlotThatDoesNotHoldItsInode)
{
    const std::uint32_t last = SMALLEST_EXPANSION - 1;
    for (const std::uint32_t slot : {0U, last}) {
        format(SMALLEST_EXPANSION);
        const std::uint32_t no = super.inode_cnt + slot;
        InodeV2 zero;
        zero.magic = 0;
        zero.checksum = 0;
        InodeV2 other_magic = inode_v2(no);
        other_magic.magic = 0x498E4F54;
        InodeV2 unsealed = inode_v2_used(no, 1);
        unsealed.checksum = record_crc(encode(unsealed), InodeV2::LENGTH) ^ 1U;
        for (const InodeV2 &found :
             {zero, other_magic, unsealed, inode_v2(no + 1), inode_v2(slot)}) {
            put_slot(slot, encode(found));
            expect_not_formatted(SMALLEST_EXPANSION, faulty_slot(slot, found));
        }
    }
    // Both are wrong: the first is reported.
    put_slot(0, encode(inode_v2(1)));
    expect_not_formatted(SMALLEST_EXPANSION, faulty_slot(0, inode_v2(1)));
}

TEST_F(SuperV2Expansion, FaultySlotWithoutALogFileAborts)
{
    if (!default_log_is_missing())
        return;
    put_slot(SMALLEST_EXPANSION - 1, Block{});
    device.directory().write("conf.json", file_with(SMALLEST_EXPANSION).text());
    const Block before = device.block(SUPER_OFFSET);
    expect_abort(run_tool({"-p", device.path(), "-c", "repair_super", "-f", conf(), "-y"}),
                 "inode && fp");
    EXPECT_EQ(device.block(SUPER_OFFSET), before);
}

TEST_F(SuperV2Expansion, DeviceThatEndsInFrontOfASlot)
{
    expect_not_formatted(SMALLEST_EXPANSION, {unreadable_slot(0)});
    put_slot(0, encode(inode_v2(super.inode_cnt)));
    expect_not_formatted(SMALLEST_EXPANSION, {unreadable_slot(SMALLEST_EXPANSION - 1)});
}

TEST_F(SuperV2Expansion, OffsetThatWrapsIsRefused)
{
    const std::uint64_t behind = std::uint64_t{super.block_size} * super.block_cnt + MIB;
    for (const std::uint64_t data_offset : {~std::uint64_t{0}, 0 - behind}) {
        super.data_offset = data_offset;
        expect_not_formatted(
            SMALLEST_EXPANSION,
            {error_line("__check_exp_inode_formated",
                        text("exp offset(%lu) is invalid, sb_data_off: %lu sb_block_cnt: "
                             "%u sb_block_size: %u",
                             data_offset + behind, data_offset, super.block_cnt,
                             super.block_size))});
    }
    super.data_offset = 0 - behind - 1; // the largest that does not wrap, and no offset to read at
    expect_not_formatted(SMALLEST_EXPANSION, {unreadable_slot(0)});
}

TEST_F(SuperV2Expansion, InodeNumbersAreAddedIn32Bits)
{
    super.inode_cnt = 0xFFFFFFFF;
    format(SMALLEST_EXPANSION);
    expect_accepted(file_with(SMALLEST_EXPANSION), with_area(SMALLEST_EXPANSION, false),
                    all_keys(SMALLEST_EXPANSION, "0x0"), {"-F"});
}

TEST_F(SuperV2Expansion, GeometryIsCheckedBehindTheArea)
{
    format(SMALLEST_EXPANSION);
    RepairFile file = file_with(SMALLEST_EXPANSION).erase("min_alloc_size");
    Log log = log_with(all_keys(SMALLEST_EXPANSION, "0x0"));
    log.push_back(error_line("parse_sb_from_json_v2", "parse min_alloc_size failed"));
    log.push_back(error_line("zutr_repair_common", "parse meta info failed:-22, cmd:9, dev:" +
                                                       device.path() + ", conf:" + conf()));
    expect_run(repair(file, {"-y"}), {.status = 22, .out = "", .log = log});
}

} // namespace
