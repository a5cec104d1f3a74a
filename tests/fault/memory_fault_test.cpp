// Memory that is refused, and repair files that cannot be read to their end.

#include "expect.h"
#include "faulty_run.h"
#include "v1_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class MemoryFaults : public testing::Test {
protected:
    SuperV1 super = super_v1(1, 1, 1);

    Device make_device() const
    {
        return make_v1_device(super, {brick_used(0)}, {}, {extent_used(0, 0)});
    }

    // Under this fault, which takes one call, the run prints nothing and leaves the device alone.
    static void expect_failure(const Device &device, const std::string &command,
                               const std::string &fault, const std::vector<std::string> &args,
                               int status, const Log &log)
    {
        SCOPED_TRACE(command + ' ' + fault);
        const std::vector<std::uint8_t> bytes = device.bytes();
        const FaultyRun run = run_faulty(device, command, fault, args);
        expect_run(run, {.status = status, .out = "", .log = log});
        EXPECT_EQ(run.taken.size(), 1U) << testing::PrintToString(run.taken);
        EXPECT_EQ(device.bytes(), bytes);
    }
};

TEST_F(MemoryFaults, SuperBlock)
{
    const Device device = make_device();
    expect_failure(device, "dump_super", "posix_memalign(4096)#1=ENOMEM", {}, 5,
                   {error_line("zutr_prepare_param", text("read super failed. path:%s, ret: -12, "
                                                          "errno: Cannot allocate memory",
                                                          device.path().c_str()))});
}

TEST_F(MemoryFaults, BufferOfTheDumpDriver)
{
    const Device device = make_device();
    const std::string fault = "posix_memalign(1048576)=ENOMEM";
    expect_failure(device, "dump_brick", fault, {}, 12,
                   {settings_line(device, "dump_brick"),
                    error_line("zutr_dump_common", "posix memalign failed:12, bi_no:-1")});
    expect_failure(device, "dump_extent", fault, {"-n", "0"}, 12,
                   {settings_line(device, "dump_extent", {.meta_no = 0}),
                    error_line("zutr_dump_common", "posix memalign failed:12, te_no:0")});
}

TEST_F(MemoryFaults, BitmapText)
{
    super.extent_size = 4096;
    const Device device = make_device();
    // Three characters for each of 4040 bytes, and room for a terminator.
    const std::string fault = "calloc(12120-12121)=ENOMEM";
    const std::string conf = device.directory().write("conf", "{\"te_no\":0,\"te_use\":0}");
    const std::vector<std::uint8_t> bytes = device.bytes();
    for (const auto &[command, args] :
         {std::pair{std::string("dump_extent"), std::vector<std::string>{}},
          std::pair{std::string("repair_extent"), std::vector<std::string>{"-f", conf, "-y"}}}) {
        const FaultyRun run = run_faulty(device, command, fault, args);
        expect_abort(run, "buff");
        EXPECT_EQ(run.taken.size(), 1U);
        EXPECT_EQ(device.bytes(), bytes);
    }
}

class RepairFileFaults : public MemoryFaults {
protected:
    // 700 characters in one text, so that neither it nor the file has a common size.
    const std::string content = text("{\"i_no\":0,\"i_use\":0,\"%0700d\":\"%0700d\"}", 0, 0);
    const Device device = make_device();
    const std::string path = device.directory().write("conf", content);

    // The repair fails with status 22 after the lines of the loading.
    void expect_load_failure(const std::string &fault, const std::string &reason,
                             const Log &loading = {}) const
    {
        Log log{settings_line(device, "repair_inode", {.repair_conf = path})};
        log.insert(log.end(), loading.begin(), loading.end());
        log.push_back(error_line("zutr_repair_common", text("load repair conf %s failed:%s",
                                                            path.c_str(), reason.c_str())));
        expect_failure(device, "repair_inode", fault, {"-y", "-f", path}, 22, log);
    }
};

TEST_F(RepairFileFaults, BlockOfTheRepairDriver)
{
    expect_failure(device, "repair_inode", "posix_memalign(4096)#2=ENOMEM", {"-y", "-f", path}, 12,
                   {settings_line(device, "repair_inode", {.repair_conf = path}),
                    error_line("zutr_repair_common", "posix memalign failed:12")});
}

TEST_F(RepairFileFaults, TextOfTheFile)
{
    expect_load_failure(text("malloc(%zu)=ENOMEM", content.size() + 1), "Cannot allocate memory");
}

TEST_F(RepairFileFaults, MemoryOfTheJsonLibrary)
{
    expect_load_failure(
        "malloc(700-704)=ENOMEM", "Invalid argument",
        {error_line("zutr_json_load", text("cJSON_Parse failed, path:%s", path.c_str()))});
}

// The text of a number is kept; the library takes as much memory for it while it reads the file.
TEST_F(RepairFileFaults, MemoryOfANumber)
{
    const std::string number = text("[%0650d,0]", 0);
    device.directory().write("conf", "{\"i_no\":0,\"list\":" + number + ",\"i_use\":0}");
    const std::string memory = text("malloc(%d)", 650 + 1);
    const FaultyRun counted = run_faulty(device, "repair_inode", memory + "=pass", {"-f", path});
    ASSERT_FALSE(counted.taken.empty());
    const std::vector<std::uint8_t> bytes = device.bytes();
    const FaultyRun run =
        run_faulty(device, "repair_inode",
                   text("%s#%zu=ENOMEM", memory.c_str(), counted.taken.size()), {"-f", path, "-y"});
    expect_run(run, {.status = 22,
                     .log = {settings_line(device, "repair_inode", {.repair_conf = path}),
                             error_line("zutr_repair_common",
                                        text("load repair conf %s failed:Cannot allocate memory",
                                             path.c_str()))}});
    EXPECT_EQ(device.bytes(), bytes);
}

TEST_F(RepairFileFaults, FileThatCannotBeMeasured)
{
    expect_load_failure("fstat=EIO", "Input/output error");
}

TEST_F(RepairFileFaults, FileThatEndsTooEarly)
{
    for (const int bytes : {0, 1, 1000})
        expect_load_failure(
            text("fread=short:%d", bytes), "Input/output error",
            {error_line("zutr_json_load", text("fread failed:Success, path:%s", path.c_str()))});
}

TEST_F(RepairFileFaults, FileThatCannotBeRead)
{
    expect_load_failure(
        "fread=EIO", "Input/output error",
        {error_line("zutr_json_load",
                    text("fread failed:Input/output error, path:%s", path.c_str()))});
    expect_load_failure(
        "fread=ENOMEM", "Cannot allocate memory",
        {error_line("zutr_json_load",
                    text("fread failed:Cannot allocate memory, path:%s", path.c_str()))});
}

} // namespace
