// The optional names: those of every function that is there, and sources that use them compile.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <string_view>

// The last one, as it asks.
#include <platform/generic_names.h>

namespace {

std::string text_of(const std::string& path) {
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

const std::string headers = ZR_SOURCE_DIR "/platform/include/platform/";

// The first group of all matches.
std::set<std::string> all(const std::string& text, const char* pattern) {
    const std::regex expression(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match) {
        found.insert((*match)[1]);
    }
    return found;
}

TEST(GenericNames, AreThereForEveryFunction) {
    const std::set<std::string> mapped = all(text_of(headers + "generic_names.h"), R"(#define (\w+) \w+W\n)");
    std::set<std::string> declared;
    for (const std::string& header : all(text_of(headers + "platform.h"), R"re(#include "platform/(\w+\.h)")re")) {
        declared.merge(
            all(text_of(headers + header), R"((?:^|\n)(?:ZRPLATFORM_API|inline)[^;{}/]*?\b([A-Za-z]\w+)W\()"));
    }
    EXPECT_GT(declared.size(), 60u);
    declared.erase("GetProcAddress");
    for (const std::string& name : declared) {
        EXPECT_TRUE(mapped.count(name)) << name << "W is declared, " << name << " is not mapped to it";
    }
}

TEST(GenericNames, CompileAsHandheldSourcesUseThem) {
    CONST HANDLE event = CreateEvent(NULL, TRUE, TRUE, NULL);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    CloseHandle(event);

    TCHAR name[MAX_PATH];
    _tcscpy(name, _T("Lists"));
    _tcscat(name, TEXT("\\Mail"));
    EXPECT_EQ(_tcslen(name), 10u);
    EXPECT_EQ(_tcsicmp(name, _T("LISTS\\mail")), 0);
    EXPECT_EQ(wsprintf(name, _T("%d of %s"), 5, _T("six")), 8);
    EXPECT_EQ(std::u16string_view(name), u"5 of six");

    WNDCLASS window_class = {};
    window_class.lpfnWndProc = DefWindowProc;
    window_class.hInstance = GetModuleHandle(NULL);
    window_class.lpszClassName = _T("GenericNames");
    ASSERT_NE(RegisterClass(&window_class), 0);
    const HWND window = CreateWindow(_T("GenericNames"), _T("title"), WS_OVERLAPPED, 0, 0, 1, 1, NULL, NULL,
                                     window_class.hInstance, NULL);
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(GetWindowTextLength(window), 5);
    EXPECT_TRUE(PostMessage(window, WM_APP, 1, 2));
    MSG message;
    EXPECT_TRUE(PeekMessage(&message, NULL, WM_APP, WM_APP, PM_REMOVE));
    EXPECT_EQ(DispatchMessage(&message), 0);
    EXPECT_TRUE(DestroyWindow(window));
    EXPECT_TRUE(UnregisterClass(_T("GenericNames"), window_class.hInstance));

    const unsigned __int64 large = 1;
    EXPECT_EQ(sizeof large, 8u);
}

}  // namespace
