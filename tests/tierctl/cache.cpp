#include "cache.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <unistd.h>

namespace tier_test {

namespace {

constexpr std::uint64_t DATA_LENGTH = 128 * BLOCK_SIZE;

CacheTable table_at(const std::string &name, std::uint64_t count, std::int64_t start)
{
    const auto offset = [start](std::uint64_t no) {
        return start + static_cast<std::int64_t>(no * BLOCK_SIZE);
    };
    return {name, count, offset, "dump_" + name};
}

// With data after the tables.
Cache cache_of(const std::string &layout, Device device, std::vector<CacheTable> tables,
               std::uint64_t data_offset)
{
    device.truncate(data_offset);
    device.write(data_offset, std::vector<std::uint8_t>(DATA_LENGTH, 0xDA));
    tables.insert(tables.begin(), table_at("super", 1, SUPER_OFFSET));
    return {layout, std::move(device), std::move(tables), data_offset};
}

template <class Super>
std::vector<CacheTable> tables_of(const Super &sb)
{
    return {table_at("brick", sb.brick_cnt, brick_offset(sb, 0)),
            table_at("inode", sb.inode_cnt, inode_offset(sb, 0)),
            table_at("extent", sb.block_cnt, extent_offset(sb, 0))};
}

Cache make_v1()
{
    const SuperV1 sb = super_v1(3, 5, 4);
    return cache_of("v1",
                    make_v1_device(sb, {brick_used(1)}, {inode_used(2, 1)},
                                   {extent_used(1, 2), extent_used(3, 2)}),
                    tables_of(sb), sb.data_offset);
}

Cache make_v2()
{
    const SuperV2 sb = super_v2(3, 5, 4);
    return cache_of("v2",
                    make_v2_device(sb, {brick_used(1)}, {inode_v2_used(2, 1)},
                                   {extent_v2_used(1, 2), extent_v2_used(3, 2)}),
                    tables_of(sb), sb.data_offset);
}

Cache make_v3()
{
    const SuperV3 sb = super_v3(3, 5);
    ShardBlockV3 shards;
    shards.shards = {{.slot = 1, .ino = 2, .index = 7}, {.slot = 511, .ino = 0x3FFFF}};
    ExtentBlockV3 extents;
    extents.extents = {{.slot = 0, .lba = 9, .shard = 1, .sense = 5},
                       {.slot = 100, .lba = 0x7FFFF, .dirty = 1, .bitmap = 0xBEEF}};
    return cache_of("v3",
                    make_v3_device(sb, {brick_v3_used(1)}, {inode_v3_used(2, 1)}, {{1, shards}},
                                   {{2, extents}}),
                    {table_at("brick", sb.brick_cnt, brick_offset(sb, 0)),
                     table_at("inode", sb.inode_cnt, inode_offset(sb, 0)),
                     table_at("shard", sb.shard_cnt / SLOTS_V3, shard_offset(sb, 0)),
                     table_at("hot", sb.hot_table_size / BLOCK_SIZE, hot_offset(sb, 0)),
                     table_at("extent", sb.extent_cnt / SLOTS_V3, extent_offset(sb, 0))},
                    sb.data_offset);
}

} // namespace

const CacheTable &Cache::table(const std::string &name) const
{
    const auto found = std::ranges::find(tables, name, &CacheTable::name);
    if (found == tables.end())
        throw std::out_of_range(name);
    return *found;
}

std::int64_t Cache::offset(const std::string &table_name, std::uint64_t no) const
{
    return table(table_name).offset(no);
}

Cache make_cache(const std::string &layout)
{
    return layout == "v1" ? make_v1() : layout == "v2" ? make_v2() : make_v3();
}

void flip(const Device &device, std::int64_t offset, std::uint8_t mask)
{
    const int fd = open(device.path().c_str(), O_RDWR | O_CLOEXEC);
    std::uint8_t byte = 0;
    const bool read = pread(fd, &byte, 1, offset) == 1;
    byte = static_cast<std::uint8_t>(byte ^ mask);
    EXPECT_TRUE(read && pwrite(fd, &byte, 1, offset) == 1);
    close(fd);
}

RunResult run_ctl(const std::vector<std::string> &args, const RunOptions &options)
{
    return run_program(ZU_TIERCTL, args, options);
}

RunResult run_ctl_in_little_memory(const std::vector<std::string> &args)
{
    // Programs of another build may be those under the sanitizers, which reserve more.
    const std::string limit =
        std::getenv("ZU_TIER_PROGRAMS") == nullptr ? "ulimit -v 400000; " : "";
    std::vector<std::string> all{"-c", limit + "exec \"$@\"", "sh", ZU_TIERCTL};
    all.insert(all.end(), args.begin(), args.end());
    return run_program("/bin/sh", all);
}

void expect_complaint(const RunResult &run, int status, const std::string &complaint)
{
    EXPECT_EQ(run.status, status) << run;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "zu_tierctl: " + complaint + "\n");
}

std::string dump_of(const std::string &image, const std::string &command,
                    const std::vector<std::string> &args)
{
    const TempDir logs;
    std::vector<std::string> all{"-p", image, "-c", command};
    all.insert(all.end(), args.begin(), args.end());
    const LoggedRun run = run_with_log(logs, all);
    EXPECT_EQ(run.status, 0) << run;
    return run.out;
}

std::vector<std::string> names_in(const TempDir &directory)
{
    std::vector<std::string> result;
    for (const auto &entry : std::filesystem::directory_iterator(directory.path("")))
        result.push_back(entry.path().filename());
    std::ranges::sort(result);
    return result;
}

} // namespace tier_test
