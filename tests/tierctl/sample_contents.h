#pragma once

// What the tables of a sample image hold in every layout: bricks, files of the bricks in use,
// blocks of the files in use.

#include "layout.h"
#include "sample_image.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace tier_test {

// 2025-01-01 and 2026-01-01, 00:00:00 UTC.
constexpr std::uint64_t YEAR_START = 1735689600;
constexpr std::uint64_t YEAR_END = 1767225600;
constexpr std::uint64_t NANOSECONDS = 1'000'000'000;

// The identity of a volume, as a regular expression.
inline const char VOLUME_ID[] = "[0-9A-Za-z]{6}(-[0-9A-Za-z]{4}){5}-[0-9A-Za-z]{6}";

// The entries of a table, each a whole slot that is as its fields say, checksum and zeros included.
template <class Decode, class Encode>
auto read_entries(const Device &device, const SampleTable &table, std::uint64_t count,
                  const Decode &decode, const Encode &encode)
{
    std::vector<decltype(decode(Block{}))> entries;
    for (std::uint64_t no = 0; no < count; ++no) {
        const Block block = device.block(static_cast<std::uint64_t>(table.offset(no)));
        entries.push_back(decode(block));
        EXPECT_EQ(entries.back().no, no);
        EXPECT_EQ(encode(entries.back()), block) << no;
    }
    return entries;
}

// A sample image of that geometry, and its entries.
template <class Geometry, class Super>
class SampleOf : public testing::TestWithParam<Geometry> {
protected:
    const Device device =
        make_sample(this->GetParam().args, std::string("v") + Layout<Super>::VERSION);
    const Super sb = Layout<Super>::decoded(device.block(SUPER_OFFSET));
    const std::vector<SampleTable> tables = sample_tables(sb);

    template <class Entry>
    std::vector<Entry> entries(std::size_t table, std::uint64_t count,
                               Entry (*decode)(const Block &)) const
    {
        return read_entries(device, tables[table], count, decode,
                            [](const Entry &entry) { return encode(entry); });
    }

    std::vector<BrickV1> bricks() const
    {
        return entries(0, this->GetParam().bricks, decode_brick);
    }
};

// Something is in use, and something is free where there is room for both.
template <class Entry>
void expect_both_kinds(const std::vector<Entry> &entries)
{
    const auto used = std::ranges::count(entries, 1, [](const Entry &e) { return int(e.use); });
    EXPECT_GT(used, 0);
    if (entries.size() > 1) {
        EXPECT_LT(used, std::ssize(entries));
    }
}

// The super block that zu_tier shows is `line`, and it passes the checks of a repaired one.
void expect_accepted(const Device &device, const std::string &line);

// zu_tier finds no fault in the table; `dump` is how it shows nothing.
void expect_no_fault(const Device &device, const SampleTable &table, const std::string &dump);

void expect_bricks(const std::vector<BrickV1> &bricks, std::uint32_t magic = BrickV1{}.magic);

// One inode in use of a cache that was made at `ctime`, but for its magic.
void expect_inode_in_use(const InodeV1 &inode, const std::vector<BrickV1> &bricks,
                         std::uint64_t ctime);

// `encode_free` gives the slot of a free inode of that number.
template <class Inode, class EncodeFree>
void expect_inodes(const std::vector<Inode> &inodes, const std::vector<BrickV1> &bricks,
                   std::uint64_t ctime, const EncodeFree &encode_free)
{
    expect_both_kinds(inodes);
    std::set<std::uint64_t> sizes;
    std::set<Uuid> identities;
    std::size_t used = 0;
    for (const Inode &inode : inodes) {
        SCOPED_TRACE(inode.no);
        if (inode.use == 0) {
            EXPECT_EQ(encode(inode), encode_free(inode.no));
            continue;
        }
        used++;
        EXPECT_EQ(inode.magic, get_u32(encode_free(inode.no), 4));
        expect_inode_in_use(inode, bricks, ctime);
        sizes.insert(inode.size);
        identities.insert(inode.uuid);
    }
    EXPECT_EQ(identities.size(), used);
    EXPECT_GE(sizes.size(), std::min<std::size_t>(used, 2));
}

// The heads of extents in use, of a cache with blocks of that size.
void expect_extent_in_use(const ExtentV1 &extent, const InodeV1 &owner, std::uint32_t block_size);

template <class Extent, class Inode>
void expect_extents(const std::vector<Extent> &extents, const std::vector<Inode> &inodes,
                    std::uint32_t block_size)
{
    expect_both_kinds(extents);
    std::map<std::uint32_t, std::uint32_t> next_block;
    for (const Extent &extent : extents) {
        if (extent.use == 0)
            continue;
        SCOPED_TRACE(extent.no);
        ASSERT_LT(extent.inode_no, inodes.size());
        EXPECT_EQ(extent.block, next_block[extent.inode_no]++);
        expect_extent_in_use(extent, inodes[extent.inode_no], block_size);
    }
}

// Whether the bitmap has the bit of that page.
bool has_page(const ExtentV1 &extent, std::uint64_t page);

} // namespace tier_test
