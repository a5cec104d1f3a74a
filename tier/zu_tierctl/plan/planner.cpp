#include "zu_tierctl/plan/planner.h"

#include "common/zutr_crc32.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/entry/rebuild.h"
#include "zu_tierctl/entry/selection.h"
#include "zu_tierctl/plan/owner_doubts.h"
#include "zu_tierctl/plan/restore.h"
#include "zu_tierctl/template/template.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>
#include <utility>

namespace tierctl {

namespace {

/* What an action makes of a slot. */
struct Made {
    Action action = Action::leave;
    Certainty certainty = Certainty::none;
    Block block{};
    std::string reason{}; /* or why there is no block */
    std::string lost{};

    bool is_made() const { return action != Action::leave; }
};

/* A slot with errors, as it is. */
struct Slot {
    const Table &table;
    uint64_t no;
    bool readable;
    Block block; /* all zero when it cannot be read */
};

/* Plans the steps of a device, one slot after another. */
class Planner {
public:
    Planner(const Device &device, const Metadata &metadata, const Device *saved, bool free_lost,
            const std::vector<Cause> &causes)
        : device_(device), metadata_(metadata), saved_(saved), free_lost_(free_lost),
          causes_(causes), restorer_(device, metadata), doubts_(device, metadata, saved)
    {
    }

    Step plan(const Table &table, uint64_t no, const Trouble &trouble)
    {
        Step step{.table = std::string(table.name), .no = no, .offset = table.slot(no)};
        step.reason = trouble_text(trouble);
        if (table.name == SUPER_TABLE || !table.identifies() || trouble.slots > 1 ||
            !is_on_device(step.offset)) {
            return step;
        }
        const Slot slot = read(table, no);
        const bool sound = slot.readable && table.flaws(no, slot.block.data()) == 0;
        const Made made = sound ? free(slot, trouble) : mend_or_replace(slot);
        if (slot.readable && is_zero(slot.block.data())) {
            step.reason = "it is all zero";
        }
        step.reason = joined({step.reason, made.reason});
        if (made.is_made()) {
            step.crc = zutr_crc32(slot.block.data(), SIZE_4K);
            step.unreadable = !slot.readable;
            step.action = made.action;
            step.certainty = made.certainty;
            step.lost = made.lost;
            put_block(slot, made.block, step);
        }
        return step;
    }

private:
    static std::string trouble_text(const Trouble &trouble)
    {
        std::string text = trouble.text;
        if (trouble.left_out != 0) {
            text += fmt::format("; and {} more", trouble.left_out);
        }
        if (trouble.slots > 1) {
            text += fmt::format("; so it is with {} slots from this one on", trouble.slots);
        }
        return text;
    }

    bool is_on_device(int64_t offset) const
    {
        return slots_on_device({offset, 1}, device_.size()) == 1;
    }

    /* The texts that are not empty. */
    static std::string joined(const std::vector<std::string> &texts)
    {
        std::string text;
        for (const std::string &part : texts) {
            text += text_if(!text.empty() && !part.empty(), "; ") + part;
        }
        return text;
    }

    Slot read(const Table &table, uint64_t no) const
    {
        alignas(SIZE_4K) Block block;
        const bool readable = device_.read(table.slot(no), block.data(), SIZE_4K);
        if (!readable) {
            block.fill(0);
        }
        return {table, no, readable, block};
    }

    Entry entry(const Slot &slot, const Block &block) const
    {
        return {metadata_, slot.table, slot.no, block.data()};
    }

    /* What is certain comes first. A mended entry is what lies there, a saved one may be older. */
    Made mend_or_replace(const Slot &slot)
    {
        Made mended = mend(slot);
        Made copied = copy(slot);
        if (mended.is_made() && copied.is_made()) {
            return choose(slot, std::move(mended), std::move(copied));
        }
        for (Made *made : {&mended, &copied}) {
            if (made->is_made()) {
                return std::move(*made);
            }
        }
        Made restored = restore(slot);
        if (!restored.is_made()) {
            restored.reason = joined({mended.reason, copied.reason, restored.reason});
        }
        return restored;
    }

