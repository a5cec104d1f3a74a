// The parameters of a run own what they name.

#include "in_process.h"

#include <unistd.h>

using namespace tier_test;

namespace {

bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

TEST(Params, CloseTheDeviceAndTheOutputOnce)
{
    const TempDir directory;
    const std::string path = directory.write("device", "");
    zutr_params_t params;
    zutr_params_init(&params);
    params.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    params.out_path = path.c_str();
    params.out_fp = fopen(path.c_str(), "re");
    const int device = params.fd;
    const int output = fileno(params.out_fp);
    zutr_params_fini(&params);
    EXPECT_FALSE(is_open(device));
    EXPECT_FALSE(is_open(output));
    zutr_params_fini(&params);
}

// Standard output stays open: no path belongs to it.
TEST(Params, LeaveStandardOutputOpen)
{
    zutr_params_t params;
    zutr_params_init(&params);
    params.out_fp = stdout;
    zutr_params_fini(&params);
    EXPECT_TRUE(is_open(STDOUT_FILENO));
}

} // namespace
