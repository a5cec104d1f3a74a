#pragma once

// Devices of which every entry is repaired from its own content.

#include "dump_text.h"
#include "expect.h"
#include "loop_device.h"
#include "table.h"

#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <tuple>

namespace tier_test {

enum class Medium { IMAGE, LOOP };

// The parameters are the size of an extent's record and what the device is.
template <class S>
class Rebuild : public testing::TestWithParam<std::tuple<std::uint32_t, Medium>> {
protected:
    using Super = S;

    Super super = Layout<Super>::super(3, 5, 6);
    std::optional<Device> device;
    std::unique_ptr<LoopDevice> loop;

    // Ends the test where the machine has no device of that kind.
    void start(Device image)
    {
        device.emplace(std::move(image));
        if (std::get<1>(GetParam()) == Medium::LOOP) {
            loop = LoopDevice::attach(device->path());
            if (!loop)
                GTEST_SKIP() << "no loop devices";
        }
    }

    LoggedRun run(const std::string &command, const std::vector<std::string> &args = {})
    {
        std::vector<std::string> all{"-p", loop ? loop->path() : device->path(), "-c", command};
        all.insert(all.end(), args.begin(), args.end());
        return run_with_log(device->directory(), all);
    }

    void expect_repair(const std::string &command, const std::string &document,
                       const std::string &out, const std::vector<std::string> &args = {})
    {
        std::vector<std::string> all{"-f", device->directory().write("conf.json", document), "-y"};
        all.insert(all.end(), args.begin(), args.end());
        const LoggedRun repair = run(command, all);
        EXPECT_EQ(repair.status, 0) << repair;
        EXPECT_EQ(repair.out, out);
    }

    template <class Entry>
    std::string item(const Entry &entry) const
    {
        const Table<Super, Entry> &entries = table<Super, Entry>();
        return entries.json(super, entry, entries.offset(super, entry.no));
    }

    template <class Entry>
    std::vector<std::string> items(const std::vector<Entry> &entries) const
    {
        std::vector<std::string> result;
        for (const Entry &entry : entries)
            result.push_back(item(entry));
        return result;
    }

    template <class Entry>
    void expect_table(const std::vector<Entry> &entries)
    {
        const Table<Super, Entry> &shown = table<Super, Entry>();
        EXPECT_EQ(run(shown.dump).out,
                  shown.before_walk + joined(items(entries)) + shown.after_walk);
    }

    // `shown` is what comes of the entries.
    template <class Entry>
    void repair_table(const std::vector<Entry> &entries, const std::vector<Entry> &shown)
    {
        const Table<Super, Entry> &repaired = table<Super, Entry>();
        for (std::size_t i = 0; i < entries.size(); ++i)
            expect_repair(repaired.repair, repaired.file_of(super, entries[i]).text(),
                          item(shown[i]));
    }

    // Fills the super block and most slots of the tables with noise.
    void destroy()
    {
        const std::vector<std::uint8_t> noise(3 * BLOCK_SIZE, 0xEE);
        device->write(SUPER_OFFSET, ConstByteSpan(noise).first(BLOCK_SIZE));
        for (const std::int64_t slots :
             {brick_offset(super, 0), inode_offset(super, 0), inode_offset(super, 2),
              extent_offset(super, 0), extent_offset(super, 3)})
            device->write(static_cast<std::uint64_t>(slots), noise);
    }
};

inline std::string
rebuild_name(const testing::TestParamInfo<std::tuple<std::uint32_t, Medium>> &info)
{
    const auto [extent_size, medium] = info.param;
    return std::to_string(extent_size) + (medium == Medium::LOOP ? "OnALoopDevice" : "OnAnImage");
}

inline auto rebuilds_of(const std::vector<std::uint32_t> &extent_sizes)
{
    return testing::Combine(testing::ValuesIn(extent_sizes),
                            testing::Values(Medium::IMAGE, Medium::LOOP));
}

} // namespace tier_test
