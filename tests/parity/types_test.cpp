// The words that handheld sources are written in.
#include <gtest/gtest.h>
#include <platform/platform.h>

#include <string_view>
#include <type_traits>

namespace {

static_assert(sizeof(BOOLEAN) == 1 && sizeof(UCHAR) == 1 && sizeof(TCHAR) == 2);
static_assert(sizeof(INT8) == 1 && sizeof(INT16) == 2 && sizeof(INT32) == 4 && sizeof(INT64) == 8);
static_assert(sizeof(LONG32) == 4 && sizeof(ULONG32) == 4 && sizeof(DWORD32) == 4 && sizeof(DWORD64) == 8);
static_assert(sizeof(LONG) == 4 && sizeof(ULONG) == 4 && sizeof(LONGLONG) == 8);
static_assert(sizeof(LARGE_INTEGER) == 8 && sizeof(ULARGE_INTEGER) == 8);
static_assert(std::is_same_v<LPTSTR, LPWSTR> && std::is_same_v<LPCTSTR, LPCWSTR>);
static_assert(std::is_same_v<LPHANDLE, HANDLE*> && std::is_same_v<PHKEY, HKEY*> && std::is_same_v<LPMSG, MSG*>);
static_assert(std::is_same_v<LPBYTE, BYTE*> && std::is_same_v<PVOID, void*> && std::is_same_v<LPLONG, LONG*>);
static_assert(std::is_same_v<LPFILETIME, FILETIME*> && std::is_same_v<LPSYSTEMTIME, SYSTEMTIME*>);

DECLARE_HANDLE(HOWNKIND);
static_assert(sizeof(HOWNKIND) == sizeof(void*) && !std::is_same_v<HOWNKIND, HWND>);

// As handheld sources declare functions.
DWORD WINAPI Nothing(VOID) {
    return NO_ERROR;
}
LRESULT CALLBACK Ignoring(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    UNREFERENCED_PARAMETER(window);
    UNREFERENCED_PARAMETER(message);
    DBG_UNREFERENCED_PARAMETER(wparam);
    DBG_UNREFERENCED_LOCAL_VARIABLE(lparam);
    return 0;
}
using Entry = BOOL(APIENTRY*)(HANDLE, DWORD, LPVOID);

TEST(Types, FunctionsAreDeclaredAsThere) {
    EXPECT_EQ(Nothing(), DWORD{NO_ERROR});
    const WNDPROC procedure = Ignoring;
    EXPECT_EQ(procedure(nullptr, 0, 0, 0), 0);
    const Entry entry = nullptr;
    EXPECT_EQ(entry, nullptr);
}

TEST(Types, HalvesOfLargeIntegersHaveNoName) {
    LARGE_INTEGER large;
    large.QuadPart = -2;
    EXPECT_EQ(large.LowPart, 0xFFFFFFFEu);
    EXPECT_EQ(large.HighPart, -1);
    EXPECT_EQ(large.u.LowPart, 0xFFFFFFFEu);
    large.LowPart = 1;
    large.HighPart = 2;
    EXPECT_EQ(large.QuadPart, 0x200000001);
    ULARGE_INTEGER unsigned_large;
    unsigned_large.LowPart = 0xFFFFFFFF;
    unsigned_large.HighPart = 0x80000000;
    EXPECT_EQ(unsigned_large.QuadPart, 0x80000000FFFFFFFFu);
    const LARGE_INTEGER in_order = {{7, 9}};
    EXPECT_EQ(in_order.LowPart, 7u);
    EXPECT_EQ(in_order.HighPart, 9);
}

TEST(Types, HalvesAndWholes) {
    EXPECT_EQ(LOBYTE(0x1234), 0x34);
    EXPECT_EQ(HIBYTE(0x1234), 0x12);
    EXPECT_EQ(HIBYTE(0xAB1234), 0x12);
    EXPECT_EQ(MAKEWORD(0x34, 0x12), 0x1234);
    EXPECT_EQ(MAKEWORD(0x134, 0x12), 0x1234);
    EXPECT_EQ(LOWORD(0x87654321), 0x4321);
    EXPECT_EQ(HIWORD(0x87654321), 0x8765);
    EXPECT_EQ(MAKELONG(0x4321, 0x8765), static_cast<LONG>(0x87654321u));
    // Of messages' parameters the upper half of a pointer's width stays 0.
    EXPECT_EQ(MAKEWPARAM(0x4321, 0x8765), 0x87654321u);
    EXPECT_EQ(MAKELPARAM(0xFFFF, 0xFFFF), static_cast<LPARAM>(0xFFFFFFFFu));
    EXPECT_EQ(MAKELRESULT(1, 2), 0x20001);
    EXPECT_EQ(MAKELPARAM(-1, 5), 0x5FFFF);
    static_assert(MAKELONG(1, 0) == 1);
}

#define GREETING "hello"
TEST(Types, LiteralsAreWide) {
    EXPECT_EQ(std::u16string_view(TEXT("text")), u"text");
    EXPECT_EQ(std::u16string_view(_T("text")), u"text");
    EXPECT_EQ(std::u16string_view(TEXT(GREETING)), u"hello");
    EXPECT_EQ(_T('x'), u'x');
    static_assert(std::is_same_v<decltype(TEXT('x')), TCHAR>);
}

TEST(Types, Memory) {
    WORD words[5] = {1, 2, 3, 4, 5};
    static_assert(ARRAYSIZE(words) == 5 && _countof(words) == 5);
    MoveMemory(words + 1, words, 3 * sizeof(WORD));
    EXPECT_EQ(words[1], 1);
    EXPECT_EQ(words[3], 3);
    WORD copy[5];
    CopyMemory(copy, words, sizeof copy);
    EXPECT_EQ(copy[4], 5);
    FillMemory(copy, 2 * sizeof(WORD), 0xAB);
    EXPECT_EQ(copy[1], 0xABAB);
    EXPECT_EQ(copy[2], 2);
    ZeroMemory(copy, sizeof copy);
    EXPECT_EQ(copy[4], 0);
    EXPECT_EQ(SecureZeroMemory(words, sizeof words), words);
    EXPECT_EQ(words[4], 0);
}

TEST(Types, PartsOfResultCodes) {
    EXPECT_EQ(HRESULT_CODE(HRESULT_FROM_WIN32(ERROR_BUSY)), DWORD{ERROR_BUSY});
    EXPECT_EQ(HRESULT_FACILITY(HRESULT_FROM_WIN32(ERROR_BUSY)), DWORD{FACILITY_WIN32});
    EXPECT_EQ(HRESULT_SEVERITY(E_FAIL), DWORD{SEVERITY_ERROR});
    EXPECT_EQ(HRESULT_SEVERITY(S_FALSE), DWORD{SEVERITY_SUCCESS});
    EXPECT_EQ(MAKE_HRESULT(SEVERITY_ERROR, FACILITY_WIN32, ERROR_ACCESS_DENIED), E_ACCESSDENIED);
    EXPECT_EQ(MAKE_SCODE(SEVERITY_ERROR, FACILITY_NULL, 0x4005), E_FAIL);
    EXPECT_TRUE(IS_ERROR(E_ABORT));
    EXPECT_FALSE(IS_ERROR(S_FALSE));
}

}  // namespace
