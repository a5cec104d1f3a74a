#include "zu_tierctl/revert/revert.h"

#include "common/zutr_crc32.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/revert/same_cache.h"

#include <algorithm>
#include <fmt/core.h>
#include <optional>
#include <span>
#include <vector>

namespace tierctl {

namespace {

/* The layout whose magic and version the super block has, sound or not; null: none. */
const tier_layout *resembled_layout(const Device &device)
{
    alignas(SIZE_4K) Block block;
    const auto layouts = tier_layouts();
    const auto found = device.read(TIER_SUPER_OFFSET, block.data(), SIZE_4K)
                           ? std::ranges::find_if(layouts,
                                                  [&block](const tier_layout *layout) {
                                                      return looks_like(*layout, block);
                                                  })
                           : layouts.end();
    return found == layouts.end() ? nullptr : *found;
}

class Revert {
public:
    explicit Revert(const RevertOptions &options)
        : options_(options), saved_(options.saved, Access::read_only),
          device_(options.device, options.commit ? Access::exclusive : Access::read_only),
          metadata_(read_either()), selection_(select_slots(metadata_.tables, options.entries)),
          table_(selection_.table)
    {
    }

    /* Every entry is checked and shown before the first is written. */
    void run()
    {
        require_same_device();
        if (!options_.commit) {
            hint_in_use(options_.device);
        }
        for (const std::string &note : selection_.notes) {
            complain(note);
        }
        try {
            show_all(); /* the operator must see what is replaced before it is written */
        } catch (const OutputClosed &error) {
            if (!options_.commit) {
                throw;
            }
            throw std::runtime_error(fmt::format("nothing was written: {}", error.what()));
        }
        if (changes_.empty()) {
            return;
        }
        if (options_.commit) {
            write();
        } else {
            complain("nothing was written: --commit writes it");
        }
    }

private:
    /* An entry to be written, and the checksums of its blocks as they were shown. */
    struct Change {
        uint64_t no;
        uint32_t then;
        std::optional<uint32_t> now; /* nothing: it could not be read */

        bool operator==(const Change &) const = default;
    };

    void show_all()
    {
        for (const uint64_t no : selection_.slots) {
            load(no);
            if (now_is_read_ && now_ == then_) {
                print("{} is the same in both: nothing to do\n", name(no));
            } else {
                show(no);
                changes_.push_back(change(no));
            }
        }
        finish_output();
    }

    bool is_super() const { return options_.entries.table == SUPER_TABLE; }

    std::string name(uint64_t no) const { return fmt::format("{} {}", table_.name, no); }

    /* The metadata as they were saved. A damaged super block is put back by those of the device. */
    Metadata read_either() const
    {
        const bool is_damaged =
            options_.damaged && is_super() && layout_of(read_super(saved_)) == nullptr;
        return read_metadata(is_damaged ? device_ : saved_);
    }

    /* The super block on the device may be damaged when it is put back. */
    void require_same_device() const
    {
        if (options_.other_device && !is_super()) {
            throw UsageError("--other-device is for the super block only");
        }
        if (is_super() && saved_.size() != device_.size()) {
            throw std::runtime_error(fmt::format("the sizes of {} and {} differ: {} and {} bytes",
                                                 saved_.path(), device_.path(), saved_.size(),
                                                 device_.size()));
        }
        if (!is_super()) {
            const Metadata now = read_metadata(device_);
            require_same_layout(saved_, metadata_, device_, now);
            require_same_super(saved_, metadata_, device_, now);
        }
        const std::string reason =
            is_super() ? other_cache_reason(saved_, device_, metadata_) : std::string();
        if (options_.other_device || !reason.empty()) {
            require_no_other_layout();
        }
        if (reason.empty()) {
            return;
        }
        if (!options_.other_device) {
            throw std::runtime_error(reason + "; to put it back all the same: --other-device");
        }
        complain(fmt::format("--other-device: {}; {} takes the super block of {} all the same, "
                             "with its identity and its places of the tables",
                             reason, device_.path(), saved_.path()));
    }

    /* No option gives another cache another layout, which would lose its tables. The same cache may
     * have been converted. A block that is of no layout may be replaced by any. */
    void require_no_other_layout() const
    {
        const tier_layout *then = resembled_layout(saved_);
        const tier_layout *now = resembled_layout(device_);
        if (then != nullptr && now != nullptr && then != now) {
            throw std::runtime_error(fmt::format(
                "{} is of layout {}, {} of layout {}: the super block of another layout is not put "
                "back, not even with --other-device",
                saved_.path(), then->name, device_.path(), now->name));
        }
    }

