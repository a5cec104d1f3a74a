#include "zu_tierctl/salvage/salvage.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/in_use.h"
#include "zu_tierctl/device/number.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/device/progress.h"
#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/entry/given_super.h"
#include "zu_tierctl/salvage/copier.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>
#include <future>
#include <mutex>
#include <span>
#include <tuple>
#include <utility>
#include <uuid/uuid.h>

namespace tierctl {

namespace {

constexpr size_t COPIERS = 8;

/* What is synced at once: the end of a batch waits for the disk. */
constexpr uint64_t BATCH_BYTES = uint64_t{128} << 20;
constexpr size_t BATCH_PIECES = 4096;

/* Lines of the manifest, without the data. */
constexpr uint64_t MANIFEST_PIECE = 400;

constexpr size_t CONFLICTS_TOLD = 10;

/* What the options --brick and --inode name. */
OwnerFilter read_filter(std::string_view table, const std::string &text)
{
    OwnerFilter filter{table, parse_number(text), {}};
    OwnerName uuid;
    if (!filter.no && uuid_parse(text.c_str(), uuid.data()) == 0) {
        filter.uuid = uuid;
    }
    if (!filter.no && !filter.uuid) {
        throw UsageError(fmt::format("--{} {}: expected a number or a uuid", table, text));
    }
    return filter;
}

DataChoice choose(const SalvageOptions &options)
{
    DataChoice choice{.all = options.all};
    if (!options.brick.empty()) {
        choice.filters.push_back(read_filter("brick", options.brick));
    }
    if (!options.inode.empty()) {
        choice.filters.push_back(read_filter("inode", options.inode));
    }
    return choice;
}

/* The first line of the manifest. */
std::string head_text(const SalvageOptions &options, const Device &device, const Metadata &metadata)
{
    return fmt::format(
        R"({{"device":{},"size":{},"layout":"{}","super_crc32":"{:08x}","all":{},"brick":{},)"
        R"("inode":{}}})",
        json_text(options.device), device.size(), metadata.layout->name,
        zutr_crc32(metadata.super_block.data(), metadata.super_block.size()), options.all,
        json_text(options.brick), json_text(options.inode));
}

/* Copies what a plan says, and counts what could not be. */
class Salvage {
public:
    Salvage(const Device &device, const DataPlan &plan, const Target &target, Manifest &manifest)
        : device_(device), plan_(plan), target_(target), manifest_(manifest),
          progress_("salvaging", plan.bytes())
    {
    }

    /* The pieces before `first` are done. */
    void run(size_t first)
    {
        for (size_t i = 0; i < COPIERS; i++) {
            copiers_.emplace_back(device_, plan_, target_, sizes_);
        }
        Batch before{first, {}};
        while (first < plan_.pieces().size()) {
            Batch batch{first, {}};
            /* The disk writes what was copied while the next batch is read. */
            auto kept = std::async(std::launch::async, [&] { keep(before); });
            copy(batch);
            kept.get();
            first += batch.segments.size();
            before = std::move(batch);
        }
        keep(before);
    }

    /* Counts what was done before. */
    void count(const Segment &segment)
    {
        bytes_[static_cast<size_t>(segment.outcome)] += segment.length;
        progress_.add(segment.length);
    }

    uint64_t bytes(Outcome outcome) const { return bytes_[static_cast<size_t>(outcome)]; }

private:
    struct Batch {
        size_t first;                               /* index of its first piece */
        std::vector<std::vector<Segment>> segments; /* of each piece */
    };

    size_t batch_size(size_t first) const
    {
        const auto rest = plan_.pieces().subspan(first);
        uint64_t bytes = 0;
        size_t size = 0;
        while (size < std::min(rest.size(), BATCH_PIECES) && bytes < BATCH_BYTES) {
            bytes += rest[size++].length;
        }
        return size;
    }

    /* Copies the pieces of a batch, several at a time; each copier takes those next that are read
     * at once. */
    void copy(Batch &batch)
    {
        const auto pieces = plan_.pieces().subspan(batch.first, batch_size(batch.first));
        batch.segments.resize(pieces.size());
        std::mutex taking;
        size_t next = 0;
        const auto take = [&] {
            const std::lock_guard<std::mutex> lock(taking);
            const size_t first = next;
            next += first < pieces.size() ? Copier::joined(pieces.subspan(first)) : 0;
            return std::pair(first, next - first);
        };
        const auto work = [&](Copier &copier) {
            try {
                for (auto [i, count] = take(); count != 0; std::tie(i, count) = take()) {
                    copier.copy(pieces.subspan(i, count),
                                std::span(batch.segments).subspan(i, count));
                    const std::lock_guard<std::mutex> lock(counts_);
                    for (const DataPiece &piece : pieces.subspan(i, count)) {
                        progress_.add(piece.length);
                    }
                }
            } catch (...) {
                const std::lock_guard<std::mutex> lock(taking);
                next = pieces.size();
                throw;
            }
        };
        std::vector<std::future<void>> workers;
        for (Copier &copier : copiers_) {
            workers.push_back(std::async(std::launch::async, work, std::ref(copier)));
        }
        for (std::future<void> &worker : workers) {
            worker.get();
        }
    }

