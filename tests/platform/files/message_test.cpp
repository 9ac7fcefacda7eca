#include <errno.h>
#include <string.h>

#include <vector>

#include "files_support.h"

using namespace zr::test;

namespace {

std::u16string system_message(DWORD code) {
    WCHAR buffer[256] = {};
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0x400, buffer, 256, nullptr);
    EXPECT_EQ(length, wcslen(buffer));
    return buffer;
}

std::u16string host_text(int number) {
    const std::string text = strerrordesc_np(number);
    return std::u16string(text.begin(), text.end()) + u"\r\n";
}

std::u16string from_string(const WCHAR* text, DWORD flags, ...) {
    va_list list;
    va_start(list, flags);
    WCHAR* message = nullptr;
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_STRING | flags, text, 0, 0,
                                        reinterpret_cast<LPWSTR>(&message), 0, &list);
    va_end(list);
    const std::u16string result(message ? message : u"failed", message ? length : 6);
    EXPECT_EQ(LocalFree(message), nullptr);
    return result;
}

}  // namespace

TEST(Message, SystemTexts) {
    EXPECT_EQ(system_message(ERROR_FILE_NOT_FOUND), host_text(ENOENT));
    EXPECT_EQ(system_message(ERROR_PATH_NOT_FOUND), host_text(ENOENT));
    EXPECT_EQ(system_message(ERROR_NO_MORE_FILES), host_text(ENOENT));
    EXPECT_EQ(system_message(ERROR_ACCESS_DENIED), host_text(EACCES));
    EXPECT_EQ(system_message(ERROR_DISK_FULL), host_text(ENOSPC));
    EXPECT_EQ(system_message(ERROR_DIR_NOT_EMPTY), host_text(ENOTEMPTY));
    EXPECT_EQ(system_message(ERROR_SUCCESS), host_text(0));
    EXPECT_EQ(system_message(static_cast<DWORD>(HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED))), host_text(EACCES));
    EXPECT_EQ(system_message(static_cast<DWORD>(E_ACCESSDENIED)), host_text(EACCES));
}

TEST(Message, NoText) {
    WCHAR buffer[8] = u"#";
    EXPECT_FAILS_WITH(ERROR_MR_MID_NOT_FOUND,
                      FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 0x1234567, 0, buffer, 8, nullptr));
    EXPECT_EQ(buffer[0], u'#');
    WCHAR* message = buffer;
    EXPECT_FAILS_WITH(ERROR_MR_MID_NOT_FOUND,
                      FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 0x1234567, 0,
                                     reinterpret_cast<LPWSTR>(&message), 0, nullptr));
    EXPECT_EQ(message, nullptr);
    EXPECT_FAILS_WITH(ERROR_MR_MID_NOT_FOUND,
                      FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE, nullptr, 2, 0, buffer, 8, nullptr));
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER, FormatMessageW(0, nullptr, 2, 0, buffer, 8, nullptr));
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER,
                      FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 2, 0, nullptr, 8, nullptr));
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER,
                      FormatMessageW(FORMAT_MESSAGE_FROM_STRING, nullptr, 2, 0, buffer, 8, nullptr));
}

TEST(Message, BufferMustHoldAll) {
    const std::u16string text = host_text(EACCES);
    std::vector<WCHAR> buffer(text.size() + 1, u'#');
    EXPECT_FAILS_WITH(ERROR_INSUFFICIENT_BUFFER,
                      FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, ERROR_ACCESS_DENIED, 0, buffer.data(),
                                     static_cast<DWORD>(text.size()), nullptr));
    EXPECT_EQ(buffer[0], u'#');
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, ERROR_ACCESS_DENIED, 0, buffer.data(),
                             static_cast<DWORD>(text.size() + 1), nullptr),
              text.size());
    EXPECT_EQ(buffer.data(), text);
    EXPECT_FAILS_WITH(ERROR_INSUFFICIENT_BUFFER, FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr,
                                                                ERROR_ACCESS_DENIED, 0, buffer.data(), 0, nullptr));
}

TEST(Message, AllocatedBufferHasTheSizeAskedFor) {
    WCHAR* message = nullptr;
    ASSERT_NE(FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, ERROR_ACCESS_DENIED,
                             0, reinterpret_cast<LPWSTR>(&message), 500, nullptr),
              0u);
    EXPECT_GE(LocalSize(message), 1000u);
    EXPECT_EQ(message, host_text(EACCES));
    EXPECT_EQ(LocalFree(message), nullptr);
}

TEST(Message, Inserts) {
    EXPECT_EQ(from_string(u"%2 before %1!s!, again %2", 0, u"one", u"two"), u"two before one, again two");
    EXPECT_EQ(from_string(u"%1!d! %2!04X! %3!5s!|", 0, -7, 0xAB, u"x"), u"-7 00AB     x|");
    EXPECT_EQ(from_string(u"100%%%nnext%. %!%0 unseen", 0), u"100%\r\nnext. !");
    EXPECT_EQ(from_string(u"%1 %n %%", FORMAT_MESSAGE_IGNORE_INSERTS), u"%1 %n %%");
    EXPECT_EQ(from_string(u"end %", 0), u"end %");
    EXPECT_EQ(from_string(u"%1", 0, static_cast<const WCHAR*>(nullptr)), u"(null)");
    EXPECT_EQ(from_string(u"%1!s", 0, u"x"), u"failed");
    EXPECT_EQ(from_string(u"%1!*d!", 0, 1, 2), u"failed");
    EXPECT_EQ(from_string(u"%1!n!", 0, u"x"), u"failed");
    EXPECT_EQ(from_string(u"%1!!", 0, u"x"), u"failed");
    EXPECT_EQ(from_string(u"a\r\nb%nc", FORMAT_MESSAGE_MAX_WIDTH_MASK), u"a b c");
}

TEST(Message, ArgumentArray) {
    DWORD_PTR values[12] = {};
    values[0] = reinterpret_cast<DWORD_PTR>(u"first");
    values[11] = 12;
    WCHAR buffer[64];
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY, u"%12!u! %1", 0, 0, buffer, 64,
                             reinterpret_cast<va_list*>(values)),
              8u);
    EXPECT_EQ(std::u16string(buffer), u"12 first");
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER,
                      FormatMessageW(FORMAT_MESSAGE_FROM_STRING, u"%1", 0, 0, buffer, 64, nullptr));
}