    /* Reads the entry on both sides, and throws when it must not be put back. */
    void load(uint64_t no)
    {
        load_saved(no);
        load_now(no);
    }

    void load_saved(uint64_t no)
    {
        const int64_t offset = table_.slot(no);
        if (!saved_.read(offset, then_.data(), SIZE_4K)) {
            if (offset >= 0 && saved_.unreadable().touches(offset, SIZE_4K)) {
                throw std::runtime_error(name(no) + " is missing in " + saved_.path() +
                                         ": it could not be read when that was saved");
            }
            throw_errno("cannot read " + name(no) + " in " + saved_.path());
        }
        damage_ = damage(no);
        if (!damage_.empty() && !options_.damaged) {
            throw std::runtime_error(
                fmt::format("{} is damaged in {} ({}); to put it back as it was: --damaged",
                            name(no), saved_.path(), damage_));
        }
    }

    /* What was wrong with the entry when it was saved; empty: nothing. */
    std::string damage(uint64_t no) const
    {
        if (!table_.fits()) {
            return "record that does not fit its slot";
        }
        const uint32_t flaws = table_.flaws(no, then_.data());
        if (flaws == 0 && is_super() && !tierctl::is_super(*metadata_.layout, then_)) {
            return "version";
        }
        return flaws_text(flaws);
    }

    /* A block that cannot be read may still be writable, unless it lies outside the device. */
    void load_now(uint64_t no)
    {
        now_is_read_ = device_.read(table_.slot(no), now_.data(), SIZE_4K);
        if (!now_is_read_ && errno == ENXIO) {
            throw_errno("cannot read " + name(no) + " in " + device_.path());
        }
        error_ = errno;
    }

    Change change(uint64_t no) const
    {
        Change seen{no, zutr_crc32(then_.data(), SIZE_4K), std::nullopt};
        if (now_is_read_) {
            seen.now = zutr_crc32(now_.data(), SIZE_4K);
        }
        return seen;
    }

    void show(uint64_t no) const
    {
        const Entry then{metadata_, table_, no, then_.data()};
        const Entry now{metadata_, table_, no, now_.data()};
        std::string now_text = "cannot be read: " + error_text(error_);
        if (now_is_read_) {
            now_text = entry_text(now);
        }
        print("{} at byte {}\nnow:  {}\nthen: {}\n", name(no), table_.slot(no), now_text,
              entry_text(then));
        if (!damage_.empty()) {
            print("then damaged: {}\n", damage_);
        }
        if (now_is_read_) {
            print_text(differences_text(entry_differences(now, then)));
        }
    }

    void write()
    {
        size_t done = 0;
        try {
            Progress progress("writing", changes_.size());
            for (; done < changes_.size(); done++) {
                write(changes_[done]);
                progress.add(1);
            }
            print("written\n");
            finish_output();
        } catch (const std::exception &error) {
            throw std::runtime_error(outcome(error.what(), done));
        }
    }

    void write(const Change &shown)
    {
        load(shown.no);
        if (change(shown.no) != shown) {
            throw std::runtime_error("nothing was written: it has changed since it was shown");
        }
        device_.write_block(table_.slot(shown.no), now_is_read_ ? now_.data() : nullptr,
                            then_.data());
    }

    /* What failed after so many writes, and which entries are as they were and as they are to be.
     */
    std::string outcome(const std::string &error, size_t done) const
    {
        std::vector<uint64_t> numbers;
        for (const Change &planned : changes_) {
            numbers.push_back(planned.no);
        }
        const std::span all(numbers);
        std::string text = error;
        if (done < all.size()) {
            text.insert(0, name(all[done]) + ": ");
        }
        if (done > 0) {
            text += fmt::format("; written: {} {}", table_.name, numbers_text(all.first(done)));
        }
        if (done + 1 < all.size()) {
            text += fmt::format("; not written: {} {}", table_.name,
                                numbers_text(all.subspan(done + 1)));
        }
        return text;
    }

    /* The blocks of the entry that was loaded last, aligned for direct access. */
    alignas(SIZE_4K) Block then_;
    alignas(SIZE_4K) Block now_;

    const RevertOptions &options_;
    Device saved_;
    Device device_;
    Metadata metadata_;
    Selection selection_;
    const Table &table_;
    std::vector<Change> changes_;
    std::string damage_; /* of the entry that was loaded last */
    bool now_is_read_ = false;
    int error_ = 0; /* error number that says why not */
};

} // namespace

void revert(const RevertOptions &options) { Revert(options).run(); }

} // namespace tierctl
