#pragma once

#include "zu_tierctl/entry/table.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tierctl {

using Severity = tier_severity;

/* "error" or "warning" */
const char *severity_name(Severity severity);

struct Kind {
    std::string name;
    Severity severity = Severity::error;
};

/* What a check finds about an entry, or about a run of them. */
struct Finding {
    Kind kind;
    std::string_view table;
    std::string_view unit; /* what `no` numbers: "entry", or "block" of packed entries */
    bool packed = false;   /* the table has blocks of packed entries */
    uint64_t no;
    uint64_t last;
    uint64_t count = 1; /* findings; there may be numbers between `no` and `last` without one */
    int64_t offset;     /* of the first on the device */
    uint64_t slot; /* number with which zu_tier shows the first; no meaning for the super block */
    uint64_t last_slot;

    /* Findings that follow one another by these numbers are joined: usually those of their entries.
     */
    uint64_t joins;
    uint64_t joins_end;

    bool unread = false;   /* the slots cannot be read */
    bool no_owner = false; /* the entry refers to one that does not exist */
    bool zero = false;     /* all bytes of each slot are zero */
    bool varied = false; /* the text is that of the first, the others differ in numbers and names */
    std::string text;
    uint64_t one_bit = 0; /* of the findings, those about an entry that one flipped bit explains, */
    uint64_t two_bits = 0; /* or two */
    /* The other entry that the finding is about: the one referred to, or the first that claims the
     * same; of no table: none. */
    std::string_view other_table{};
    uint64_t other = 0;

    std::string alike{}; /* what joined findings have in common; empty: the shape of the text */
};

/* What the finding is about: "inode 7", "inode 20..4047 (4028 findings)", "extent 1542 (block 3)",
 * "extent block 3". */
std::string about_text(const Finding &finding);

/* Its text, and what flipped bits explain: "its number is 9; one flipped bit explains it", of
 * several findings "each" or "3 of them". */
std::string finding_text(const Finding &finding);

} // namespace tierctl
