// zr without some of its standard streams: what it would have printed is lost, and nothing else is.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace {

using zr::test::Result;
using zr::test::write_file;
using zr::test::zr;

constexpr int kUnwritable = 6;
const std::string kCard = "BEGIN:VCARD\nVERSION:3.0\nFN:Jo Doe\nEMAIL:jo@x.org\nEND:VCARD\n";

// Runs zr with what the shell is told to do to its streams, such as ">&-".
Result zr_with(const std::string& streams, const std::vector<std::string>& args, const std::string& input = {}) {
    std::vector<std::string> command = {"sh", "-c", "exec \"$0\" \"$@\" " + streams, ZR_TOOL};
    command.insert(command.end(), args.begin(), args.end());
    return zr::test::run(command, input);
}

class ClosedStreams : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        setenv("ZR_HOME", folder_.host().c_str(), 1);
        ASSERT_EQ(zr({"reg", "set", "HKCU\\A", "k", "v"}).code, 0);
        ASSERT_EQ(zr({"contacts", "import", "-"}, kCard).code, 0);
    }
    std::string file(const std::string& name) const { return folder_.host() / name; }

    // What was in the stores is there, and sound.
    void expect_stores(std::size_t contacts = 1) const {
        const Result value = zr({"reg", "get", "HKCU\\A", "k"});
        EXPECT_EQ(value.code, 0) << value.err;
        EXPECT_EQ(value.out, "v\n");
        const Result list = zr({"contacts", "list"});
        EXPECT_EQ(list.code, 0) << list.err;
        EXPECT_EQ(zr::test::lines_of(list.out).size(), contacts);
    }

private:
    zr::test::TempFolder folder_;
};

const std::vector<std::vector<std::string>> kPrinting = {
    {"reg", "list", "HKCU"}, {"reg", "get", "HKCU\\A", "k"},
    {"reg", "tree", "HKCU"}, {"reg", "export", "HKCU"},
    {"contacts", "list"},    {"contacts", "find", "jo"},
    {"contacts", "export"},  {"calendar", "export"},
    {"resolve", "jo@x.org"}, {"zone"},
    {"objects", "--json"},   {"--help"},
    {"--version"},
};

TEST_P(ClosedStreams, LeaveTheStoresAlone) {
    for (const auto& command : kPrinting) {
        zr_with(GetParam(), command);
    }
    expect_stores();
    EXPECT_EQ(zr_with(GetParam(), {"reg", "set", "HKCU\\B", "k", "w"}).code, 0);
    expect_stores();
    EXPECT_EQ(zr({"reg", "get", "HKCU\\B", "k"}).out, "w\n");
    write_file(file("card.vcf"), kCard);
    zr_with(GetParam(), {"contacts", "import", "--on-duplicate", "add", file("card.vcf")});
    expect_stores(2);
}

TEST_P(ClosedStreams, LeaveTheLogAlone) {
    setenv("ZR_LOG", file("zr.zrlog").c_str(), 1);
    for (const auto& command : kPrinting) {
        zr_with(GetParam(), command);
    }
    unsetenv("ZR_LOG");
    const Result log = zr({"log", "show", file("zr.zrlog")});
    EXPECT_EQ(log.code, 0) << log.err;
    EXPECT_EQ(log.err, "");
}

INSTANTIATE_TEST_SUITE_P(Streams, ClosedStreams,
                         testing::Values("<&-", ">&-", "2>&-", "<&- >&-", ">&- 2>&-", "<&- 2>&-", "<&- >&- 2>&-"));

using ClosedOutput = ClosedStreams;

TEST_F(ClosedOutput, IsOneThatCannotBeWritten) {
    for (const auto& command : kPrinting) {
        const Result result = zr_with(">&-", command);
        EXPECT_EQ(result.code, kUnwritable) << command[0];
        EXPECT_EQ(result.err, "zr: standard output: Bad file descriptor\n");
    }
}

TEST_F(ClosedOutput, OfErrorsChangesNoAnswer) {
    EXPECT_EQ(zr_with("2>&-", {"reg", "get", "HKCU\\A", "k"}).out, "v\n");
    EXPECT_EQ(zr_with("2>&-", {"contacts", "import", "-"}, kCard).code, 0);
    EXPECT_EQ(zr_with("2>&-", {"reg", "get", "HKCU\\A", "none"}).code, 1);
}

TEST_F(ClosedOutput, AClosedInputCannotBeRead) {
    const Result result = zr_with("<&-", {"contacts", "import", "-"});
    EXPECT_EQ(result.code, kUnwritable);
    EXPECT_EQ(result.err, "zr: standard input: Bad file descriptor\n");
}

}  // namespace
