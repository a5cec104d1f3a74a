#include "common/zutr_utils.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>

/* Reads a region of a device in units of 1 MiB and does nothing with it: what no walk can beat.
 *
 *   bare_reads DEVICE OFFSET LENGTH */

int main(int argc, char *argv[])
{
    zutr_buffer buffer;
    if (argc != 4 || zutr_alloc_aligned(SIZE_1M, &buffer) != 0) {
        fprintf(stderr, "usage: bare_reads DEVICE OFFSET LENGTH\n");
        return 2;
    }
    const int fd = open(argv[1], O_RDONLY | O_DIRECT);
    const int64_t begin = atoll(argv[2]);
    const int64_t end = begin + atoll(argv[3]);
    for (int64_t offset = begin; offset < end; offset += SIZE_1M) {
        const auto len = static_cast<size_t>(end - offset < SIZE_1M ? end - offset : SIZE_1M);
        if (zutr_readn(fd, buffer.get(), len, offset) != static_cast<ssize_t>(len)) {
            perror(argv[1]);
            return 1;
        }
    }
    return 0;
}
