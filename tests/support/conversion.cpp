#include "conversion.h"

#include <algorithm>
#include <iterator>

namespace tier_test {

SuperV2 cache(std::uint32_t block_size, std::uint32_t min_alloc_size, std::uint32_t blocks)
{
    SuperV2 sb = super_v2(1, 1, blocks);
    sb.block_size = block_size;
    sb.min_alloc_size = min_alloc_size;
    set_maps(sb, static_cast<std::uint32_t>(round_up(block_size, min_alloc_size) / min_alloc_size));
    return sb;
}

RepairFile old_file(const SuperV2 &sb)
{
    SuperV2 old = sb;
    old.version = 0x10000;
    RepairFile file = repair_file(old);
    for (const char *key :
         {"min_alloc_size", "total_map_size", "map_cnt", "size_mapped_meta", "hot_size"})
        file.erase(key);
    return file;
}

std::uint32_t candidate_size(const SuperV2 &sb, std::uint32_t map_cnt)
{
    return map_cnt * 16 + sb.extent_size + 64;
}

LogLine mismatch(const Block &slot, const SuperV2 &sb, std::uint32_t map_cnt)
{
    return debug_line("verify_map_cnt",
                      text("extent %lu check failed. crc:%u, cksum:%u, map_cnt:%u",
                           get_u64(slot, 48), record_crc(slot, candidate_size(sb, map_cnt)),
                           get_u32(slot, 0), map_cnt));
}

LogLine probe_read(std::int64_t offset)
{
    return debug_line("verify_map_cnt", text("read extent success. offset:%ld", offset));
}

LogLine map_cnt_found(std::uint32_t map_cnt)
{
    return debug_line("calc_super_block_v2", text("find map_cnt:%u", map_cnt));
}

LogLine not_found(int ret, std::uint32_t map_cnt)
{
    return error_line("calc_super_block_v2",
                      text("cannot find valid map_cnt. ret:%d, map_cnt:%u", -ret, map_cnt));
}

void SuperConversion::set_cache(const SuperV2 &sb)
{
    super = sb;
    const Device fresh = make_v2_device(sb);
    device.truncate(fresh.size());
    device.write(0, fresh.bytes());
}

Block SuperConversion::slot(std::uint64_t no) const
{
    return device.block(static_cast<std::uint64_t>(extent_offset(super, no)));
}

std::vector<std::string> SuperConversion::arguments(const std::string &document,
                                                    const std::vector<std::string> &args) const
{
    std::vector<std::string> all{"-v", "2", "-f", device.directory().write("conf.json", document)};
    std::ranges::copy(args, std::back_inserter(all));
    return all;
}

LoggedRun SuperConversion::convert(const std::string &document,
                                   const std::vector<std::string> &args) const
{
    return run_logged(device, "convert_super", arguments(document, args));
}

Log SuperConversion::log_with(const SuperV2 &described, const Log &lines) const
{
    Log log{settings_line(device, "convert_super", {.spec_ver = 2, .repair_conf = conf()})};
    // A repair would refuse the version at last.
    const Log keys = parsed(model(2, "super"), {}, old_file(described).text()).log;
    std::copy(keys.begin(), keys.end() - 1, std::back_inserter(log));
    std::ranges::copy(lines, std::back_inserter(log));
    return log;
}

LogLine SuperConversion::rejected(int error) const
{
    return error_line("zutr_convert_super_v2",
                      text("parse meta info failed:%d, cmd:15, dev:%s, conf:%s", -error,
                           device.path().c_str(), conf().c_str()));
}

Log SuperConversion::mismatches(std::uint32_t first, std::uint32_t end) const
{
    Log log;
    const Block extent = slot(0);
    for (std::uint32_t map_cnt = first; map_cnt < end; ++map_cnt)
        log.push_back(mismatch(extent, super, map_cnt));
    return log;
}

Log SuperConversion::failed(Log lines, int ret) const
{
    lines.push_back(not_found(ret, 65));
    lines.push_back(error_line("parse_sb_from_json_v2", "convert super block failed:-22"));
    lines.push_back(rejected());
    return lines;
}

void SuperConversion::expect_conversion(const std::string &document, const Expected &expected,
                                        const std::vector<std::string> &args)
{
    const std::vector<std::uint8_t> before = device.bytes();
    expect_run(convert(document, args), expected);
    std::vector<std::string> commit = args;
    commit.emplace_back("-y");
    expect_run(convert(document, commit), expected);
    EXPECT_EQ(device.bytes(), before);
}

} // namespace tier_test