    /* More than two turned bits may look like two others: then a proven copy is right. */
    Made choose(const Slot &slot, Made mended, Made copied) const
    {
        if (mended.block == copied.block) {
            mended.certainty = Certainty::certain;
            mended.reason += fmt::format("; {} has the same", saved_->path());
            return mended;
        }
        if (mended.certainty != Certainty::certain && copied.certainty == Certainty::certain) {
            return copied;
        }
        mended.reason += fmt::format("; {} has another one: {}", saved_->path(),
                                     differing_text(slot, mended.block, copied.block));
        return mended;
    }

    /* The fields in which two blocks for a slot differ. */
    std::string differing_text(const Slot &slot, const Block &a, const Block &b) const
    {
        const std::vector<Difference> differences =
            entry_differences(entry(slot, a), entry(slot, b));
        return differing_fields(differences) + (differences.size() == 1 ? " differs" : " differ");
    }

    Made mend(const Slot &slot)
    {
        if (!slot.readable || is_zero(slot.block.data())) {
            return {};
        }
        const Mended mended = tierctl::mend(metadata_, slot.table, slot.no, slot.block);
        if (mended.certainty == Certainty::none) {
            return {.reason = "no flipped bit explains it"};
        }
        Made made{
            .action = Action::mend,
            .certainty = mended.certainty,
            .block = mended.block,
            .reason = fmt::format(
                "{}: {}", explained_text(mended.bits.size()),
                fmt::join(mend_texts(metadata_, slot.table, slot.no, slot.block, mended), ", "))};
        /* Of noise that a turned bit explains by chance, the numbers make no sense. */
        const std::string stray = doubts_.missing(slot.table, mended.block);
        if (!stray.empty()) {
            made.certainty = Certainty::likely;
            made.reason += ", but " + stray;
        }
        return made;
    }

    Made copy(const Slot &slot)
    {
        if (saved_ == nullptr) {
            return {.reason = "a saved file may have it: --from"};
        }
        const std::string &path = saved_->path();
        alignas(SIZE_4K) Block then;
        if (!saved_->read(slot.table.slot(slot.no), then.data(), SIZE_4K)) {
            return {.reason = fmt::format("{} lacks it: {}", path, error_text(errno))};
        }
        const uint32_t flaws = slot.table.flaws(slot.no, then.data());
        if (flaws != 0) {
            return {.reason = fmt::format("{} has it damaged, too: {}", path, flaws_text(flaws))};
        }
        if (is_proven(slot, then)) {
            return {.action = Action::copy,
                    .certainty = Certainty::certain,
                    .block = then,
                    .reason =
                        fmt::format("{} has the one whose checksum is still stored here", path)};
        }
        std::string stale = doubts_.missing(slot.table, then);
        if (stale.empty()) {
            stale = doubts_.replaced(slot.table, then);
        }
        if (!stale.empty()) {
            return {.reason = fmt::format("{} has one, but {}: it is older, and revert copies it "
                                          "all the same",
                                          path, stale)};
        }
        return {.action = Action::copy,
                .certainty = Certainty::likely,
                .block = then,
                .reason = path + " has it as it was then",
                .lost = joined({misplaced(slot), "what has changed in it since it was saved"})};
    }

    /* A sound entry that lies in the wrong slot, or is of another table; empty: there is none. */
    static std::string misplaced(const Slot &slot)
    {
        const uint32_t flaws = slot.table.flaws(slot.no, slot.block.data());
        const bool is_sealed = slot.readable && (flaws & BAD_CHECKSUM) == 0;
        return text_if(is_sealed, "what lies there, whose checksum is right: wrong is its " +
                                      flaws_text(flaws));
    }

    /* Whether a saved block must be what was here: the checksum that is stored here is its own, and
     * what no checksum covers is the same. */
    static bool is_proven(const Slot &slot, Block then)
    {
        const Table &table = slot.table;
        if (!slot.readable || table.row->crc == nullptr || is_zero(slot.block.data())) {
            return false;
        }
        Block now = slot.block;
        return table.row->checksum->get(now.data()) == table.row->checksum->get(then.data()) &&
               memcmp(now.data() + table.record_length, then.data() + table.record_length,
                      SIZE_4K - table.record_length) == 0;
    }

