#pragma once

#include "common/zutr_utils.h"
#include "zu_tierctl/salvage/manifest.h"

#include <cstdint>
#include <shared_mutex>
#include <span>
#include <vector>

namespace tierctl {

/* Copies pieces from the device into their files. Several work at once, each in a thread of its
 * own. */
class Copier {
public:
    /* What all copiers share must outlive them. */
    Copier(const Device &device, const DataPlan &plan, const Target &target,
           std::shared_mutex &sizes);

    /* How many of these pieces, from the first on, are read at once: those that follow one another
     * on the device, up to 1 MiB; at least one. */
    static size_t joined(std::span<const DataPiece> pieces);

    /* Copies pieces that are read at once; `to` takes what became of each. Throws when a file
     * cannot be written. */
    void copy(std::span<const DataPiece> pieces, std::span<std::vector<Segment>> to);

private:
    std::vector<Segment> copy_piece(const DataPiece &piece, const uint8_t *data);
    void copy_run(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length);
    bool read(const DataPiece &piece, uint64_t at, uint64_t length);
    void put(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length,
             const uint8_t *data);
    Outcome write(const DataPiece &piece, const Fd &file, uint64_t at, uint64_t length,
                  const uint8_t *data);
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
