// A record of the log names a file and a line. Whoever opens the file there finds the call that wrote the record, or
// the line is one of the fixed ones, which have names.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <vector>

#include "support/source_lines.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> sources() {
    std::vector<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(ZR_SOURCE_DIR) / "ZrUtility")) {
        if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") found.push_back(entry.path());
    }
    return found;
}

std::string text_of(const fs::path& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

// The source tags that stand in a file, as the log sees them.
std::vector<std::string> tags_in(const std::string& text) {
    static const std::regex tag(R"re("(\.\\\\[A-Za-z_\\]+\.cppzrwindowsmobile)")re");
    std::vector<std::string> found;
    for (std::sregex_iterator each(text.begin(), text.end(), tag); each != std::sregex_iterator(); ++each) {
        found.push_back(std::regex_replace(each->str(1), std::regex(R"(\\\\)"), R"(\)"));
    }
    return found;
}

TEST(LogLines, OnlyTheFileThatTheTagNamesGivesItsOwnLines) {
    int files = 0;
    for (const fs::path& file : sources()) {
        const std::string text = text_of(file);
        if (text.find("__LINE__") == std::string::npos) continue;
        ++files;
        const std::vector<std::string> tags = tags_in(text);
        ASSERT_EQ(tags.size(), 1u) << file;
        EXPECT_EQ(zr::test::source_of_tag(tags[0]), file);
    }
    EXPECT_GT(files, 3);
}

TEST(LogLines, EveryTagNamesAFile) {
    int tags = 0;
    for (const fs::path& file : sources()) {
        for (const std::string& tag : tags_in(text_of(file))) {
            ++tags;
            EXPECT_TRUE(fs::exists(zr::test::source_of_tag(tag))) << tag << " in " << file;
        }
    }
    EXPECT_GT(tags, 10);
}

TEST(LogLines, FixedLinesHaveNames) {
    const std::regex bare(R"((zrKelDebugBin\w+|Log\w*)\s*\(\s*(\w+,\s*)?[0-9]+\s*[,)])");
    for (const fs::path& file : sources()) {
        const std::string text = text_of(file);
        std::smatch match;
        EXPECT_FALSE(std::regex_search(text, match, bare)) << match.str() << " in " << file;
    }
}

}  // namespace
