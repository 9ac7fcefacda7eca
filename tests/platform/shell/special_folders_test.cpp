#include "platform/shell.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "platform/base.h"
#include "platform/files.h"
#include "support/sandbox.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

// A home folder below the root, so that it has a handheld path.
class SpecialFolders : public testing::Test {
protected:
    SpecialFolders() {
        set("HOME", home_);
        set("XDG_DATA_HOME", home_ / ".local/share");
        set("XDG_CONFIG_HOME", home_ / ".config");
        set("XDG_CACHE_HOME", home_ / ".cache");
        fs::create_directories(home_ / ".config");
    }

    static void set(const char* name, const fs::path& value) { setenv(name, value.c_str(), 1); }
    void configure(const std::string& text) { std::ofstream(home_ / ".config/user-dirs.dirs") << text; }

    static std::u16string folder(int number, BOOL create = FALSE) {
        WCHAR path[MAX_PATH] = u"#";
        const BOOL found = SHGetSpecialFolderPath(nullptr, path, number, create);
        EXPECT_EQ(found != FALSE, path[0] != 0);
        return path;
    }

    TempFolder folder_;
    const fs::path home_ = folder_.host();
    const std::u16string base_ = folder_.handheld();
};

}  // namespace

TEST_F(SpecialFolders, UsualPlaces) {
    EXPECT_EQ(folder(CSIDL_PERSONAL), base_ + u"\\Documents");
    EXPECT_EQ(folder(CSIDL_DESKTOPDIRECTORY), base_ + u"\\Desktop");
    EXPECT_EQ(folder(CSIDL_APPDATA), base_ + u"\\.local\\share");
    EXPECT_EQ(folder(CSIDL_STARTUP), base_ + u"\\.config\\autostart");
    EXPECT_EQ(folder(CSIDL_INTERNET_CACHE), base_ + u"\\.cache\\internet");
    EXPECT_EQ(folder(CSIDL_PROFILE), base_);
    EXPECT_EQ(folder(CSIDL_WINDOWS), u"\\Windows");
    EXPECT_EQ(folder(CSIDL_PROGRAM_FILES), u"\\Program Files");
    EXPECT_FALSE(fs::exists(home_ / "Documents"));
}

TEST_F(SpecialFolders, AsTheUserConfiguredThem) {
    configure("# comment\nXDG_DOCUMENTS_DIR=\"$HOME/Meine Dok\\\"ümente/\"\n  XDG_MUSIC_DIR=\"" +
              (home_ / "m/../music").string() + "\"\nXDG_VIDEOS_DIR=\"relative\"\nXDG_PICTURES_DIR=\"/elsewhere\"\n");
    EXPECT_EQ(folder(CSIDL_PERSONAL), base_ + u"\\Meine Dok\"ümente");
    EXPECT_EQ(folder(CSIDL_MYMUSIC), base_ + u"\\music");
    EXPECT_EQ(folder(CSIDL_MYVIDEO), base_ + u"\\Videos");
    EXPECT_EQ(folder(CSIDL_MYPICTURES), u"\\My Documents\\My Pictures");
}

TEST_F(SpecialFolders, OutsideTheRootTheHandheldsOwn) {
    set("HOME", "/nowhere/home");
    set("XDG_DATA_HOME", "relative/does/not/count");
    EXPECT_EQ(folder(CSIDL_PERSONAL), u"\\My Documents");
    EXPECT_EQ(folder(CSIDL_APPDATA), u"\\Application Data");
    set("HOME", home_.string() + "-other/../../outside");
    EXPECT_EQ(folder(CSIDL_PERSONAL), u"\\My Documents");
}

TEST_F(SpecialFolders, CreatedWhenAsked) {
    EXPECT_EQ(folder(CSIDL_APPDATA, TRUE), base_ + u"\\.local\\share");
    EXPECT_TRUE(fs::is_directory(home_ / ".local/share"));
    EXPECT_EQ(folder(CSIDL_APPDATA, TRUE), base_ + u"\\.local\\share");
    EXPECT_EQ(folder(CSIDL_PERSONAL | CSIDL_FLAG_CREATE), base_ + u"\\Documents");
    EXPECT_TRUE(fs::is_directory(home_ / "Documents"));
    std::ofstream(home_ / "Desktop") << "a file in the way";
    EXPECT_EQ(folder(CSIDL_DESKTOP, TRUE), u"");
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
}

TEST_F(SpecialFolders, Refusals) {
    EXPECT_EQ(folder(0x7777), u"");
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(SHGetSpecialFolderPath(nullptr, nullptr, CSIDL_PERSONAL, FALSE));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    set("HOME", home_ / std::string(250, 'x'));
    EXPECT_EQ(folder(CSIDL_PERSONAL), u"");
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
}
