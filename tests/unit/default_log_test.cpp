// The log file for runs that name none. Its directory must not be made on the machine that tests,
// so the process looks at another root for a moment.

#include "in_process.h"
#include "zu_tier/record/log.h"

#include <unistd.h>

using namespace tier_test;

namespace {

// For as long as the object lives, paths begin at `directory`.
class OtherRoot {
public:
    explicit OtherRoot(const TempDir &directory)
        : entered_(own_ >= 0 && chroot(directory.path("").c_str()) == 0)
    {
    }
    ~OtherRoot()
    {
        if (entered_ && (fchdir(own_) != 0 || chroot(".") != 0))
            std::abort(); // the other tests would be lost
        if (fchdir(working_) != 0)
            std::abort();
        close(own_);
        close(working_);
    }
    OtherRoot(const OtherRoot &) = delete;
    OtherRoot &operator=(const OtherRoot &) = delete;

    bool entered() const { return entered_; }

private:
    int own_ = open("/", O_RDONLY | O_CLOEXEC);
    int working_ = open(".", O_RDONLY | O_CLOEXEC);
    bool entered_;
};

TEST(DefaultLog, IsOpenedAsSoonAsItsDirectoryIsThere)
{
    const TempDir directory;
    ASSERT_FALSE(zutr_set_log_file(directory.path("no/log").c_str()));
    bool entered = false;
    FILE *without = nullptr;
    FILE *with = nullptr;
    {
        const OtherRoot root(directory);
        entered = root.entered();
        if (entered) {
            without = zutr_get_logger();
            std::filesystem::create_directories("/kd/log/zu");
            with = zutr_get_logger();
            zutr_debug("first", "%d", 1);
            fflush(with);
        }
    }
    if (!entered)
        GTEST_SKIP() << "only root changes the root";
    EXPECT_EQ(without, nullptr);
    ASSERT_NE(with, nullptr);
    EXPECT_EQ(zutr_get_logger(), with);
    EXPECT_TRUE(zutr_is_log(with));
    zutr_debug("second", "%d", 2);
    EXPECT_FALSE(zutr_set_log_file(directory.path("no/log").c_str())); // closes it
    EXPECT_EQ(parse_log(directory.read("kd/log/zu/zu_tier.log")),
              (Log{debug_line("first", "1"), debug_line("second", "2")}));
}

} // namespace
