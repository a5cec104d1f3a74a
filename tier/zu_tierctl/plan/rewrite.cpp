#include "zu_tierctl/plan/rewrite.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/scratch_name.h"
#include "zu_tierctl/entry/entry.h"
#include "zu_tierctl/entry/selection.h"
#include "zu_tierctl/plan/plan_file.h"
#include "zu_tierctl/revert/same_cache.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <stdexcept>

namespace tierctl {

namespace {

/* The smallest unit that a disk writes as a whole. */
constexpr size_t SECTOR_SIZE = 512;

/* Whether each sector of a block is one of the change's: a write that the power failed in the
 * middle of leaves such a block. What could not be read before counts as zeros. */
bool is_of(const Change &change, const Block &block)
{
    Block before;
    Block after;
    change.before.get(before.data());
    change.after.get(after.data());
    for (size_t at = 0; at < SIZE_4K; at += SECTOR_SIZE) {
        if (memcmp(&block[at], &before[at], SECTOR_SIZE) != 0 &&
            memcmp(&block[at], &after[at], SECTOR_SIZE) != 0) {
            return false;
        }
    }
    return true;
}

void require_change(const Device &device, const Metadata &metadata, const std::string &source,
                    const Change &change)
{
    try {
        require_slot(find_table(metadata.tables, change.table), change.no, change.offset);
        require_writable(device.size(), change.offset);
    } catch (const std::exception &error) {
        throw std::runtime_error(fmt::format("{} has {} at byte {}: {}", source, change.name(),
                                             change.offset, error.what()));
    }
}

bool have_same_place(const Table &a, const Table &b)
{
    return a.record_length == b.record_length &&
           std::ranges::equal(a.regions, b.regions,
                              [](const tier_region &one, const tier_region &other) {
                                  return one.start == other.start && one.count == other.count;
                              });
}

bool are_of_same_cache(const Metadata &metadata, const Block &super_block)
{
    if (!is_super(*metadata.layout, super_block)) {
        return false;
    }
    return cache_identity(*metadata.layout, super_block) ==
               cache_identity(*metadata.layout, metadata.super_block) &&
           std::ranges::equal(metadata.tables, tables_of(*metadata.layout, super_block.data()),
                              have_same_place);
}

void require_size(const Device &device, const std::string &source, uint64_t size, bool is_right)
{
    if (!is_right) {
        throw std::runtime_error(fmt::format("{} has {} bytes, the device of {} has {}",
                                             device.path(), device.size(), source, size));
    }
}

[[noreturn]] void refuse_other(const Device &device, const std::string &source)
{
    throw std::runtime_error(
        fmt::format("the super block of {} is not the one in {}: it is another "
                    "device, or its super block has changed",
                    device.path(), source));
}

} // namespace

Metadata require_unchanged(const Device &device, const std::string &source, uint64_t size,
                           const Block &super_block)
{
    Metadata metadata = read_metadata(device);
    if (metadata.super_block != super_block) {
        refuse_other(device, source);
    }
    require_size(device, source, size, device.size() == size);
    return metadata;
}

Metadata require_same(const Device &device, const std::string &source, const UndoFile &undo)
{
    Metadata metadata = read_metadata(device);
    if (!are_of_same_cache(metadata, undo.super_block)) {
        refuse_other(device, source);
    }
    require_size(device, source, undo.size, device.size() >= undo.size);
    for (const Change &change : undo.changes) {
        require_change(device, metadata, source, change);
    }
    return metadata;
}

/* A block of the device beside a change. Only a variable is aligned, not what a function gives. */
struct Rewrite::Found {
    alignas(SIZE_4K) Block now{};
    bool is_read = false;
    int error = 0;         /* error number that says why not */
    bool is_there = false; /* nothing is to be done */
};

Rewrite::Rewrite(Device &device, const Metadata &metadata, const std::vector<Change> &changes,
                 KeptBlock Change::*target)
    : device_(device), metadata_(metadata), changes_(changes), target_(target)
{
}

/* A block that cannot be read holds nothing that anybody would miss. */
void Rewrite::find(const Change &change, Found &found) const
{
    found.is_read = device_.read(change.offset, found.now.data(), SIZE_4K);
    found.error = errno;
    found.is_there = false;
    if (is_undo() && change.unreadable) { /* there is nothing to go back to */
        found.is_there = true;
        return;
    }
    if (!found.is_read) {
        return;
    }
    found.is_there = KeptBlock(found.now.data()) == change.*target_;
    if (!is_of(change, found.now)) {
        throw std::runtime_error(fmt::format(
            "{} at byte {} of {} is neither as it was before nor as it was to be: something else "
            "has changed it",
            change.name(), change.offset, device_.path()));
    }
}

void Rewrite::show(const std::function<std::string(const Change &)> &note, bool commit)
{
    Found found;
    for (const Change &change : changes_) { /* refused before any is shown */
        find(change, found);
    }
    try {
        show_each(note);
    } catch (const OutputClosed &error) {
        if (commit) {
            complain(fmt::format("nothing was written: {}", error.what()));
        }
        throw;
    } catch (const std::exception &error) {
        throw std::runtime_error(fmt::format("nothing was written: {}", error.what()));
    }
}

void Rewrite::show_each(const std::function<std::string(const Change &)> &note)
{
    Found found;
    for (const Change &change : changes_) {
        find(change, found);
        if (is_undo() && change.unreadable) {
            print("{} could not be read before: nothing to go back to\n", change.name());
        } else if (!found.is_there) {
            const Table &table = find_table(metadata_.tables, change.table);
            print("{} at byte {}\n{}", change.name(), change.offset, note(change));
            Block block;
            (change.*target_).get(block.data());
            const Entry target{metadata_, table, change.no, block.data()};
            if (found.is_read) {
                print_text(differences_text(
                    entry_differences({metadata_, table, change.no, found.now.data()}, target)));
            } else {
                print("  cannot be read: {} -> {}\n", error_text(found.error), entry_text(target));
            }
            left_.push_back(&change);
        }
    }
    finish_output();
}

void Rewrite::lay_over()
{
    for (const Change *change : left_) {
        device_.lay_over(change->offset, change->*target_);
    }
}

void Rewrite::write(const std::string &advice)
{
    size_t done = 0;
    std::string text;
    const SignalsHeld held;
    try {
        write_each(done);
        if (done == left_.size()) {
            print("written\n");
            finish_output();
            return;
        }
        text = "interrupted" + outcome(done, done);
    } catch (const std::exception &error) {
        text = done < left_.size() ? left_[done]->name() + ": " : "";
        text += error.what() + outcome(done, done + 1);
    }
    text += "; " + advice;
    if (!SignalsHeld::is_any_pending()) {
        throw std::runtime_error(text);
    }
    complain(text); /* the signal ends the program before main() could */
}

/* Until all are written, or a signal has arrived. */
void Rewrite::write_each(size_t &done)
{
    Progress progress("writing", left_.size());
    for (; done < left_.size() && !SignalsHeld::is_any_pending(); done++) {
        write(*left_[done]);
        progress.add(1);
    }
}

void Rewrite::write(const Change &change)
{
    Found found;
    find(change, found);
    alignas(SIZE_4K) Block block;
    (change.*target_).get(block.data());
    device_.write_block(change.offset, found.is_read ? found.now.data() : nullptr, block.data());
}

/* Which blocks were written, the first `done`, and which were not, those from `rest` on. */
std::string Rewrite::outcome(size_t done, size_t rest) const
{
    std::string text;
    if (done > 0) {
        text += "; written: " + names(0, done);
    }
    if (rest < left_.size()) {
        text += "; not written: " + names(rest, left_.size());
    }
    return text;
}

/* "inode 3..5,9, extent 2" */
std::string Rewrite::names(size_t first, size_t end) const
{
    std::map<std::string_view, std::vector<uint64_t>> numbers; /* by table */
    for (size_t i = first; i < end; i++) {
        numbers[left_[i]->table].push_back(left_[i]->no);
    }
    std::string text;
    for (auto &[table, all] : numbers) {
        std::ranges::sort(all);
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", table, numbers_text(all));
    }
    return text;
}

} // namespace tierctl
