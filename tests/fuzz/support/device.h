#pragma once

#include "bytes.h"

#include <sys/types.h>

namespace tier_fuzz {

// Thrown to cut short a run that asks for more than a device in memory should serve: the tool would
// go on to the end of the table.
struct CutShort {};

// What goes wrong with the device, at the call `turn` (from 0) of its kind.
enum class Fault : std::uint8_t { none, read_error, read_short, read_again, write_error, COUNT };

// A device for direct access: blocks of 4096 bytes at places anywhere in 63 bits, each of them
// there once or several times in a row. Everything between them is unreadable or zero.
class Device {
public:
    void reset();
    // Later ones cover earlier ones. A place that no device has is passed over.
    void put(std::int64_t offset, View block, std::uint32_t times = 1);
    void fail(Fault fault, std::uint32_t turn);
    void make_holes_readable() { holes_readable_ = true; }

    // As pread and pwrite do.
    ssize_t read(void *to, std::size_t size, std::int64_t offset);
    ssize_t write(const void *from, std::size_t size, std::int64_t offset);

    struct Write {
        std::int64_t offset;
        std::size_t size;

        bool operator==(const Write &) const = default;
    };
    const std::vector<Write> &writes() const { return writes_; }

    // Whether both hold the same and have served the same number of blocks.
    bool operator==(const Device &) const = default;

private:
    struct Region {
        std::int64_t offset;
        std::int64_t end;
        Bytes block;

        bool operator==(const Region &) const = default;
    };

    const std::uint8_t *find(std::int64_t offset) const;
    bool strikes(Fault fault);

    std::vector<Region> regions_{};
    std::vector<Write> writes_{};
    bool holes_readable_ = false;
    Fault fault_ = Fault::none;
    std::uint32_t turn_ = 0;
    std::uint64_t effort_ = 0;
};

} // namespace tier_fuzz
