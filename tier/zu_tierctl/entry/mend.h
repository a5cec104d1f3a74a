#pragma once

#include "zu_tierctl/entry/metadata.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* Damaged entries mended by their checksum, which is a correcting code: turned bits change it in a
 * way that tells which they are. Nothing is known of bits that the checksum does not cover. */

enum class Certainty {
    certain, /* one bit, and the entry named itself right as it was: magic, number, version */
    likely,  /* two bits, or one of what names the entry */
    none,
};

/* "certain", "likely", "none" */
std::string_view certainty_name(Certainty certainty);

struct Mended {
    Certainty certainty = Certainty::none;
    Block block{};              /* the slot with the bits turned back */
    std::vector<size_t> bits{}; /* that were turned: byte * 8 + bit of the slot; bit 0 is the lowest
                                   of its byte */
};

/* The slot of entry `no` mended by its checksum; `none`: it is sound, or nothing explains it. Not
 * for several threads at once: it keeps tables from one call to the next. */
Mended mend(const Metadata &metadata, const Table &table, uint64_t no, const Block &slot);

/* A sentence for each bit, one after the other turned in the slot as it was: "bi_brickid[5]: '`' is
 * 'a' with bit 0 turned". Bytes of a text or an identity are counted from 0, bits from the lowest
 * of the number or byte that is shown. */
std::vector<std::string> mend_texts(const Metadata &metadata, const Table &table, uint64_t no,
                                    const Block &slot, const Mended &mended);

/* "one flipped bit explains it", for one or two bits. */
std::string explained_text(size_t bits, std::string_view what = "it");

} // namespace tierctl
