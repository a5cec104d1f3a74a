#pragma once

#include "zu_tierctl/entry/mend.h"
#include "zu_tierctl/entry/metadata.h"
#include "zu_tierctl/plan/text_sum.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* A plan of repairs as a file: a header in its first line, then a step in each line, all JSON. An
 * operator reads it, and takes steps out with an editor. */

/* How the block of a step is made. */
enum class Action {
    mend,    /* wrong bits of the entry turned back */
    copy,    /* the entry of a saved file */
    restore, /* an inode to which nothing belongs any more gets its identity back */
    free,    /* what refers to an owner that does not exist becomes free */
    leave,   /* no block: the reason says why there is none */
};

/* Its name in the file: "mend". */
std::string_view action_name(Action action);

/* What is to become of a slot. Of an action "leave" only table, no, offset and reason count. */
struct Step {
    std::string table;
    uint64_t no;             /* of the slot */
    int64_t offset;          /* of the slot, bytes */
    uint32_t crc = 0;        /* CRC-32 (zutr_crc32) of all 4096 bytes of the block as it is */
    bool unreadable = false; /* the block cannot be read: `crc` says nothing */
    Action action = Action::leave;
    Certainty certainty = Certainty::none;
    std::optional<std::string> keys{}; /* a repair file that makes every byte of the block, */
    std::optional<uint32_t> makes{};   /* with this CRC-32 of all 4096 bytes */
    std::optional<KeptBlock> block{};  /* the block; not of a step with keys that was read */
    std::string reason{};
    std::string lost{}; /* what the step gives up; empty: nothing */
    uint64_t line = 0;  /* of the file that it was read from; the header is line 1 */
};

struct Plan {
    std::string layout;
    uint64_t size; /* of the device, bytes */
    Block super_block;
    std::vector<Step> steps;
    TextSum text{}; /* of the file that it was read from */
};

/* The first line of the file. `release` is that of the program and `device` a path; both are for
 * people only. */
std::string plan_header_line(const Plan &plan, std::string_view release, std::string_view device);

/* The line of a step. `fields` shows the block of a step without keys, as a JSON object. */
std::string step_line(const Step &step, std::string_view fields);

/* Throws unless the table has such a slot, and it lies there. */
void require_slot(const Table &table, uint64_t no, int64_t offset);

/* Throws unless that is the place of a block of a device of so many bytes, and not that of its
 * super block. */
void require_writable(uint64_t size, int64_t offset);

/* Takes a file piece by piece. */
using TakeText = std::function<void(std::string_view piece)>;

/* Reads a plan, once, and gives the file's text to `take` on the way. Every step has a slot and a
 * block of its own, which lies on the device where the super block of the header places it, and is
 * not that of the super block. Throws a sentence that names the line otherwise. */
Plan read_plan(
    const std::string &path, const TakeText &take = [](std::string_view) {});

} // namespace tierctl
