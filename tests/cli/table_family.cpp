#include "table_family.h"

namespace tier_test {

namespace {

Uuid parse_uuid(const std::string &text)
{
    Uuid uuid{};
    std::size_t at = 0;
    for (std::uint8_t &byte : uuid) {
        at += text.at(at) == '-' ? 1 : 0;
        byte = static_cast<std::uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16));
        at += 2;
    }
    return uuid;
}

} // namespace

bool skips_use(const Settings &filter, std::uint32_t use)
{
    return filter.use >= 0 && static_cast<std::uint32_t>(filter.use) != use;
}

bool skips_id(const Settings &filter, const std::string &id)
{
    return !filter.id.empty() && filter.id != id;
}

bool skips_owner(const Settings &filter, std::uint32_t use, std::uint32_t owner)
{
    return filter.owner >= 0 && (use == 0 || static_cast<std::uint32_t>(filter.owner) != owner);
}

Uuid shown_uuid(const std::string &line)
{
    static const std::string KEY = "\"bi_uuid\":\"";
    const std::size_t at = line.find(KEY);
    return at != std::string::npos ? parse_uuid(line.substr(at + KEY.size(), 36)) : Uuid{};
}

std::string inode_fault(std::uint32_t, const InodeV1 &inode, std::uint32_t stored,
                        std::uint32_t crc)
{
    return text("inode no: %u magic: 0x%x, checksum: 0x%x crc32: 0x%x", inode.no, inode.magic,
                stored, crc);
}

std::function<LogLine(std::uint32_t no, std::uint32_t count)> refusal_of_driver(std::string key)
{
    return [key = std::move(key)](std::uint32_t no, std::uint32_t count) {
        return error_line("zutr_dump_common",
                          text("invalid %s %u, max cnt:%u", key.c_str(), no, count));
    };
}

} // namespace tier_test
