#include <string>

#include "windowing_support.h"

namespace {

using namespace windowing_test;

HINSTANCE module(UINT_PTR number) {
    return reinterpret_cast<HINSTANCE>(number);
}

WNDCLASSW description(const WCHAR* name, HINSTANCE instance = nullptr) {
    WNDCLASSW made{};
    made.lpfnWndProc = DefWindowProcW;
    made.hInstance = instance;
    made.lpszClassName = name;
    return made;
}

HWND create(const WCHAR* name, HINSTANCE instance = nullptr) {
    return CreateWindowExW(0, name, nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, instance, nullptr);
}

}  // namespace

TEST(Classes, AreFoundIgnoringCase) {
    const WNDCLASSW made = description(u"Kel.\u00C4pfel");
    EXPECT_GE(RegisterClassW(&made), 0xC000);
    WNDCLASSW found{};
    const WCHAR* other_case = u"KEL.\u00E4PFEL";
    ASSERT_TRUE(GetClassInfoW(nullptr, other_case, &found));
    EXPECT_EQ(found.lpfnWndProc, &DefWindowProcW);
    EXPECT_EQ(found.lpszClassName, other_case);
    const HWND window = create(u"kel.\u00C4pfel");
    ASSERT_NE(window, nullptr);
    WCHAR name[32];
    EXPECT_EQ(GetClassNameW(window, name, 32), 9);
    EXPECT_EQ(std::u16string(name), u"Kel.\u00C4pfel");
    EXPECT_EQ(GetClassNameW(window, name, 4), 3);
    EXPECT_EQ(std::u16string(name), u"Kel");
    EXPECT_TRUE(DestroyWindow(window));
    EXPECT_TRUE(UnregisterClassW(u"KEL.\u00C4PFEL", nullptr));
}

TEST(Classes, OfTheProgramAreThoseOfNoModule) {
    const HINSTANCE program = GetModuleHandleW(nullptr);
    const HINSTANCE both[] = {nullptr, program};
    for (const HINSTANCE registered : both)
        for (const HINSTANCE asked : both) {
            const WNDCLASSW made = description(u"programs.class", registered);
            const ATOM atom = RegisterClassW(&made);
            ASSERT_NE(atom, 0);
            const WNDCLASSW again = description(u"Programs.Class", asked);
            EXPECT_EQ(RegisterClassW(&again), 0);
            EXPECT_EQ(GetLastError(), ERROR_CLASS_ALREADY_EXISTS);
            WNDCLASSW found{};
            EXPECT_TRUE(GetClassInfoW(asked, u"programs.class", &found));
            EXPECT_EQ(found.hInstance, registered);
            const HWND window = create(u"programs.class", asked);
            ASSERT_NE(window, nullptr);
            EXPECT_FALSE(UnregisterClassW(MAKEINTATOM(atom), asked));
            EXPECT_EQ(GetLastError(), ERROR_CLASS_HAS_WINDOWS);
            EXPECT_TRUE(DestroyWindow(window));
            EXPECT_FALSE(GetClassInfoW(module(1), u"programs.class", &found));
            EXPECT_TRUE(UnregisterClassW(u"programs.class", asked));
            EXPECT_FALSE(GetClassInfoW(registered, u"programs.class", &found));
        }
}

TEST(Classes, OfOneNameExistOncePerModule) {
    const WNDCLASSW first = description(u"a.class", module(1));
    const WNDCLASSW second = description(u"A.CLASS", module(2));
    const ATOM atom = RegisterClassW(&first);
    EXPECT_NE(atom, 0);
    EXPECT_EQ(RegisterClassW(&second), atom);
    EXPECT_EQ(RegisterClassW(&first), 0);
    EXPECT_EQ(GetLastError(), ERROR_CLASS_ALREADY_EXISTS);
    EXPECT_TRUE(UnregisterClassW(u"a.class", module(1)));
    WNDCLASSW found{};
    EXPECT_FALSE(GetClassInfoW(module(1), u"a.class", &found));
    EXPECT_EQ(GetLastError(), ERROR_CLASS_DOES_NOT_EXIST);
    EXPECT_TRUE(GetClassInfoW(module(2), u"a.class", &found));
    EXPECT_TRUE(UnregisterClassW(MAKEINTATOM(atom), module(2)));
}

TEST(Classes, WithWindowsStay) {
    const WNDCLASSW made = description(u"in.use", module(3));
    const ATOM atom = RegisterClassW(&made);
    const HWND window = create(MAKEINTATOM(atom), module(3));
    ASSERT_NE(window, nullptr);
    EXPECT_FALSE(UnregisterClassW(u"in.use", module(3)));
    EXPECT_EQ(GetLastError(), ERROR_CLASS_HAS_WINDOWS);
    EXPECT_TRUE(DestroyWindow(window));
    EXPECT_TRUE(UnregisterClassW(u"in.use", module(3)));
    EXPECT_FALSE(UnregisterClassW(u"in.use", module(3)));
    EXPECT_EQ(GetLastError(), ERROR_CLASS_DOES_NOT_EXIST);
}

TEST(Classes, RefuseWhatIsNoDescription) {
    const std::u16string longest(255, u'x');
    const std::u16string too_long(256, u'x');
    WNDCLASSW no_procedure = description(u"no.procedure");
    no_procedure.lpfnWndProc = nullptr;
    WNDCLASSW negative = description(u"negative");
    negative.cbWndExtra = -1;
    const WNDCLASSW bad[] = {description(nullptr), description(u""), description(too_long.c_str()),
                             no_procedure,         negative,         description(MAKEINTATOM(0xC000))};
    for (const WNDCLASSW& one : bad) {
        SetLastError(0);
        EXPECT_EQ(RegisterClassW(&one), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(RegisterClassW(nullptr), 0);
    const WNDCLASSW good = description(longest.c_str());
    EXPECT_NE(RegisterClassW(&good), 0);
    EXPECT_TRUE(UnregisterClassW(longest.c_str(), nullptr));
    EXPECT_FALSE(GetClassInfoW(nullptr, nullptr, nullptr));
}

TEST(Classes, CanComeAndGoForEver) {
    // More often than there are atoms.
    for (int i = 0; i < 20'000; ++i) {
        const WCHAR name[] = {u'c', static_cast<WCHAR>(u'a' + i % 26), static_cast<WCHAR>(0x4E00 + i), 0};
        const WNDCLASSW made = description(name);
        ASSERT_NE(RegisterClassW(&made), 0) << i;
        ASSERT_TRUE(UnregisterClassW(name, nullptr));
    }
}

TEST(RegisteredMessages, HaveOneNumberPerName) {
    const UINT first = RegisterWindowMessageW(u"kel.message");
    EXPECT_GE(first, 0xC000u);
    EXPECT_LE(first, 0xFFFFu);
    EXPECT_EQ(RegisterWindowMessageW(u"KEL.Message"), first);
    EXPECT_NE(RegisterWindowMessageW(u"kel.other"), first);
    EXPECT_EQ(RegisterWindowMessageW(u""), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}
