#include "zu_tierctl/sample/content.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/entry/diagnosis.h"
#include "zu_tierctl/entry/metadata.h"
#include "zu_tierctl/rescue/survey.h"

#include <algorithm>
#include <blkid/blkid.h>
#include <cerrno>
#include <fmt/core.h>
#include <memory>
#include <new>

namespace tierctl {

namespace {

struct FreeProbe {
    void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};

constexpr int FOUND = 0; /* results of blkid_do_safeprobe */
constexpr int FOUND_NOTHING = 1;
constexpr int FOUND_SEVERAL = -2;

/* "ext4, uuid 0b63…"; never empty. */
std::string found_text(blkid_probe probe)
{
    constexpr std::pair<const char *, const char *> VALUES[] = {
        {"TYPE", ""}, {"PTTYPE", "a partition table, "}, {"UUID", "uuid "}, {"PTUUID", "uuid "}};
    std::string text;
    for (const auto &[name, before] : VALUES) {
        const char *value = nullptr;
        if (blkid_probe_lookup_value(probe, name, &value, nullptr) == 0) {
            text += fmt::format("{}{}{}", text.empty() ? "" : ", ", before, value);
        }
    }
    return text.empty() ? "something that blkid recognises" : text;
}

std::string recognised_content(int fd, const std::string &path)
{
    const std::unique_ptr<blkid_struct_probe, FreeProbe> probe(blkid_new_probe());
    if (probe == nullptr) {
        throw std::bad_alloc();
    }
    errno = EIO; /* the reason when the library gives none */
    if (blkid_probe_set_device(probe.get(), fd, 0, 0) != 0) {
        throw_errno("cannot look for file systems on " + path);
    }
    blkid_probe_enable_partitions(probe.get(), 1);
    switch (blkid_do_safeprobe(probe.get())) {
    case FOUND:
        return found_text(probe.get());
    case FOUND_NOTHING:
        return "";
    case FOUND_SEVERAL:
        return "signatures of several kinds at once";
    default:
        return "what cannot be read";
    }
}

/* Whether there are entries of a table where each layout has some. */
bool has_entries(const std::string &path)
{
    const Device device(path, Access::read_only);
    const BlockReader blocks(device);
    return std::ranges::any_of(tier_layouts(), [&blocks](const tier_layout *layout) {
        return count_head(blocks, *layout) != 0;
    });
}

} // namespace

std::string valuable_content(int fd, const std::string &path)
{
    Block block;
    if (zutr_readn(fd, block.data(), SIZE_4K, TIER_SUPER_OFFSET) < 0) {
        return "what cannot be read";
    }
    for (const tier_layout *layout : tier_layouts()) {
        if (looks_like(*layout, block)) {
            return fmt::format("a cache of layout {}", layout->name);
        }
    }
    if (!super_flaws(block).empty()) {
        return "a cache whose super block is damaged";
    }
    return has_entries(path) ? "tables of a cache whose super block is lost"
                             : recognised_content(fd, path);
}

} // namespace tierctl
