#include "sample_image.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace tier_test {

namespace {

SampleTable sample_table(const TableModel &table, const Block &super)
{
    const std::size_t length = table.length(super);
    SampleTable sample{
        .name = table.name,
        .record_length = length,
        .magic_at = table.magic != 0 ? 4 : -1,
        .number_at = -1,
        .offset = [&table, super](std::uint64_t no) { return slot_offset(table, super, no); },
        .command = table.dump,
        .key = table.number_key,
        .stored = {},
        .computed = {}};
    if (!table.number.empty())
        sample.number_at = static_cast<std::int64_t>(table.field(table.number).byte);
    if (table.checksum != Checksum::NONE) {
        sample.stored = [&table](const Block &slot) { return stored_checksum(table, slot); };
        sample.computed = [&table, length](const Block &slot) {
            return computed_checksum(table, slot, length);
        };
    }
    return sample;
}

// But for the super block.
std::vector<SampleTable> sample_tables(int version, const Block &super)
{
    std::vector<SampleTable> tables;
    for (const TableModel *table : models())
        if (table->version == version && table->name != "super")
            tables.push_back(sample_table(*table, super));
    return tables;
}

} // namespace

RunResult run_sample(const std::string &path, const std::vector<std::string> &args,
                     const std::string &layout)
{
    std::vector<std::string> all{"sample", "--layout", layout};
    all.insert(all.end(), args.begin(), args.end());
    all.push_back(path);
    return run_program(ZU_TIERCTL, all);
}

Device make_sample(const std::vector<std::string> &args, const std::string &layout)
{
    Device device(0);
    std::filesystem::remove(device.path());
    const RunResult run = run_sample(device.path(), args, layout);
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out + run.err, "");
    return device;
}

void expect_refused(const std::vector<std::string> &args, const std::string &complaint,
                    const std::string &layout)
{
    SCOPED_TRACE(complaint);
    const TempDir directory;
    const std::string path = directory.path("image");
    const RunResult run = run_sample(path, args, layout);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "zu_tierctl: " + complaint + "\n");
    EXPECT_FALSE(std::filesystem::exists(path));
}

void expect_sizes_refused(const std::vector<SizeBounds> &sizes, const std::string &layout)
{
    for (const SizeBounds &size : sizes)
        for (const std::string &value : size.values)
            expect_refused({size.option, value},
                           size.option + " " + value + ": expected " + size.expected, layout);
}

std::vector<SampleTable> sample_tables(const SuperV1 &sb) { return sample_tables(1, encode(sb)); }

std::vector<SampleTable> sample_tables(const SuperV2 &sb) { return sample_tables(2, encode(sb)); }

std::vector<SampleTable> sample_tables(const SuperV3 &sb) { return sample_tables(3, encode(sb)); }

SampleTable sample_super(std::size_t length)
{
    const int version = length == SuperV1::LENGTH ? 1 : length == SuperV2::LENGTH ? 2 : 3;
    return sample_table(model(version, "super"), {});
}

} // namespace tier_test
