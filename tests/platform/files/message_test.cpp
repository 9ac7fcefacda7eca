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
    EXPECT_FAILS_WITH(ERROR_RESOURCE_TYPE_NOT_FOUND,
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
    EXPECT_EQ(from_string(u"a%rb%tc% %.", 0), u"a\rb\tc .");
    EXPECT_EQ(from_string(u"end %", 0), u"failed");
    EXPECT_EQ(from_string(u"%", FORMAT_MESSAGE_IGNORE_INSERTS), u"failed");
    EXPECT_EQ(from_string(u"%1", 0, static_cast<const WCHAR*>(nullptr)), u"(null)");
    EXPECT_EQ(from_string(u"%1!s", 0, u"x"), u"failed");
    EXPECT_EQ(from_string(u"%1!n!", 0, u"x"), u"failed");
    EXPECT_EQ(from_string(u"%1!!", 0, u"x"), u"failed");
}

TEST(Message, IgnoredInsertsStayAndAllElseIsDone) {
    const DWORD ignore = FORMAT_MESSAGE_IGNORE_INSERTS;
    EXPECT_EQ(from_string(u"%1 %22!5s! %n%%%t%.", ignore), u"%1 %22!5s! \r\n%\t.");
    EXPECT_EQ(from_string(u"%1%0 unseen", ignore), u"%1");
    EXPECT_EQ(from_string(u"%1 a\r\nb", ignore | FORMAT_MESSAGE_MAX_WIDTH_MASK), u"%1 a b");
    EXPECT_EQ(from_string(u"%1!s", ignore), u"%1!s");
}

TEST(Message, WidthsThatAreArguments) {
    EXPECT_EQ(from_string(u"%1!*u!|", 0, 5, 7), u"    7|");
    EXPECT_EQ(from_string(u"%1!-*u!|", 0, 5, 7), u"7    |");
    EXPECT_EQ(from_string(u"%1!.*s!", 0, 2, u"Bill"), u"Bi");
    EXPECT_EQ(from_string(u"%1!*u!,%1!*u!", 0, 3, 7, 8), u"  7,  8");
    // In a list the argument behind the widths has no number.
    EXPECT_EQ(from_string(u"%1!*.*s! %3 %4!*s!", 0, 4, 2, u"Bill", u"Bob", 6, u"Bill"), u"  Bi Bob   Bill");
    EXPECT_EQ(from_string(u"%1!***u!", 0, 1, 2, 3, 4), u"failed");
    const DWORD_PTR values[] = {4,
                                2,
                                reinterpret_cast<DWORD_PTR>(u"Bill"),
                                reinterpret_cast<DWORD_PTR>(u"Bob"),
                                6,
                                reinterpret_cast<DWORD_PTR>(u"Bill")};
    WCHAR buffer[64];
    EXPECT_EQ(FormatMessageW(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY, u"%1!*.*s! %4 %5!*s!", 0, 0,
                             buffer, 64, reinterpret_cast<va_list*>(const_cast<DWORD_PTR*>(values))),
              15u);
    EXPECT_EQ(std::u16string(buffer), u"  Bi Bob   Bill");
}

TEST(Message, UnderTheMaskOnlyHardBreaksAreLeft) {
    const DWORD mask = FORMAT_MESSAGE_MAX_WIDTH_MASK;
    EXPECT_EQ(from_string(u"a\r\nb%nc\nd\re%rf", mask), u"a b\r\nc d e\rf");
    EXPECT_EQ(from_string(u"%1|a\r\n", mask, u"x\r\ny"), u"x\r\ny|a ");
    WCHAR buffer[256];
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | mask, nullptr, ERROR_ACCESS_DENIED, 0, buffer, 256, nullptr);
    std::u16string expected = host_text(EACCES);
    expected.replace(expected.size() - 2, 2, u" ");
    EXPECT_EQ(std::u16string(buffer, length), expected);
}

TEST(Message, LinesOfAWidth) {
    EXPECT_EQ(from_string(u"short long longlineXX longline", 8), u"short\r\nlong\r\nlonglineXX\r\nlongline");
    EXPECT_EQ(from_string(u"aa bb cc", 5), u"aa bb\r\ncc");
    EXPECT_EQ(from_string(u"aa\r\nbb cc", 8), u"aa bb cc");
    EXPECT_EQ(from_string(u"aa%nbb cc dd", 5), u"aa\r\nbb cc\r\ndd");
    EXPECT_EQ(from_string(u"aa   bb", 4), u"aa\r\nbb");
    EXPECT_EQ(from_string(u"  aa %1", 6, u"bb ccc"), u"  aa\r\nbb ccc");
    EXPECT_EQ(from_string(u"aaaaa\r\n", 5), u"aaaaa");
    EXPECT_EQ(from_string(u"word", 1), u"word");
    // Each line fits, unless it is one word.
    const std::u16string text = u"The quick brown fox jumps over the extraordinarily lazy dog";
    for (DWORD width = 1; width < FORMAT_MESSAGE_MAX_WIDTH_MASK; ++width) {
        std::u16string rest = from_string(text.c_str(), width);
        std::u16string joined;
        while (!rest.empty()) {
            const std::size_t end = std::min(rest.find(u"\r\n"), rest.size());
            const std::u16string line = rest.substr(0, end);
            EXPECT_TRUE(line.size() <= width || line.find(u' ') == line.npos) << width;
            joined += joined.empty() ? line : u" " + line;
            rest.erase(0, std::min(end + 2, rest.size()));
        }
        EXPECT_EQ(joined, text);
    }
}

TEST(Message, AnEmptyTextIsNothingToFree) {
    for (const WCHAR* const text : {u"", u"%0", u"%1"}) {
        WCHAR filled[4] = u"#";
        const DWORD_PTR values[] = {reinterpret_cast<DWORD_PTR>(u"")};
        va_list* const list = reinterpret_cast<va_list*>(const_cast<DWORD_PTR*>(values));
        const DWORD flags = FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY;
        WCHAR* message = filled;
        EXPECT_EQ(FormatMessageW(flags | FORMAT_MESSAGE_ALLOCATE_BUFFER, text, 0, 0, reinterpret_cast<LPWSTR>(&message),
                                 100, list),
                  0u);
        EXPECT_EQ(message, nullptr);
        EXPECT_EQ(FormatMessageW(flags, text, 0, 0, filled, 4, list), 0u);
        EXPECT_EQ(filled[0], 0);
    }
}

TEST(Message, NoBlockIsMadeForMoreThan128Kilobytes) {
    const std::u16string fits(65535, u'x');
    const std::u16string too_long(65536, u'x');
    EXPECT_EQ(from_string(fits.c_str(), 0), fits);
    WCHAR* message = nullptr;
    EXPECT_FAILS_WITH(ERROR_MORE_DATA,
                      FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_STRING, too_long.c_str(), 0,
                                     0, reinterpret_cast<LPWSTR>(&message), 0, nullptr));
    EXPECT_EQ(message, nullptr);
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
