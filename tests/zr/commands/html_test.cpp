// zr html and zr mail show --html, run as a user does.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace html_tool_test {
namespace {

using zr::test::expect_failure;
using zr::test::zr;

class HtmlTool : public testing::Test {
protected:
    HtmlTool() {
        const char* const home = std::getenv("ZR_HOME");
        before_ = home != nullptr ? home : "";
        setenv("ZR_HOME", (folder_.host() / "home").c_str(), 1);
    }
    ~HtmlTool() override { setenv("ZR_HOME", before_.c_str(), 1); }

    std::string path(const std::string& name) const { return (folder_.host() / name).string(); }

private:
    zr::test::TempFolder folder_;
    std::string before_;
};

TEST_F(HtmlTool, RefusesWhatIsWrong) {
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"html"},
                                               {"html", "-", "--text", "--links"},
                                               {"html", "-", "--links", "--script", "1"},
                                               {"html", "-", "--width", "0"},
                                               {"html", "-", "--width", "99999", "--png", "x.png"},
                                               {"mail", "show", "1", "--links"},
                                               {"mail", "show", "1", "2", "--html", "--png", "x.png"}}) {
        EXPECT_EQ(zr(args).code, 2) << args.back();
    }
    expect_failure(zr({"html", path("none.html")}), 6, "none.html");
    expect_failure(zr({"html", path("")}), 6, "directory");
}

}  // namespace
}  // namespace html_tool_test
