#pragma once

#include "common/zutr_utils.h"
#include "zu_tierctl/salvage/manifest.h"

#include <cstdint>
#include <shared_mutex>
#include <vector>

namespace tierctl {

/* Copies pieces from the device into their files. Several work at once, each in a thread of its
 * own. */
class Copier {
public:
    /* What all copiers share must outlive them. */
    Copier(const Device &device, const DataPlan &plan, const Target &target,
           std::shared_mutex &sizes);

    /* What became of the piece. Throws when its file cannot be written. */
    std::vector<Segment> copy(const DataPiece &piece);

private:
    void copy_run(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length);
    bool read(const DataPiece &piece, uint64_t at, uint64_t length);
    void put(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length);
    bool write(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length);
    void add(uint64_t at, uint64_t length, Outcome outcome);
    void grow(const Fd &file, uint64_t size);

    const Device &device_;
    const DataPlan &plan_;
    const Target &target_;
    std::shared_mutex &sizes_; /* shared while bytes are written, so that no file is cut short */
    zutr_buffer buffer_;
    std::vector<Segment> segments_;
};

} // namespace tierctl
