#include "restore_model.h"

#include "layouts.h"
#include "world.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace tier_fuzz {

namespace {

constexpr std::uint64_t MIB = 1U << 20;
constexpr std::uint32_t INODE_MAGIC = 0x494E4F44;
constexpr std::size_t INODE_SIZE = 96;

// The part of the super block that the restore reads.
struct Geometry {
    explicit Geometry(const RestoreCall &call)
        : inode_table(table(call, Table::inode)), extent_table(table(call, Table::extent)),
          expansion(static_cast<std::uint64_t>(entry_offset({2, Table::exp_inode}, call.super, 0))),
          extents(get<std::uint64_t>(call.super, 24)),
          inode_cnt(get<std::uint32_t>(call.super, 124)),
          block_cnt(get<std::uint32_t>(call.super, 132)),
          extent_size(get<std::uint32_t>(call.super, 136)),
          exp_magic(get<std::uint16_t>(call.super, 140)),
          exp_area(get<std::uint8_t>(call.super, 142)),
          exp_inuse(get<std::uint8_t>(call.super, 143))
    {
    }

    static std::uint64_t table(const RestoreCall &call, Table table)
    {
        return static_cast<std::uint64_t>(entry_offset({call.layout, table}, call.super, 0));
    }

    // V2 counts the expansion inodes in 32 bits.
    std::uint32_t inode_sum() const { return inode_cnt + exp_area * 25600U; }

