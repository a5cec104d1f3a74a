// Conversions of super blocks on devices that cannot be read everywhere, and short of memory.

#include "conversion.h"
#include "faulty_run.h"

#include <algorithm>
#include <iterator>

using namespace tier_test;

namespace {

class ConversionFaults : public SuperConversion {
protected:
    static constexpr const char *PROBE = "verify_map_cnt";

    ConversionFaults() { set_cache(cache(262144, 16384, 3 * PROBED_EXTENTS)); }

    std::int64_t mib(int number) const { return table() + number * static_cast<std::int64_t>(MIB); }

    LogLine unreadable(int number) const
    {
        return debug_line(PROBE, text("read extent failed:-1, offset:%ld", mib(number)));
    }

    FaultyRun run(const std::string &faults, const std::vector<std::string> &args = {}) const
    {
        return run_faulty(device, "convert_super", faults, arguments(old_file(super).text(), args));
    }

    void expect_converted(const std::string &faults, const Log &lines,
                          const std::vector<std::string> &taken)
    {
        SCOPED_TRACE(faults);
        const std::vector<std::uint8_t> before = device.bytes();
        const FaultyRun seen = run(faults, {"-y"});
        expect_run(seen, {.status = 0, .out = json(super), .log = log_with(super, lines)});
        EXPECT_EQ(seen.taken, taken);
        EXPECT_EQ(device.bytes(), before);
    }

    // Every candidate fails in the same way, with this error in the end.
    void expect_nothing_found(const std::string &faults, const Log &each, int error)
    {
        SCOPED_TRACE(faults);
        Log lines;
        for (std::uint32_t map_cnt = 16; map_cnt <= 64; ++map_cnt)
            std::ranges::copy(each, std::back_inserter(lines));
        expect_run(run(faults),
                   {.status = 22, .out = "", .log = log_with(super, failed(lines, error))});
    }

