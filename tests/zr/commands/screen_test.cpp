#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "support/display.h"
#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace {

using zr::test::Result;

Result screen_tool(const std::vector<std::string>& args) {
    return zr::test::zr(args);
}

TEST(ZrScreen, TellsWhatProgramsAreTold) {
    setenv("ZR_SCREEN", "480x640@192", 1);
    const Result plain = screen_tool({"screen", "info"});
    EXPECT_EQ(plain.code, 0);
    EXPECT_EQ(plain.out,
              "size\t480x640\ndepth\t24\nresolution\t192x192 dots per inch, 7559x7559 pixels per metre, high\n"
              "input panel\tdown, 160 high\n");
    const Result json = screen_tool({"screen", "info", "--json"});
    EXPECT_EQ(json.out,
              "{\"width\":480,\"height\":640,\"depth\":24,\"dots_per_inch_across\":192,\"dots_per_inch_down\":192,"
              "\"pixels_per_metre_across\":7559,\"pixels_per_metre_down\":7559,"
              "\"high_resolution\":true,\"input_panel_up\":false,\"input_panel_height\":160}\n");
    unsetenv("ZR_SCREEN");
}

TEST(ZrScreen, TellsOfTheRealOutput) {
    const zr::test::XServer server("1024x600x24", 120);
    ZR_NEEDS_DISPLAY(server);
    const zr::test::Environment display("DISPLAY", server.name());
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    Result info = screen_tool({"screen", "info"});
    while (info.out.starts_with("size\t240x320") && std::chrono::steady_clock::now() < end) {
        info = screen_tool({"screen", "info"});
    }
    EXPECT_TRUE(info.out.starts_with("size\t1024x600\ndepth\t24\nresolution\t120x120 dots per inch, 4724x4724"))
        << info.out;
}

TEST(ZrScreen, FitsText) {
    const Result whole = screen_tool({"screen", "fit", "short", "--width", "500"});
    EXPECT_EQ(whole.code, 0);
    EXPECT_EQ(whole.out, "short\n");
    const std::string text = "A long line of text that does not fit";
    const Result end = screen_tool({"screen", "fit", text, "--width", "100"});
    EXPECT_EQ(end.code, 0);
    EXPECT_TRUE(end.out.starts_with("A long"));
    EXPECT_TRUE(end.out.ends_with("\u2026\n"));
    const Result start = screen_tool({"screen", "fit", text, "--width", "100", "--start"});
    EXPECT_TRUE(start.out.starts_with("\u2026"));
    EXPECT_TRUE(start.out.ends_with("not fit\n"));
    const Result larger = screen_tool({"screen", "fit", text, "--width", "100", "--points", "20"});
    EXPECT_LT(larger.out.size(), end.out.size());
    const Result split =
        screen_tool({"screen", "fit", "A very long name of it.txt", "--width", "100", "--split", "22"});
    EXPECT_TRUE(split.out.ends_with("\u2026.txt\n"));
    const Result lines = screen_tool({"screen", "fit", text, "--width", "100", "--height", "34"});
    EXPECT_TRUE(lines.out.ends_with("\u2026\n"));
    EXPECT_GT(lines.out.size(), end.out.size());
    const Result json = screen_tool({"screen", "fit", "ab", "--width", "500", "--json"});
    EXPECT_TRUE(json.out.starts_with("{\"text\":\"ab\",\"changed\":false,\"width\":"));
}

TEST(ZrScreen, DrawsWhatFits) {
    const zr::test::TempFolder folder;
    const std::filesystem::path file = folder.host() / "fit.png";
    setenv("ZR_ROOT", "/", 1);
    const Result drawn = screen_tool({"screen", "fit", "A long line of text", "--width", "60", "--png", file.string()});
    EXPECT_EQ(drawn.code, 0) << drawn.err;
    EXPECT_GT(std::filesystem::file_size(file), 100u);
    EXPECT_NE(screen_tool({"screen", "fit", "x", "--width", "60", "--png", "/no/such/folder/x.png"}).code, 0);
    setenv("ZR_ROOT", zr::test::sandbox_root().c_str(), 1);
}

TEST(ZrScreen, RefusesWrongUsage) {
    EXPECT_EQ(screen_tool({"screen", "fit", "x"}).code, 2);
    EXPECT_EQ(screen_tool({"screen", "fit", "x", "--width", "0"}).code, 2);
    EXPECT_EQ(screen_tool({"screen", "fit", "x", "--width", "99999"}).code, 2);
    EXPECT_EQ(screen_tool({"screen", "fit", "x", "--width", "50", "--split", "1"}).code, 2);
    EXPECT_EQ(screen_tool({"screen", "fit", "x", "--width", "50", "--split", "0", "--start"}).code, 2);
    EXPECT_EQ(screen_tool({"screen", "fit", "x", "--width", "50", "--font", std::string(40, 'x')}).code, 2);
}

}  // namespace
