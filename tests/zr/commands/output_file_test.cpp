// Files that exports write: links, permissions, and what a signal leaves.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/forked.h"
#include "zr/base/output_file.h"
#include "zr/commands/own_store.h"

namespace {

namespace fs = std::filesystem;
using zr::test::read_file;
using zr::test::RunningZr;
using zr::test::write_file;
using zr::test::zr;

class Output : public zr::test::OwnStore {
protected:
    std::size_t files() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder()), fs::directory_iterator()));
    }
    static unsigned mode_of(const std::string& path) {
        struct stat status = {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0);
        return status.st_mode & 0777;
    }
    void SetUp() override {
        OwnStore::SetUp();
        ASSERT_EQ(zr({"contacts", "add", "--first", "Jo"}).code, 0);
    }
};

TEST_F(Output, AnExistingFileKeepsItsPermissions) {
    write_file(file("a.vcf"), "old");
    ASSERT_EQ(::chmod(file("a.vcf").c_str(), 0640), 0);
    EXPECT_EQ(zr({"contacts", "export", "-o", file("a.vcf")}).code, 0);
    EXPECT_EQ(mode_of(file("a.vcf")), 0640u);
    EXPECT_EQ(zr({"contacts", "export", "-o", file("b.vcf")}).code, 0);
    EXPECT_EQ(mode_of(file("b.vcf")), 0600u);
    EXPECT_EQ(read_file(file("a.vcf")), read_file(file("b.vcf")));
}

TEST_F(Output, ALinkStaysAndItsTargetIsWritten) {
    fs::create_directory(folder() / "there");
    fs::create_symlink("there/second", folder() / "first");
    fs::create_symlink("third", folder() / "there/second");
    for (int round = 0; round < 2; ++round) {  // a target that is not there, and one that is
        EXPECT_EQ(zr({"contacts", "export", "-o", file("first")}).code, 0);
        EXPECT_TRUE(fs::is_symlink(folder() / "first"));
        EXPECT_TRUE(fs::is_symlink(folder() / "there/second"));
        EXPECT_NE(read_file(file("there/third")).find("Jo"), std::string::npos);
    }
    fs::create_symlink("round", folder() / "round");
    zr::test::expect_failure(zr({"contacts", "export", "-o", file("round")}), 6, "round: ");
}

TEST_F(Output, ASignalLeavesNoTemporaryFile) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const std::size_t before = files();
        const int end = zr::test::in_fork([&] {
            zr::OutputFile output(file("c.vcf"));
            output.write("begun");
            ::raise(signal);
            return 1;
        });
        EXPECT_EQ(end, -signal);
        EXPECT_EQ(files(), before);
    }
}

}  // namespace
