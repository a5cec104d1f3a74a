#pragma once

// Loaded before the C library (LD_PRELOAD): lets chosen calls of a program fail or come up short.
//
//   ZUTR_FAULTS = item { ";" item }
//   item   = "trace:" path
//          | call [ "(" size [ "-" size ] ")" ] [ "@" offset "+" length ] [ "#" from [ "-" [to] ] ]
//            "=" effect
//   call   = "pread" | "pwrite" | "posix_memalign" | "aligned_alloc" | "malloc" | "calloc"
//          | "realloc" | "open" | "close" | "stat" | "fstat" | "fopen" | "fread" | "fclose"
//          | "fsync" | "syncfs" | "write" | "tmpfile" | "link" | "linkat" | "renameat2"
//          | "blkid_device" | "blkid_value" | "io_setup" | "io_submit" | "io_getevents" | "aio"
//   effect = "EIO" | "EINTR" | "EAGAIN" | "ENOSPC" | "ENOMEM" | "EPERM" | "EINVAL"
//          | "EOPNOTSUPP" | "EFBIG" | "ENOSYS" | "short:" bytes | "lost" | "late:" milliseconds
//          | "kill" | "pass"
//
// (size)   only calls for that many bytes, or for a number in that range
// @o+l     only device calls that touch one of the `length` bytes from `offset` of the device
// #n       only the n-th of the calls that the item takes otherwise, counted from 1; #n-m, #n-
//
// The first item that takes a call decides; those after it do not count the call. An error fails
// the call without an effect, except that close and fclose close all the same. "short:" moves at
// most that many bytes, so "short:0" is the end of the device for a read, and a write that moved
// nothing. "lost" moves nothing and says that it moved all. "late:" lets a read take that much
// longer. "kill" kills the program before the call. "pass" changes nothing. With "trace:" each call
// that an item took is appended to the file, one line in the form "pread(4096)@8192=EIO", the
// offset only for device calls.
//
// "tmpfile" is an open of a file without a name (O_TMPFILE), which is no "open" here.
//
// A read that is queued in the kernel (io_submit) is a "pread", too: an item that takes it decides
// what the program is told of it, and where that is no success its memory holds garbage. "aio" is
// such a read alone, where no "pread" takes it. Of the reads that are done the program learns out
// of order.
//
// "blkid_device" gives a device to libblkid, "blkid_value" asks what the library has found.
//
// "write" stands for the writes of standard output and of the files that the program opens as
// streams to write to: what the C library does with the bytes that it has collected.
//
// Numbers are in the usual C notations. An item that cannot be understood ends the program.

#include <cstddef>
#include <cstdint>
#include <limits>

namespace zutr_faults {

constexpr std::uint64_t NO_LIMIT = std::numeric_limits<std::uint64_t>::max();

struct Range {
    std::uint64_t first = 0;
    std::uint64_t last = NO_LIMIT;

    bool holds(std::uint64_t value) const { return value >= first && value <= last; }
};

struct Item {
    char call[16] = "";
    Range size{};
    Range bytes{};
    Range turns{};
    int error = 0;                    // 0: none
    std::uint64_t at_most = NO_LIMIT; // bytes moved
    bool lost = false;                // none are
    std::uint64_t late = 0;           // milliseconds
    const char *effect = "";          // as it was written
    std::size_t effect_length = 0;
    std::uint64_t seen = 0;
};

// Whether an item is about that call.
bool is_wanted(const char *call);

// The item that takes the call, or null.
const Item *take(const char *call, std::uint64_t size = 0, bool on_device = false,
                 std::uint64_t offset = 0);

} // namespace zutr_faults
