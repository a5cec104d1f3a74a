// The Debian package: installed into a root of its own, used there, and removed.

#include "run.h"
#include "temp_dir.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>
#include <unistd.h>

using namespace tier_test;
namespace fs = std::filesystem;

namespace {

// The one package that was built.
std::string package()
{
    std::vector<std::string> found;
    for (const auto &entry : fs::directory_iterator(PACKAGE_DIRECTORY))
        if (entry.path().extension() == ".deb")
            found.push_back(entry.path().string());
    EXPECT_EQ(found.size(), 1U);
    return found.at(0);
}

std::string field(const std::string &name)
{
    const RunResult run = run_program("/usr/bin/dpkg-deb", {"--field", package(), name});
    EXPECT_EQ(run.status, 0) << run;
    return run.out;
}

// What a program loads, by its paths.
std::vector<std::string> libraries(const std::string &path)
{
    const RunResult run = run_program("/usr/bin/ldd", {path});
    EXPECT_EQ(run.status, 0) << run;
    std::vector<std::string> found;
    std::istringstream words(run.out);
    for (std::string word; words >> word;)
        if (word.front() == '/')
            found.push_back(word);
    return found;
}

TEST(PackageFields, TheChangeLogIsOfThisVersion)
{
    const TempDir files;
    const RunResult extracted =
        run_program("/usr/bin/dpkg-deb", {"--extract", package(), files.path("")});
    EXPECT_EQ(extracted.status, 0) << extracted;
    const RunResult log =
        run_program("/bin/gzip", {"-dc", files.path("usr/share/doc/zu-tier/changelog.gz")});
    const std::string version = field("Version");
    EXPECT_TRUE(log.out.starts_with("zu-tier (" + version.substr(0, version.size() - 1) + ") "))
        << log;
}

// Errors and warnings of Debian's own check.
TEST(PackageFields, LintianFindsNothing)
{
    const RunResult run =
        run_program("/usr/bin/lintian", {"--allow-root", "--fail-on", "error,warning", package()});
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out, "");
}

// A system with nothing but the package manager's empty database.
class Package : public testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root may change the root directory";
        for (const char *name : {"info", "updates", "triggers"})
            fs::create_directories(at("var/lib/dpkg/" + std::string(name)));
        root_.write("var/lib/dpkg/status", "");
        before_ = files();
    }

    std::string at(const std::string &path) const { return root_.path(path); }

    void dpkg(const std::vector<std::string> &args) const
    {
        std::vector<std::string> all{"--root=" + at(""), "--force-depends",
                                     "--log=" + logs_.path("dpkg.log")};
        all.insert(all.end(), args.begin(), args.end());
        const RunResult run = run_program("/usr/bin/dpkg", all);
        ASSERT_EQ(run.status, 0) << run;
    }

    void install() const
    {
        dpkg({"--install", package()});
        for (const char *name : {"zu_tier", "zu_tierctl"})
            for (const std::string &library : libraries(at("usr/sbin/" + std::string(name))))
                copy(library);
    }

    // Runs a program of the root in it.
    RunResult run(const std::string &name, const std::vector<std::string> &args) const
    {
        std::vector<std::string> all{at(""), "/usr/sbin/" + name};
        all.insert(all.end(), args.begin(), args.end());
        return run_program("/usr/sbin/chroot", all);
    }

    // Everything but the database of the package manager and what was copied for the programs.
    std::set<std::string> files() const
    {
        std::set<std::string> found;
        for (const auto &entry : fs::recursive_directory_iterator(at(""))) {
            const std::string path = fs::relative(entry.path(), at("")).string();
            if (!path.starts_with("var") && !path.starts_with("lib"))
                found.insert(path);
        }
        return found;
    }

    const std::set<std::string> &before() const { return before_; }

private:
    void copy(const std::string &library) const
    {
        const std::string to = at(library.substr(1));
        fs::create_directories(fs::path(to).parent_path());
        fs::copy_file(library, to, fs::copy_options::overwrite_existing);
    }

    TempDir root_;
    TempDir logs_;
    std::set<std::string> before_;
};