    // The file is not loaded.
    void expect_load_failure(const std::string &faults, const Log &lines, int status,
                             const std::string &reason)
    {
        SCOPED_TRACE(faults);
        Log log{settings_line(device, "convert_super", {.spec_ver = 2, .repair_conf = conf()})};
        std::ranges::copy(lines, std::back_inserter(log));
        log.push_back(error_line("zutr_convert_super_v2", text("load repair conf %s failed:%s",
                                                               conf().c_str(), reason.c_str())));
        expect_run(run(faults), {.status = status, .out = "", .log = log});
    }
};

TEST_F(ConversionFaults, TableIsReadOnceForAllCandidates)
{
    SuperV2 sb = super;
    set_maps(sb, 20);
    set_cache(sb);
    Log lines{probe_read(table())};
    std::ranges::copy(mismatches(16, 20), std::back_inserter(lines));
    lines.push_back(map_cnt_found(20));
    expect_converted("pread=pass;pwrite=pass", lines, {traced("pread", MIB, table(), "pass")});
}

TEST_F(ConversionFaults, FirstMiBThatCanBeReadIsTaken)
{
    for (const std::string effect : {"EIO", "short:0"})
        expect_converted(
            text("pread@%ld+4096=%s;pread=pass", mib(0), effect.c_str()),
            {unreadable(0), probe_read(mib(1)), map_cnt_found(16)},
            {traced("pread", MIB, mib(0), effect), traced("pread", MIB, mib(1), "pass")});
    expect_converted(text("pread@%ld+%lu=EIO;pread=pass", mib(0), MIB + 1),
                     {unreadable(0), unreadable(1), probe_read(mib(2)), map_cnt_found(16)},
                     {traced("pread", MIB, mib(0), "EIO"), traced("pread", MIB, mib(1), "EIO"),
                      traced("pread", MIB, mib(2), "pass")});
}

TEST_F(ConversionFaults, ReadsAreRepeatedAndContinued)
{
    expect_converted(
        text("pread@%ld+4096#1-2=EINTR;pread@%ld+4096#1=EAGAIN;pread=pass", mib(0), mib(0)),
        {probe_read(mib(0)), map_cnt_found(16)},
        {traced("pread", MIB, mib(0), "EINTR"), traced("pread", MIB, mib(0), "EINTR"),
         traced("pread", MIB, mib(0), "EAGAIN"), traced("pread", MIB, mib(0), "pass")});
    expect_converted("pread#1=short:8192;pread=pass", {probe_read(mib(0)), map_cnt_found(16)},
                     {traced("pread", MIB, mib(0), "short:8192"),
                      traced("pread", MIB - 8192, mib(0) + 8192, "pass")});
}

TEST_F(ConversionFaults, NothingCanBeRead)
{
    Log each;
    int number = 0;
    for (; mib(number) < static_cast<std::int64_t>(super.data_offset); ++number)
        each.push_back(unreadable(number));
    each.push_back(error_line(PROBE, text("all extent area read failed:-1, offset:%ld, end:%lu",
                                          mib(number), super.data_offset)));
    expect_nothing_found("pread=EIO", each, 5);
}

TEST_F(ConversionFaults, BufferThatWasGivenBackIsAskedForAgain)
{
    // All reads for the first two candidates fail.
    const auto reads =
        static_cast<int>((super.data_offset - static_cast<std::uint64_t>(table()) + MIB - 1) / MIB);
    Log lines;
    for (int candidate = 0; candidate < 2; ++candidate) {
        for (int number = 0; number < reads; ++number)
            lines.push_back(unreadable(number));
        lines.push_back(
            error_line(PROBE, text("all extent area read failed:-1, offset:%ld, end:%lu",
                                   mib(reads), super.data_offset)));
    }
    // The extents have 16 records: the third candidate and those after it do not fit.
    lines.push_back(probe_read(mib(0)));
    std::ranges::copy(mismatches(18, 65), std::back_inserter(lines));
    expect_run(run(text("pread#1-%d=EIO", 2 * reads)),
               {.status = 22, .out = "", .log = log_with(super, failed(lines))});
}

TEST_F(ConversionFaults, NoMemoryForTheProbe)
{
    expect_nothing_found("posix_memalign(1048576)=ENOMEM",
                         {error_line(PROBE, "posix memalign failed:12")}, 12);
}

TEST_F(ConversionFaults, NoMemoryForTheBlock)
{
    expect_run(
        run("posix_memalign(4096)=ENOMEM"),
        {.status = 12,
         .out = "",
         .log = {settings_line(device, "convert_super", {.spec_ver = 2, .repair_conf = conf()}),
                 error_line("zutr_convert_super_v2", "posix memalign failed:12")}});
}

TEST_F(ConversionFaults, FileThatCannotBeReadWhole)
{
    struct Case {
        const char *fault;
        const char *reason; // of the read
        const char *result; // of the loading
        int status;
    };
    for (const Case &each :
         {Case{"fread=EIO", "Input/output error", "Input/output error", 5},
          Case{"fread=ENOMEM", "Cannot allocate memory", "Cannot allocate memory", 12},
          Case{"fread=short:3", "Success", "Input/output error", 5}})
        expect_load_failure(each.fault,
                            {error_line("zutr_json_load", text("fread failed:%s, path:%s",
                                                               each.reason, conf().c_str()))},
                            each.status, each.result);
}

TEST_F(ConversionFaults, NoMemoryForTheFile)
{
    const std::size_t length = old_file(super).text().size();
    expect_load_failure(text("malloc(%zu)=ENOMEM", length + 1), {}, 12, "Cannot allocate memory");
}

TEST_F(ConversionFaults, NoMemoryForAnExpansionSlot)
{
    set_expansion(super, 153600, true);
    const FaultyRun seen = run("posix_memalign(4096)#2=ENOMEM");
    EXPECT_EQ(seen.status, 22);
    ASSERT_EQ(seen.errors.size(), 4U) << seen;
    EXPECT_EQ(seen.errors[0], error_line("__check_exp_inode", "posix memalign failed: 12"));
    EXPECT_EQ(seen.errors[1],
              error_line("__repair_super_exp_inode",
                         "exp check inode format failed, exp_inode_size: 153600 cmd: 15"));
}

// The end of the extents has not been checked yet: the probe goes over the table and 1 GiB more.
TEST_F(ConversionFaults, DataFarBehindTheExtents)
{
    set_cache(cache(4194304, 65536)); // 64 pieces: one candidate
    super.data_offset = std::uint64_t{1} << 62;
    const std::uint64_t reads = (super.block_cnt * BLOCK_SIZE + 1024 * MIB) / MIB;
    Log lines;
    for (int number = 0; number < static_cast<int>(reads); ++number)
        lines.push_back(unreadable(number));
    lines.push_back(error_line(PROBE, text("all extent area read failed:-1, offset:%ld, end:%lu",
                                           mib(static_cast<int>(reads)), super.data_offset)));
    expect_run(run("pread=EIO"),
               {.status = 22, .out = "", .log = log_with(super, failed(lines, 5))});
}

} // namespace
