// Linked into the programs of the coverage build: saves what a run has counted, also of one that
// ends in a failed assertion or may not write large files. A run touches few of the sources, and
// most of a short one would go into the files of the others: these are left alone.

#include <csignal>
#include <cstdint>
#include <sys/resource.h>

extern "C" {
#include <gcov.h>
}

/* Puts these on the list that __gcov_dump saves. */
extern "C" void __gcov_init(gcov_info *counts);

/* Where the linker has gathered the counts of each source. */
extern "C" gcov_info *const __start_counts[];
extern "C" gcov_info *const __stop_counts[];

namespace {

/* Reads the words of a .gcda file as they are made: after four words of its own, records of a tag,
 * a length in bytes and as many bytes; counters that are all zero have no bytes, and their length
 * is negative. */
class Records {
public:
    void take(uint32_t word)
    {
        if (skipped_ > 0) {
            skipped_--;
        } else if (tag_ == 0) {
            tag_ = word;
        } else {
            const auto length = static_cast<int32_t>(word);
            skipped_ = length > 0 ? length / 4 : 0;
            has_counts_ |= tag_ == COUNTERS && length > 0;
            tag_ = 0;
        }
    }

    bool has_counts() const { return has_counts_; }

private:
    static constexpr uint32_t COUNTERS = 0x01a10000;

    int32_t skipped_ = 4;
    uint32_t tag_ = 0;
    bool has_counts_ = false;
};

bool has_counts(const gcov_info *counts)
{
    Records records;
    __gcov_info_to_gcda(
        counts, [](const char *, void *) {},
        [](const void *data, unsigned length, void *to) {
            for (unsigned i = 0; i < length / 4; i++) {
                static_cast<Records *>(to)->take(static_cast<const uint32_t *>(data)[i]);
            }
        },
        nullptr, &records);
    return records.has_counts();
}

void save_counts()
{
    for (gcov_info *const *counts = __start_counts; counts != __stop_counts; counts++) {
        if (has_counts(*counts)) {
            __gcov_init(*counts);
        }
    }
    __gcov_dump();
}

[[gnu::constructor]] void save_counts_at_abort()
{
    std::signal(SIGABRT, [](int) { save_counts(); });
}

// After all that the program writes by itself.
[[gnu::destructor]] void save_counts_at_the_end()
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_FSIZE, &limit);
    save_counts();
}

} // namespace