    // Where the areas begin, and the bytes of the extent table.
    std::uint64_t inode_table;
    std::uint64_t extent_table;
    std::uint64_t expansion;
    std::uint64_t extents;
    std::uint32_t inode_cnt;
    std::uint32_t block_cnt;
    std::uint32_t extent_size;
    std::uint16_t exp_magic;
    std::uint8_t exp_area;
    std::uint8_t exp_inuse;
};

// V1 restores the inodes of its table, V2 those that it does not have.
bool is_restored(const RestoreCall &call, const Geometry &at)
{
    const auto no = static_cast<std::uint32_t>(call.no);
    if (call.layout == 1) {
        return call.no >= 0 && no < at.inode_cnt;
    }
    const std::uint32_t bound = at.exp_magic == 0x4558 ? at.inode_sum() : at.inode_cnt;
    return call.no < 0 || call.no > 499999 || no >= bound ||
           (no >= at.inode_cnt && at.exp_inuse != 0x53);
}

bool extent_fits(const RestoreCall &call, const Geometry &at)
{
    const std::uint32_t least = call.layout == 1 ? 56 : 4;
    return at.extent_size >= least && at.extent_size <= BLOCK;
}

bool is_healthy(View inode)
{
    return get<std::uint32_t>(inode, 4) == INODE_MAGIC &&
           get<std::uint32_t>(inode, 0) == crc32(inode.subspan(4, INODE_SIZE - 4));
}

[[gnu::format(printf, 2, 3)]] void say(std::string &printed, const char *format, ...)
{
    char line[160];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    printed += line;
}

// Memory for direct access, for the inode and after it the extents.
alignas(BLOCK) std::uint8_t memory[BLOCK + MOST_MEMORY];

bool read_all(Device &device, std::span<std::uint8_t> to, std::uint64_t offset)
{
    while (!to.empty()) {
        const ssize_t got = device.read(to.data(), to.size(), static_cast<std::int64_t>(offset));
        if (got > 0) {
            to = to.subspan(static_cast<std::size_t>(got));
            offset += static_cast<std::size_t>(got);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

// A MiB that cannot be read keeps the bytes that arrived. Its first block is tried again, as often
// as it has blocks, and cleared when it cannot be read either.
void read_tolerantly(Device &device, std::span<std::uint8_t> to, std::uint64_t offset)
{
    for (; !to.empty(); offset += MIB) {
        const std::size_t unit = std::min<std::size_t>(to.size(), MIB);
        const std::span first = to.first(BLOCK);
        if (!read_all(device, to.first(unit), offset)) {
            for (std::size_t i = 0; i < unit / BLOCK; i++) {
                if (!read_all(device, first, offset)) {
                    std::ranges::fill(first, 0);
                }
            }
        }
        to = to.subspan(unit);
    }
}

// The extents that keep an inode from being restored.
struct Claims {
    int bad = 0;
    int owned = 0;
    std::uint32_t identity = 0; // of the last one
};

void look_at(View extent, std::uint32_t i, const RestoreCall &call, Claims &claims,
             std::string &printed)
{
    const Geometry at(call);
    const auto offset = static_cast<long>(at.extent_table + std::uint32_t{i * 4096});
    const auto checksum = get<std::uint32_t>(extent, 0);
    const std::uint32_t crc = crc32(extent.subspan(4, at.extent_size - 4));
    const auto identity = get<std::uint32_t>(extent, 20);
    if (std::ranges::all_of(extent, [](std::uint8_t byte) { return byte == 0; })) {
        claims.bad++;
        say(printed, "inode no:%d zero filled extent:%u offset:%ld\n", call.no, i, offset);
    } else if (checksum != crc) {
        claims.bad++;
        say(printed, "inode no:%d bad crc32 extent:%u chksum:0x%x != 0x%x\n", call.no, i, checksum,
            crc);
    } else if (get<std::uint16_t>(extent, 32) != 0 &&
               get<std::uint32_t>(extent, 16) == static_cast<std::uint32_t>(call.no)) {
        if (claims.owned == 0 || identity != claims.identity) {
            say(printed, "inode no:%d uuid:%x extent no:%u offset:%ld\n", call.no,
                __builtin_bswap32(identity), i, offset);
        }
        claims.identity = identity;
        claims.owned++;
    }
}

std::int64_t rewrite(const RestoreCall &call, Device &device, std::span<std::uint8_t> inode,
                     std::string &printed)
{
    put(inode, 4, INODE_MAGIC);
    put(inode, 68, call.no);
    put(inode, 0, crc32(inode.subspan(4, INODE_SIZE - 4)));
    if (device.write(inode.data(), BLOCK, restored_offset(call)) < 0) {
        return -EIO;
    }
    say(printed, "mark inode no:%d unused success\n", call.no);
    return 0;
}

std::int64_t restore_sound(const RestoreCall &call, Device &device, std::string &printed)
{
    const Geometry at(call);
    if (!is_restored(call, at)) {
        return -EINVAL;
    }
    if (!extent_fits(call, at)) {
        return -EFAULT;
    }
    const std::span<std::uint8_t> inode(memory, BLOCK);
    std::ranges::fill(inode, 0);
    if (read_all(device, inode, static_cast<std::uint64_t>(restored_offset(call))) &&
        is_healthy(inode)) {
        return 0;
    }
    const std::uint64_t bytes = std::uint64_t{at.block_cnt} * BLOCK;
    if (at.extents < bytes) {
        return -EFAULT;
    }
    if (at.extents > MOST_MEMORY) {
        return ENOMEM;
    }
    if (bytes == 0) {
        return -EIO;
    }
    const std::span<std::uint8_t> extents(memory + BLOCK, bytes);
    std::ranges::fill(extents, 0);
    read_tolerantly(device, extents, at.extent_table);
    Claims claims;
    for (std::uint32_t i = 0; i < at.block_cnt; i++) {
        look_at(extents.subspan(i * BLOCK, BLOCK), i, call, claims, printed);
    }
    if (claims.bad != 0 && !call.force) {
        say(printed, "inode no:%d can't make sure used\n", call.no);
        return -EIO;
    }
    if (claims.owned != 0) {
        say(printed, "inode no:%d extent count: %d can't make sure uuid\n", call.no, claims.owned);
        return 0;
    }
    return rewrite(call, device, inode, printed);
}

} // namespace

std::int64_t restored_offset(const RestoreCall &call)
{
    const Geometry at(call);
    const auto no = static_cast<std::uint32_t>(call.no);
    if (call.layout == 1 || no < at.inode_cnt) {
        const auto distance = static_cast<std::int32_t>(no * 4096);
        return static_cast<std::int64_t>(at.inode_table +
                                         static_cast<std::uint64_t>(std::int64_t{distance}));
    }
    return static_cast<std::int64_t>(at.expansion + std::uint64_t{no - at.inode_cnt} * BLOCK);
}

Outcome restore(const RestoreCall &call, Device &device, std::string &printed)
{
    if (!call.complete) {
        return {.ending = Ending::assertion,
                .assertion = "params && params->sb && params->fd >= 0"};
    }
    if (!is_sound({call.layout, Table::super}, {}, 0, call.super)) {
        return {.ending = Ending::assertion,
                .assertion = call.layout == 1 ? "!__check_super_v1(params->sb)"
                                              : "!__check_super_v2(params->sb)"};
    }
    try {
        return {.ending = Ending::returned, .value = restore_sound(call, device, printed)};
    } catch (const CutShort &) {
        return {.ending = Ending::cut_short};
    }
}

} // namespace tier_fuzz
