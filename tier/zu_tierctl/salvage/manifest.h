#pragma once

#include "zu_tierctl/salvage/plan.h"
#include "zu_tierctl/salvage/target.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* What became of bytes of a piece. */
enum class Outcome {
    copied,
    unreadable,
    unplaced,  /* no file can have bytes there */
    too_large, /* no file of the target can, by its file system or a limit */
};

constexpr size_t OUTCOMES = 4;

/* Bytes of a piece that follow one another and had the same fate. */
struct Segment {
    uint64_t at; /* first byte of the piece */
    uint64_t length;
    Outcome outcome;
    uint32_t crc; /* CRC-32 of the bytes, when they were copied */
};

/* The file that says what a salvage has done: a line of JSON for the device and the choice, then
 * one for each segment, in the order of the plan. A segment is in it only when its bytes are on the
 * disk. */
class Manifest {
public:
    static constexpr char NAME[] = "manifest.ndjson";

    /* Opens that of the target, and locks it until the end. `head` is its first line: that of a
     * salvage which goes on must say the same but for the path of the device. Throws, also when
     * another salvage has the lock; then nothing is changed. */
    Manifest(const Target &target, const std::string &head);

    /* Reads what is done: calls `use` with each segment of the pieces that are complete, up to the
     * first of a file that was too large, and cuts off the rest. Gives the number of these pieces,
     * the first of the plan. Throws when the segments are not those of the plan. */
    size_t resume(const DataPlan &plan, const std::function<void(const Segment &)> &use);

    /* Adds the line of a segment. */
    void add(const DataPlan &plan, const DataPiece &piece, const Segment &segment);

    /* Waits until all lines are on the disk. */
    void sync();

private:
    [[noreturn]] void refuse(uint64_t line) const;
    void write();

    const Target &target_;
    Fd fd_;
    uint64_t end_ = 0;      /* where the next line goes */
    uint64_t head_end_ = 0; /* where the first line ends */
    std::string text_;      /* lines not yet written */
};

} // namespace tierctl
