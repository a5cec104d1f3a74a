#include "zu_tierctl/revert/revert.h"

#include "common/zutr_utils.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/unreadable.h"
#include "zu_tierctl/entry/entry.h"

#include <cstdio>
#include <cstring>
#include <new>

namespace tierctl {

namespace {

/* A block's memory, fit for direct access. */
class block {
public:
    block()
    {
        if (zutr_alloc_aligned(SIZE_4K, &memory_) != 0) {
            throw std::bad_alloc();
        }
    }
    uint8_t *data() const { return memory_.get(); }
    bool operator==(const block &other) const { return memcmp(data(), other.data(), SIZE_4K) == 0; }

private:
    zutr_buffer memory_;
};

class Revert {
public:
    explicit Revert(const RevertOptions &options)
        : options_(options), saved_(options.saved, Access::read_only),
          device_(options.device, options.commit ? Access::exclusive : Access::read_only),
          metadata_(read_metadata(saved_)), table_(find_table(metadata_.tables, options.table)),
          name_(options.table + ' ' + std::to_string(options.no))
    {
        if (options.no >= table_.count()) {
            throw UsageError(name_ + ": the table has " + std::to_string(table_.count()) +
                             " entries");
        }
        offset_ = table_.slot(options.no);
    }

    void run()
    {
        require_same_device();
        load_saved();
        load_present();
        if (present_is_read_ && present_ == then_) {
            print(name_ + " is the same in both: nothing to do\n");
            finish_output();
            return;
        }
        show();
        if (options_.commit) {
            write();
        } else {
            fprintf(stderr, "zu_tierctl: nothing was written: --commit writes it\n");
        }
    }

private:
    /* The super block that is to be put back cannot be compared: it may be damaged now. */
    void require_same_device() const
    {
        if (table_.name == SUPER_TABLE) {
            if (saved_.size() != device_.size()) {
                throw std::runtime_error("the sizes of " + saved_.path() + " and " +
                                         device_.path() + " differ");
            }
        } else if (read_metadata(device_).super_block != metadata_.super_block) {
            throw std::runtime_error("the super blocks of " + saved_.path() + " and " +
                                     device_.path() + " differ");
        }
    }

    void load_saved() const
    {
        if (UnreadableList(saved_.path()).holds(options_.table, options_.no)) {
            throw std::runtime_error(name_ + " is missing in " + saved_.path() +
                                     ": it could not be read when that was saved");
        }
        if (!saved_.read(offset_, then_.data(), SIZE_4K)) {
            throw_errno("cannot read " + name_ + " in " + saved_.path());
        }
        if (!table_.fits() || table_.flaws(options_.no, then_.data()) != 0) {
            throw std::runtime_error(name_ + " is damaged in " + saved_.path());
        }
    }

    /* A block that cannot be read may well be written. */
    void load_present()
    {
        present_is_read_ = device_.read(offset_, present_.data(), SIZE_4K);
        if (!present_is_read_ && errno == ENXIO) {
            throw_errno("cannot read " + name_ + " in " + device_.path());
        }
        error_ = errno;
    }

    void show() const
    {
        const Entry then{metadata_, table_, options_.no, then_.data()};
        const Entry now{metadata_, table_, options_.no, present_.data()};
        const std::string text =
            present_is_read_ ? entry_text(now) : std::string("cannot be read: ") + strerror(error_);
        print(name_ + " at byte " + std::to_string(offset_) + "\nnow:  " + text +
              "\nthen: " + entry_text(then) + '\n');
        if (present_is_read_) {
            print(differences_text(entry_differences(now, then)));
        }
        finish_output(); /* nobody shall miss what is about to be written */
    }

    void write()
    {
        device_.write_block(offset_, then_.data());
        if (!device_.read(offset_, present_.data(), SIZE_4K)) {
            throw_errno("cannot read back " + name_ + " from " + device_.path());
        }
        if (!(present_ == then_)) {
            throw std::runtime_error(name_ + " reads back otherwise than it was written to " +
                                     device_.path());
        }
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
    block then_;
    block present_;
    bool present_is_read_ = false;
    int error_ = 0;
};

} // namespace

void revert(const RevertOptions &options)
{
    Revert(options).run();
}

} // namespace tierctl