    /* Puts a batch into the manifest once it is on the disk. */
    void keep(const Batch &batch)
    {
        if (batch.segments.empty()) {
            return;
        }
        target_.sync();
        for (size_t i = 0; i < batch.segments.size(); i++) {
            for (const Segment &segment : batch.segments[i]) {
                manifest_.add(plan_, plan_.pieces()[batch.first + i], segment);
                bytes_[static_cast<size_t>(segment.outcome)] += segment.length;
            }
        }
        manifest_.sync();
    }

    const Device &device_;
    const DataPlan &plan_;
    const Target &target_;
    Manifest &manifest_;
    std::shared_mutex sizes_;
    std::vector<Copier> copiers_;
    std::mutex counts_; /* of the progress */
    Progress progress_;
    std::array<uint64_t, OUTCOMES> bytes_{}; /* by outcome */
};

void require_room(const DataPlan &plan, const Target &target)
{
    const uint64_t needed = add_limited(plan.bytes(), plan.pieces().size() * MANIFEST_PIECE);
    const uint64_t room = target.room();
    if (needed > room) {
        throw std::runtime_error(fmt::format("{} has room for {} bytes, and {} are to be salvaged",
                                             target.path(), room, needed));
    }
}

void tell_conflicts(const DataPlan &plan)
{
    const std::string_view table = plan.table().name;
    size_t told = 0;
    for (const auto &[no, other] : plan.conflicts()) {
        if (told++ == CONFLICTS_TOLD) {
            complain(fmt::format("{} more conflicts: see the manifest",
                                 plan.conflicts().size() - CONFLICTS_TOLD));
            return;
        }
        complain(fmt::format("{} {} and {} hold the same place of a file: what {} has of it is "
                             "in a file of the same name with .conflict-{}",
                             table, other, no, no, no));
    }
}

/* Bytes of pieces where an image has nothing: whatever the device had there, they read as zeros. */
uint64_t bytes_in_holes(const Device &device, const DataPlan &plan)
{
    Holes holes(device.fd());
    uint64_t bytes = 0;
    for (const DataPiece &piece : plan.pieces()) {
        if (tier_add(piece.start, piece.length) <= device.size() &&
            holes.cover(static_cast<int64_t>(piece.start), piece.length)) {
            bytes += piece.length;
        }
    }
    return bytes;
}

/* Whether nothing is lost. */
bool tell_losses(const SalvageOptions &options, const Device &device, const DataPlan &plan,
                 const Salvage &salvaged)
{
    /* With a mapfile what is not there cannot be read. */
    const uint64_t holes = options.mapfile.empty() ? bytes_in_holes(device, plan) : 0;
    const std::string see = fmt::format("see {}/{}", options.directory, Manifest::NAME);
    const std::pair<uint64_t, std::string> losses[] = {
        {salvaged.bytes(Outcome::unreadable),
         fmt::format("{} bytes cannot be read: {}", salvaged.bytes(Outcome::unreadable), see)},
        {salvaged.bytes(Outcome::unplaced),
         fmt::format("{} bytes belong where no file can have them: {}",
                     salvaged.bytes(Outcome::unplaced), see)},
        {salvaged.bytes(Outcome::too_large),
         fmt::format("{} bytes lie past the end of the largest file that {} takes, by its file "
                     "system or a limit (ulimit -f): {}; salvage --resume tries them again",
                     salvaged.bytes(Outcome::too_large), options.directory, see)},
        {holes, fmt::format("{} bytes are holes of {}, and so zeros here: a saved file has no "
                            "data, and a copy of ddrescue needs its --mapfile",
                            holes, options.device)},
    };
    bool is_complete = plan.tell_unknown();
    for (const auto &[count, text] : losses) {
        if (count != 0) {
            complain(text);
            is_complete = false;
        }
    }
    return is_complete;
}

} // namespace

bool salvage(const SalvageOptions &options)
{
    const DataChoice choice = choose(options);
    const Device device(options.device, Access::read_only, options.mapfile);
    hint_in_use(options.device);
    const Metadata metadata = read_metadata(device, options.super_file);
    for (const OwnerFilter &filter : choice.filters) {
        find_table(metadata.tables, filter.table);
    }
    Target target(options.directory, options.resume, options.device);
    const DataPlan plan(device, metadata, choice);
    if (target.is_empty()) {
        require_room(plan, target);
    } else if (!target.has(Manifest::NAME)) {
        throw std::runtime_error(target.path() + " is no directory of a salvage");
    }
    target.create();
    Manifest manifest(target, head_text(options, device, metadata));
    Salvage salvaged(device, plan, target, manifest);
    const size_t done =
        manifest.resume(plan, [&salvaged](const Segment &segment) { salvaged.count(segment); });
    try {
        salvaged.run(done);
    } catch (const std::runtime_error &error) {
        throw std::runtime_error(
            fmt::format("{}; salvage --resume goes on from here", error.what()));
    }
    if (plan.pieces().empty() && !choice.filters.empty()) {
        complain("nothing is held of what --brick or --inode names");
    }
    tell_conflicts(plan);
    plan.tell_contradictions();
    const bool is_complete = tell_losses(options, device, plan, salvaged);
    const uint64_t copied = salvaged.bytes(Outcome::copied);
    const uint64_t files = plan.files();
    complain(fmt::format("copied {}{} of {} {}", bytes_text(copied),
                         text_if(copied < 1024, " bytes"), files, files == 1 ? "file" : "files"));
    return is_complete;
}

} // namespace tierctl
