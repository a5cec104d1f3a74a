#pragma once

// Devices of layout V1 with one damaged inode, the handler that restores it, and its lines.

#include "in_process.h"
#include "v1_device.h"

#include <optional>

namespace tier_test {

constexpr std::uint32_t NO = 5; // the inode that most tests restore
constexpr std::uint32_t MAGIC = 0x494E4F44;

// A slot whose bytes all differ from what a restore writes there.
inline Block damaged_slot()
{
    Block block;
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<std::uint8_t>(0x80 | (i * 13));
    return block;
}

// The slot as a restore leaves it: identity and checksum are new.
inline Block restored(Block slot, std::uint32_t no = NO)
{
    put_u32(slot, 4, MAGIC);
    put_u32(slot, 68, no);
    seal(slot, InodeV1::LENGTH);
    return slot;
}

class RestoreV1 : public testing::Test {
protected:
    SuperV1 super = super_v1(2, 8, 0);
    std::optional<Device> device;
    std::int32_t meta_no = NO;
    bool force = false;
    int flags = O_RDWR | O_DIRECT;

    // A device whose inode NO is `slot` and whose extent table holds `extents`.
    void make_device(const Block &slot, const std::vector<Block> &extents)
    {
        super.block_cnt = static_cast<std::uint32_t>(extents.size());
        set_geometry(super);
        device.emplace(make_v1_device(super));
        device->write(inode_at(NO), slot);
        for (std::size_t i = 0; i < extents.size(); ++i)
            device->write(static_cast<std::uint64_t>(extent_offset(super, i)), extents[i]);
    }

    Call restore(std::int32_t commit = 0) const
    {
        alignas(4096) Block sb = encode(super);
        const OpenDevice open(*device, flags);
        zutr_params_t params = params_on(*device, open);
        params.sb = sb.data();
        params.meta_no = meta_no;
        params.force = force ? 1 : 0;
        params.commit = commit;
        return captured([&] { return handler(sb.data())(&params); });
    }

    static zutr_cmd_func_t handler(const void *sb)
    {
        zutr_cmd_func_t found = nullptr;
        EXPECT_EQ(zutr_get_selector(ZUTR_VER_CODE_V1)(ZUTR_CMD_RESTORE_INODE, sb, &found), 0);
        return found;
    }

    std::uint64_t inode_at(std::uint64_t no) const
    {
        return static_cast<std::uint64_t>(inode_offset(super, no));
    }

    // Restores and compares everything, the device included: `slot` changes only when `written`.
    void expect_restore(const Call &expected, const Block &slot, bool written)
    {
        std::vector<std::uint8_t> bytes = device->bytes();
        if (written)
            put_bytes(bytes, inode_at(NO), restored(slot));
        EXPECT_EQ(restore(), expected);
        EXPECT_EQ(device->bytes(), bytes);
    }

    Call refused(std::int64_t result, const std::string &message) const
    {
        return {.result = result, .log = {error_line("zutr_restore_inode_v1", message)}};
    }

    // The extents of the tests, for slot `no` of the table.
    Block free_extent(std::uint64_t no) const
    {
        return encode(ExtentV1{.no = no}, super.extent_size);
    }
    Block owned(std::uint64_t no, std::uint32_t identity, std::uint32_t inode = NO) const
    {
        ExtentV1 extent = extent_used(no, inode);
        extent.sampling_low = identity;
        return encode(extent, super.extent_size);
    }
    Block bad_extent(std::uint64_t no) const
    {
        Block block = owned(no, 1);
        block[0] ^= 0x40;
        return block;
    }

    // The decision lines.
    std::string zero_line(std::uint64_t no) const
    {
        return text("inode no:%u zero filled extent:%lu offset:%ld\n", NO, no,
                    extent_offset(super, no));
    }
    std::string bad_line(std::uint64_t no, const Block &block) const
    {
        return text("inode no:%u bad crc32 extent:%lu chksum:0x%x != 0x%x\n", NO, no,
                    get_u32(block, 0), record_crc(block, super.extent_size));
    }
    std::string owned_line(std::uint64_t no, std::uint32_t identity) const
    {
        return text("inode no:%u uuid:%x extent no:%lu offset:%ld\n", NO, identity, no,
                    extent_offset(super, no));
    }
    static std::string unsure_line() { return text("inode no:%u can't make sure used\n", NO); }
    static std::string count_line(int count)
    {
        return text("inode no:%u extent count: %d can't make sure uuid\n", NO, count);
    }
    static std::string success_line() { return text("mark inode no:%u unused success\n", NO); }
};

} // namespace tier_test
