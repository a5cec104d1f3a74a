#include "zu_tierctl/revert/revert.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/unreadable.h"
#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/revert/same_cache.h"

#include <cstring>
#include <fmt/core.h>

namespace tierctl {

namespace {

class Revert {
public:
    explicit Revert(const RevertOptions &options)
        : options_(options), saved_(options.saved, Access::read_only),
          device_(options.device, options.commit ? Access::exclusive : Access::read_only),
          metadata_(read_either(options)), table_(find_table(metadata_.tables, options.table)),
          name_(fmt::format("{} {}", options.table, options.no))
    {
        if (options.no >= table_.count()) {
            throw UsageError(fmt::format("{}: the table has {} entries", name_, table_.count()));
        }
        offset_ = table_.slot(options.no);
    }

    void run()
    {
        require_same_device();
        load_saved();
        load_now();
        if (now_is_read_ && now_ == then_) {
            print("{} is the same in both: nothing to do\n", name_);
            finish_output();
            return;
        }
        show();
        if (options_.commit) {
            write();
        } else {
            complain("nothing was written: --commit writes it");
        }
    }

private:
    bool is_super() const { return options_.table == SUPER_TABLE; }

    /* The metadata as they were saved. A damaged super block is put back by those of the device. */
    Metadata read_either(const RevertOptions &options) const
    {
        const bool may_be_damaged = options.damaged && options.table == SUPER_TABLE;
        const bool is_damaged = may_be_damaged && layout_of(read_super(saved_)) == nullptr;
        return read_metadata(is_damaged ? device_ : saved_);
    }

    /* The super block on the device may be damaged when it is put back. */
    void require_same_device() const
    {
        if (options_.other_device && !is_super()) {
            throw UsageError("--other-device is for the super block only");
        }
        if (is_super() ? saved_.size() != device_.size()
                       : read_metadata(device_).super_block != metadata_.super_block) {
            throw std::runtime_error(fmt::format("the {} of {} and {} differ",
                                                 is_super() ? "sizes" : "super blocks",
                                                 saved_.path(), device_.path()));
        }
        const std::string reason =
            is_super() ? other_cache_reason(saved_, device_, metadata_) : std::string();
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

    void load_saved()
    {
        if (UnreadableList(saved_.path()).holds(options_.table, options_.no)) {
            throw std::runtime_error(name_ + " is missing in " + saved_.path() +
                                     ": it could not be read when that was saved");
        }
        if (!saved_.read(offset_, then_.data(), SIZE_4K)) {
            throw_errno("cannot read " + name_ + " in " + saved_.path());
        }
        damage_ = damage();
        if (!damage_.empty() && !options_.damaged) {
            throw std::runtime_error(
                fmt::format("{} is damaged in {} ({}); to put it back as it was: --damaged", name_,
                            saved_.path(), damage_));
        }
    }

    /* What was wrong with the entry when it was saved; empty: nothing. */
    std::string damage() const
    {
        if (!table_.fits()) {
            return "record that does not fit its slot";
        }
        const uint32_t flaws = table_.flaws(options_.no, then_.data());
        return flaws == 0 && is_super() && !tierctl::is_super(*metadata_.layout, then_)
                   ? "version"
                   : flaws_text(flaws);
    }

    /* A block that cannot be read may still be writable, unless it lies outside the device. */
    void load_now()
    {
        now_is_read_ = device_.read(offset_, now_.data(), SIZE_4K);
        if (!now_is_read_ && errno == ENXIO) {
            throw_errno("cannot read " + name_ + " in " + device_.path());
        }
        error_ = errno;
    }

    void show() const
    {
        const Entry then{metadata_, table_, options_.no, then_.data()};
        const Entry now{metadata_, table_, options_.no, now_.data()};
        print("{} at byte {}\nnow:  {}\nthen: {}\n", name_, offset_,
              now_is_read_ ? entry_text(now) : fmt::format("cannot be read: {}", strerror(error_)),
              entry_text(then));
        if (!damage_.empty()) {
            print("then damaged: {}\n", damage_);
        }
        if (now_is_read_) {
            print_text(differences_text(entry_differences(now, then)));
        }
        finish_output(); /* the operator must see what is replaced before it is written */
    }

    void write()
    {
        device_.write_block(offset_, now_is_read_ ? now_.data() : nullptr, then_.data());
        print("written\n");
        finish_output();
    }

    const RevertOptions &options_;
    Device saved_;
    Device device_;
    Metadata metadata_;
    const Table &table_;
    std::string name_;
    int64_t offset_ = 0;
    alignas(SIZE_4K) Block then_; /* aligned for direct access */
    alignas(SIZE_4K) Block now_;
    std::string damage_;
    bool now_is_read_ = false;
    int error_ = 0; /* error number that says why not */
};

} // namespace

void revert(const RevertOptions &options) { Revert(options).run(); }

} // namespace tierctl