    /* As the layout's own restore does it. */
    Made restore(const Slot &slot)
    {
        if (slot.table.row->restore == nullptr) {
            return {};
        }
        if (std::ranges::any_of(causes_, [&slot](const Cause &cause) {
                return cause.table == slot.table.name && cause.first <= slot.no &&
                       slot.no <= cause.last;
            })) {
            return {.reason = "perhaps there is no such entry: see the cause that check names"};
        }
        const Restored restored = restorer_.restore(slot.table, slot.no, slot.block);
        if (!restored.block) {
            return {.reason = restored.reason};
        }
        if (slot.table.in_use(restored.block->data())) {
            return {.reason = restored.reason + ", but a restore would leave it in use, with "
                                                "values that nothing proves"};
        }
        return {.action = Action::restore,
                .block = *restored.block,
                .reason = restored.reason,
                .lost = fmt::format("what {} {} held", slot.table.name, slot.no)};
    }

    /* Of a sound slot: its entries without an owner become free. */
    Made free(const Slot &slot, const Trouble &trouble) const
    {
        const Table &table = slot.table;
        if (trouble.orphans.empty()) {
            if (!trouble.doubt.empty()) {
                return {.reason = trouble.doubt};
            }
            return {.reason = "its checksum is right: only a person can say what it should be" +
                              saved_hint(slot)};
        }
        if (!free_lost_) {
            return {.reason = "--free-lost makes it free"};
        }
        Made made{.action = Action::free,
                  .reason = text_if(trouble.other, "the other errors stay"),
                  .lost = fmt::format("what is cached in {} {}, written back or not", table.name,
                                      numbers_text(trouble.orphans))};
        if (table.row->packed()) {
            made.block = slot.block;
            for (const uint64_t no : trouble.orphans) {
                memset(made.block.data() + no % table.end_word * sizeof(uint64_t), 0,
                       sizeof(uint64_t));
            }
            table.seal_slot(made.block.data());
            return made;
        }
        if (auto freed = free_block(table, slot.no)) {
            made.block = *freed;
            return made;
        }
        return {.reason = "zu_tier makes no free one of that number"};
    }

    /* A free entry as the tool makes it. */
    std::optional<Block> free_block(const Table &table, uint64_t no) const
    {
        Block empty{};
        const auto file = repair_file(device_, metadata_, table, no, empty);
        if (!file) {
            return std::nullopt;
        }
        return rebuild(device_, metadata_, table, *file, false).block;
    }

    /* What the saved file has in place of a sound slot. */
    std::string saved_hint(const Slot &slot) const
    {
        alignas(SIZE_4K) Block then;
        if (saved_ == nullptr || !saved_->read(slot.table.slot(slot.no), then.data(), SIZE_4K) ||
            slot.table.flaws(slot.no, then.data()) != 0) {
            return "";
        }
        if (then == slot.block) {
            return fmt::format("; {} has the same", saved_->path());
        }
        return fmt::format("; {} has another one: {}", saved_->path(),
                           differing_text(slot, slot.block, then));
    }

    /* The block as a repair file, when that has all of it. */
    void put_block(const Slot &slot, const Block &block, Step &step) const
    {
        const Table &table = slot.table;
        if (const auto file = repair_file(device_, metadata_, table, slot.no, block)) {
            std::string keys = nlohmann::ordered_json::parse(*file).dump();
            const Rebuilt rebuilt = rebuild(device_, metadata_, table, keys, false);
            if (rebuilt.block && *rebuilt.block == block) {
                step.keys = std::move(keys);
                step.makes = zutr_crc32(block.data(), SIZE_4K);
            }
        }
        step.block.emplace(block.data());
    }

    const Device &device_;
    const Metadata &metadata_;
    const Device *saved_;
    bool free_lost_;
    const std::vector<Cause> &causes_;
    Restorer restorer_;
    OwnerDoubts doubts_;
};

} // namespace

std::vector<Step> plan_steps(const Device &device, const Metadata &metadata, const Device *saved,
                             bool free_lost, Troubles &troubles)
{
    Planner planner(device, metadata, saved, free_lost, troubles.causes());
    std::vector<Step> steps;
    for (const Table &table : metadata.tables) {
        const auto &slots = troubles.of(table);
        Progress progress(fmt::format("planning {}", table.name), slots.size());
        for (const auto &[no, trouble] : slots) {
            steps.push_back(planner.plan(table, no, trouble));
            progress.add(1);
        }
    }
    return steps;
}

} // namespace tierctl