TEST(PackageFields, NameWhatItNeeds)
{
    EXPECT_EQ(field("Package"), "zu-tier\n");
    EXPECT_EQ(field("Version") + "", run_program(ZU_TIERCTL, {"--version"}).out.substr(11));
    const std::string depends = field("Depends");
    for (const char *name : {"libc6 ", "libcjson1 ", "libuuid1 ", "libblkid1 ", "libaio1 ",
                             "libsqlite3-0 ", "libzstd1 ", "libstdc++6 "})
        EXPECT_NE(depends.find(name), std::string::npos) << name << " is not in " << depends;
}

TEST_F(Package, HasManualsCompletionRotationAndTheDirectoryOfTheLog)
{
    install();
    for (const char *path :
         {"usr/sbin/zu_tier", "usr/sbin/zu_tierctl", "usr/share/man/man8/zu_tier.8.gz",
          "usr/share/man/man8/zu_tierctl.8.gz", "usr/share/bash-completion/completions/zu_tier",
          "usr/share/bash-completion/completions/zu_tierctl",
          "usr/share/zsh/vendor-completions/_zu_tier",
          "usr/share/zsh/vendor-completions/_zu_tierctl", "usr/share/doc/zu-tier/README.md",
          "usr/share/doc/zu-tier/docs/operators.md", "usr/share/doc/zu-tier/changelog.gz",
          "usr/share/doc/zu-tier/copyright"})
        EXPECT_GT(fs::file_size(at(path)), 0U) << path;
    EXPECT_EQ(read_file(at("etc/logrotate.d/zu-tier")).find("/kd/log/zu/zu_tier.log {"), 0U);
    EXPECT_TRUE(fs::is_directory(at("kd/log/zu")));
}

TEST_F(Package, LinksBetweenDocumentsLeadSomewhere)
{
    install();
    const std::regex link(R"(\]\(([^)#]+)[^)]*\))");
    std::size_t links = 0;
    for (const auto &entry : fs::recursive_directory_iterator(at("usr/share/doc/zu-tier"))) {
        if (entry.path().extension() != ".md")
            continue;
        const std::string page = read_file(entry.path().string());
        for (std::sregex_iterator found(page.begin(), page.end(), link), end; found != end;
             ++found) {
            const std::string to = (*found)[1];
            EXPECT_TRUE(to.starts_with("https://") || fs::exists(entry.path().parent_path() / to))
                << entry.path() << " links " << to;
            links++;
        }
    }
    EXPECT_GE(links, 6U); // of README.md alone
}

TEST_F(Package, WorksFromWhereItIsInstalled)
{
    install();
    ASSERT_EQ(
        run("zu_tierctl", {"sample", "--layout", "v1", "--damage", "inode:7", "/tier.img"}).status,
        0);
    const RunResult super = run("zu_tier", {"-p", "/tier.img", "-c", "dump_super"});
    EXPECT_EQ(super.status, 0) << super;
    EXPECT_EQ(super.out, run_tool({"-p", at("tier.img"), "-c", "dump_super"}).out);

    const RunResult inode = run("zu_tier", {"-p", "/tier.img", "-c", "dump_inode", "-n", "7"});
    EXPECT_EQ(inode.status, 14) << inode;
    EXPECT_NE(read_file(at("kd/log/zu/zu_tier.log")).find("\"no\":7"), std::string::npos);
}

TEST_F(Package, LeavesNothingWhenItIsRemoved)
{
    install();
    ASSERT_NE(files(), before());
    dpkg({"--purge", "zu-tier"});
    EXPECT_EQ(files(), before());
}

TEST_F(Package, LeavesTheLog)
{
    install();
    std::ofstream(at("kd/log/zu/zu_tier.log")) << "a line\n";
    dpkg({"--purge", "zu-tier"});
    EXPECT_EQ(read_file(at("kd/log/zu/zu_tier.log")), "a line\n");
}

} // namespace
