#pragma once

#include "expect.h"
#include "probe_log.h"
#include "super_keys.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace tier_test {

constexpr std::uint32_t SMALLEST_EXPANSION = 153600;
constexpr const char *EXPANSION_PARSER = "__repair_super_exp_inode";
constexpr std::ptrdiff_t MAP_KEYS = 5; // the last ones of the file

// Repairs of a V2 super block from files with keys of the expansion area. The devices are sparse
// and hundreds of MiB long, so only the blocks in question are compared.
class SuperV2Expansion : public testing::Test {
protected:
    // The new super block has another geometry than the one on the device.
    SuperV2 super = super_v2(3, 5, 2);
    Device device = make_v2_device(super_v2(2, 2, 4));

    std::string conf() const { return device.directory().path("conf.json"); }

    // A repair file with these expansion keys; values are JSON text.
    using Values = std::vector<std::pair<std::string, std::string>>;
    RepairFile file_with(const Values &values) const
    {
        RepairFile file = repair_file(super);
        for (const auto &[key, value] : values)
            file.set(key, value);
        return file;
    }
    RepairFile file_with(std::uint64_t count, bool in_use = false) const
    {
        return file_with({{"exp_inode_cnt", std::to_string(count)},
                          {"exp_inode_magic", "\"0x4558\""},
                          {"exp_inode_inuse", in_use ? "\"0x53\"" : "\"0x0\""}});
    }

    void put_slot(std::uint64_t slot, const Block &block)
    {
        const auto offset = static_cast<std::uint64_t>(expansion_offset(super, slot));
        device.truncate(std::max(device.size(), offset + BLOCK_SIZE));
        device.write(offset, block);
    }

    // Of an area of `count` slots only the first and the last are there.
    void format(std::uint32_t count)
    {
        put_slot(0, encode(inode_v2(super.inode_cnt)));
        put_slot(count - 1, encode(inode_v2(super.inode_cnt + count - 1)));
    }

    static LogLine key_line(const std::string &key, const std::string &value)
    {
        return debug_line(EXPANSION_PARSER, key + ": " + value);
    }
    static Log count_and_magic(std::uint32_t count, const std::string &magic = "0x4558")
    {
        return {key_line("exp_inode_cnt", std::to_string(count)),
                key_line("exp_inode_magic", magic)};
    }
    static Log all_keys(std::uint32_t count, const std::string &inuse,
                        const std::string &magic = "0x4558")
    {
        Log log = count_and_magic(count, magic);
        log.push_back(key_line("exp_inode_inuse", inuse));
        return log;
    }

    // The keys of the head, then these lines.
    Log log_with(const Log &lines) const
    {
        Log log = probe_log(device, "repair_super", 2, {.repair_conf = conf()}, key_log(super));
        log.erase(log.end() - MAP_KEYS, log.end());
        log.insert(log.end(), lines.begin(), lines.end());
        return log;
    }

    LoggedRun repair(const RepairFile &file, const std::vector<std::string> &args)
    {
        std::vector<std::string> all{"-f", device.directory().write("conf.json", file.text())};
        all.insert(all.end(), args.begin(), args.end());
        return run_logged(device, "repair_super", all);
    }

    // The file gives this super block; `lines` is what the log says of the expansion keys.
    void expect_accepted(const RepairFile &file, const SuperV2 &sb, Log lines,
                         std::vector<std::string> args = {})
    {
        const Log keys = key_log(super);
        lines.insert(lines.end(), keys.end() - MAP_KEYS, keys.end());
        const Block before = device.block(SUPER_OFFSET);
        args.emplace_back("-y");
        const Log log = log_with(lines);
        expect_run(repair(file, args), {.status = 0, .out = json(sb), .log = log});
        EXPECT_EQ(device.block(SUPER_OFFSET), encode(sb));
        device.write(SUPER_OFFSET, before);
    }

    // The expansion keys are refused with these lines, forced or not.
    void expect_refused(const RepairFile &file, Log lines)
    {
        const std::string tail = ", dev:" + device.path() + ", conf:" + conf();
        lines.push_back(
            error_line("parse_sb_from_json_v2", "repair super exp inode failed, cmd: 9"));
        lines.push_back(
            error_line("zutr_repair_common", "parse meta info failed:-22, cmd:9" + tail));
        const Block before = device.block(SUPER_OFFSET);
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{"-y"}, std::vector<std::string>{"-y", "-F"}})
            expect_run(repair(file, args), {.status = 22, .out = "", .log = log_with(lines)});
        EXPECT_EQ(device.block(SUPER_OFFSET), before);
    }

    // The area of `count` slots is not formatted, as these lines say.
    void expect_not_formatted(std::uint64_t count, const Log &check)
    {
        const auto stored = static_cast<std::uint32_t>(count);
        Log lines = count_and_magic(stored);
        lines.insert(lines.end(), check.begin(), check.end());
        lines.push_back(
            error_line(EXPANSION_PARSER, text("exp check inode format failed, exp_inode_size: %d "
                                              "cmd: 9",
                                              static_cast<std::int32_t>(stored))));
        expect_refused(file_with(count), lines);
    }

    SuperV2 with_area(std::uint32_t count, bool in_use) const
    {
        SuperV2 sb = super;
        set_expansion(sb, count, in_use);
        return sb;
    }

    // What is said of a slot that does not hold its inode, and the entry itself.
    Log faulty_slot(std::uint32_t slot, const InodeV2 &found) const
    {
        const Block block = encode(found);
        return {
            error_line("__check_exp_inode",
                       text("inode ondisk no: %u(off: %ld) inode_no: %u magic: 0x%x, checksum: "
                            "0x%x crc32: 0x%x",
                            found.no, expansion_offset(super, slot), super.inode_cnt + slot,
                            found.magic, get_u32(block, 0), record_crc(block, InodeV2::LENGTH))),
            raw_text(json(found, 0))};
    }

    LogLine unreadable_slot(std::uint32_t slot) const
    {
        return error_line("__check_exp_inode",
                          text("check exp inode first failed, exp_off: %lu, ino: %u ret: -1",
                               static_cast<std::uint64_t>(expansion_offset(super, slot)),
                               super.inode_cnt + slot));
    }
};

} // namespace tier_test
