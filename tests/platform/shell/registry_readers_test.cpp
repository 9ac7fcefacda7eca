#include "platform/registry_readers.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr LPCWSTR kKey = u"Software\\Readers";

class RegistryReaders : public testing::Test {
protected:
    RegistryReaders() {
        RegCreateKeyExW(HKEY_CURRENT_USER, kKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key_, nullptr);
    }
    ~RegistryReaders() override {
        RegDeleteKeyW(HKEY_CURRENT_USER, kKey);
        RegCloseKey(key_);
    }

    void set(LPCWSTR name, DWORD type, const void* data, std::size_t size) {
        EXPECT_EQ(RegSetValueExW(key_, name, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size)), 0);
    }
    void set_text(LPCWSTR name, std::u16string_view text, bool terminated = true) {
        set(name, REG_SZ, text.data(), (text.size() + (terminated ? 1 : 0)) * sizeof(WCHAR));
    }

    HKEY key_ = nullptr;
};

}  // namespace

TEST_F(RegistryReaders, ReadATextOfAnOpenKey) {
    set_text(u"Name", u"value");
    WCHAR text[6] = u"#####";
    EXPECT_EQ(RegistryGetString(key_, nullptr, u"Name", text, 6), S_OK);
    EXPECT_EQ(std::u16string(text), u"value");
    EXPECT_EQ(RegistryGetString(HKEY_CURRENT_USER, kKey, u"Name", text, 6), S_OK);
    EXPECT_EQ(std::u16string(text), u"value");
}

TEST_F(RegistryReaders, GiveNoTextThatDoesNotFitWithItsTerminator) {
    set_text(u"Name", u"value");
    set_text(u"Open", u"value", false);
    for (const LPCWSTR name : {u"Name", u"Open"}) {
        WCHAR text[5] = u"####";
        EXPECT_EQ(RegistryGetString(key_, u"", name, text, 5), HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
        EXPECT_EQ(text[0], 0);
    }
    WCHAR text[6] = u"#####";
    EXPECT_EQ(RegistryGetString(key_, u"", u"Open", text, 6), S_OK);
    EXPECT_EQ(std::u16string(text), u"value");
}

TEST_F(RegistryReaders, EndATextAtItsFirstTerminator) {
    set_text(u"Two", std::u16string_view(u"one\0two", 7));
    WCHAR text[20];
    EXPECT_EQ(RegistryGetString(key_, nullptr, u"Two", text, 20), S_OK);
    EXPECT_EQ(std::u16string(text), u"one");
}

TEST_F(RegistryReaders, RefuseOtherTypesAndLengths) {
    const DWORD number = 7;
    set_text(u"Text", u"7");
    set(u"Number", REG_DWORD, &number, sizeof number);
    set(u"Short", REG_DWORD, &number, 2);
    const BYTE eight[8] = {};
    set(u"Long", REG_DWORD, eight, sizeof eight);
    set(u"Bytes", REG_BINARY, eight, sizeof eight);
    const HRESULT wrong = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    DWORD read = 99;
    for (const LPCWSTR name : {u"Text", u"Short", u"Long", u"Bytes"}) {
        EXPECT_EQ(RegistryGetDWORD(key_, nullptr, name, &read), wrong);
    }
    EXPECT_EQ(read, 99u);
    EXPECT_EQ(RegistryGetDWORD(key_, nullptr, u"Number", &read), S_OK);
    EXPECT_EQ(read, 7u);
    WCHAR text[4] = u"###";
    EXPECT_EQ(RegistryGetString(key_, nullptr, u"Number", text, 4), wrong);
    EXPECT_EQ(RegistryGetString(key_, nullptr, u"Bytes", text, 2), wrong);
    EXPECT_EQ(text[0], 0);
}

TEST_F(RegistryReaders, SayWhatIsNotThere) {
    const HRESULT missing = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    WCHAR text[4];
    DWORD number = 0;
    EXPECT_EQ(RegistryGetString(key_, nullptr, u"None", text, 4), missing);
    EXPECT_EQ(RegistryGetDWORD(key_, u"Below", u"None", &number), missing);
    EXPECT_EQ(RegistryGetDWORD(nullptr, nullptr, u"None", &number), HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
    EXPECT_EQ(RegistryGetString(key_, nullptr, u"None", nullptr, 4), E_INVALIDARG);
    EXPECT_EQ(RegistryGetString(key_, nullptr, u"None", text, 0), E_INVALIDARG);
    EXPECT_EQ(RegistryGetDWORD(key_, nullptr, u"None", nullptr), E_INVALIDARG);
}
