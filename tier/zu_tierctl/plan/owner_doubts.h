#pragma once

#include "zu_tierctl/device/device.h"
#include "zu_tierctl/entry/metadata.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tierctl {

/* Doubts about a sound block for a slot, because of the entries that its own ones refer to. Device,
 * saved file and metadata must outlive it. */
class OwnerDoubts {
public:
    /* `saved` may be null: then only missing() can be asked. */
    OwnerDoubts(const Device &device, const Metadata &metadata, const Device *saved)
        : device_(device), metadata_(metadata), saved_(saved)
    {
    }

    /* The first entry in use of a block whose owner is sound and no entry in use, as a sentence;
     * empty: there is none. */
    std::string missing(const Table &table, const Block &block);

    /* The first owner of a saved block's entries in whose place there is another one by now, as a
     * sentence; empty: there is none. */
    std::string replaced(const Table &table, const Block &then);

private:
    /* Entries that others refer to, by number. Keeps some of the slots that it has read. */
    class Slots {
    public:
        Slots(const Device &device, const Table &table) : device_(device), table_(table) {}

        /* Whether an entry is in use, or may be: a check judges what is not known here. */
        bool may_own(uint64_t no);

        /* Null: it is damaged, cannot be read or does not exist. Valid until the next call. */
        const uint8_t *entry(uint64_t no);

    private:
        static constexpr size_t SLOTS_MAX = 1024;

        const Device &device_;
        const Table &table_;
        std::map<uint64_t, std::optional<Block>> slots_; /* empty: damaged, or not readable */
    };

    /* What `text` says of the first owner of which it says anything. */
    template <class Text>
    std::string find(const Table &table, const Block &block, const Text &text) const;

    /* Whether an entry may be the same on the device and in the saved file: by its identity or, if
     * it has none, by its number within what it refers to, and that. What is damaged may be
     * anything. */
    bool may_be_same(const Table &table, uint64_t no);

    Slots &slots(const Device &device, const Table &table);

    const Device &device_;
    const Metadata &metadata_;
    const Device *saved_;
    std::map<std::pair<const Device *, std::string_view>, Slots> slots_; /* by table */
};

} // namespace tierctl
