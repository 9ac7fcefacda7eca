#pragma once

// Sessions, folders and messages for the tests of messaging, with their references and buffers given back.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/diagnostics.h"
#include "platform/mapi.h"
#include "support/com_ptr.h"
#include "support/sandbox.h"

namespace zr::test {

using Bytes = std::string;  // an entry identifier, or any bytes

inline ENTRYID* entry(const Bytes& id) {
    return reinterpret_cast<ENTRYID*>(const_cast<char*>(id.data()));
}
inline ULONG size_of(const Bytes& id) {
    return static_cast<ULONG>(id.size());
}
inline LPWSTR wide(const std::u16string& text) {
    return const_cast<LPWSTR>(text.c_str());
}

// Values of GetProps.
class Props {
public:
    Props(IMAPIProp* object, std::vector<ULONG> tags) {
        std::vector<ULONG> words{static_cast<ULONG>(tags.size())};
        words.insert(words.end(), tags.begin(), tags.end());
        result = object->GetProps(reinterpret_cast<SPropTagArray*>(words.data()), MAPI_UNICODE, &count, &values);
    }
    explicit Props(IMAPIProp* object) { result = object->GetProps(nullptr, MAPI_UNICODE, &count, &values); }
    ~Props() { MAPIFreeBuffer(values); }
    Props(const Props&) = delete;
    Props& operator=(const Props&) = delete;

    const SPropValue& operator[](ULONG i) const { return values[i]; }
    bool has(ULONG i) const { return i < count && PROP_TYPE(values[i].ulPropTag) != PT_ERROR; }
    SCODE error(ULONG i) const { return has(i) ? S_OK : values[i].Value.err; }
    std::u16string text(ULONG i = 0) const { return has(i) ? values[i].Value.lpszW : u"(none)"; }
    LONG number(ULONG i = 0) const { return has(i) ? values[i].Value.l : -1; }
    Bytes bytes(ULONG i = 0) const {
        return has(i) ? Bytes(reinterpret_cast<const char*>(values[i].Value.bin.lpb), values[i].Value.bin.cb) : "";
    }

    HRESULT result = E_FAIL;
    ULONG count = 0;
    LPSPropValue values = nullptr;
};

inline Bytes id_of(IMAPIProp* object) {
    return Props(object, {PR_ENTRYID}).bytes();
}
// The text must stay for as long as the value is used.
inline SPropValue text_prop(ULONG tag, const char16_t* text) {
    SPropValue value = {};
    value.ulPropTag = tag;
    value.Value.lpszW = const_cast<LPWSTR>(text);
    return value;
}
inline SPropValue text_prop(ULONG tag, const std::u16string& text) {
    return text_prop(tag, text.c_str());
}
inline SPropValue number_prop(ULONG tag, LONG number) {
    SPropValue value = {};
    value.ulPropTag = tag;
    value.Value.l = number;
    return value;
}
inline SPropValue time_prop(ULONG tag, ULONGLONG time) {
    SPropValue value = {};
    value.ulPropTag = tag;
    value.Value.ft = {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
    return value;
}
inline HRESULT set(IMAPIProp* object, SPropValue value) {
    return object->SetProps(1, &value, nullptr);
}

// One SBinary per identifier.
class EntryList {
public:
    explicit EntryList(const std::vector<Bytes>& ids) {
        for (const Bytes& id : ids) {
            binaries_.push_back({size_of(id), reinterpret_cast<BYTE*>(entry(id))});
        }
        list_ = {static_cast<ULONG>(binaries_.size()), binaries_.data()};
    }
    operator LPENTRYLIST() { return &list_; }

private:
    std::vector<SBinary> binaries_;
    ENTRYLIST list_;
};

// All rows from here on, each column as text.
struct Rows {
    explicit Rows(IMAPITable* table, LONG count = 100000) { result = table->QueryRows(count, 0, &set); }
    ~Rows() { FreeProws(set); }
    Rows(const Rows&) = delete;
    Rows& operator=(const Rows&) = delete;
    ULONG size() const { return set != nullptr ? set->cRows : 0; }
    const SPropValue& value(ULONG row, ULONG column) const { return set->aRow[row].lpProps[column]; }
    std::u16string text(ULONG row, ULONG column) const {
        return PROP_TYPE(value(row, column).ulPropTag) == PT_UNICODE ? value(row, column).Value.lpszW : u"(none)";
    }
    Bytes bytes(ULONG row, ULONG column) const {
        return {reinterpret_cast<const char*>(value(row, column).Value.bin.lpb), value(row, column).Value.bin.cb};
    }
    HRESULT result = E_FAIL;
    LPSRowSet set = nullptr;
};

inline HRESULT columns(IMAPITable* table, std::vector<ULONG> tags) {
    std::vector<ULONG> words{static_cast<ULONG>(tags.size())};
    words.insert(words.end(), tags.begin(), tags.end());
    return table->SetColumns(reinterpret_cast<SPropTagArray*>(words.data()), 0);
}

// A session with its default store.
class Mail {
public:
    Mail() {
        EXPECT_EQ(MAPIInitialize(nullptr), S_OK);
        logon = MAPILogonEx(0, nullptr, nullptr, 0, session.out());
        if (SUCCEEDED(logon)) open = session->OpenMsgStore(0, 0, nullptr, nullptr, MAPI_BEST_ACCESS, store.out());
    }
    ~Mail() {
        store.reset();
        session.reset();
        MAPIUninitialize();
    }

    Ptr<IMAPIFolder> folder(ULONG role = PR_CE_IPM_INBOX_ENTRYID) const {
        return folder(Props(store.get(), {role}).bytes());
    }
    Ptr<IMAPIFolder> folder(const Bytes& id, ULONG flags = MAPI_MODIFY) const {
        Ptr<IMAPIFolder> found;
        ULONG type = 0;
        EXPECT_EQ(session->OpenEntry(size_of(id), entry(id), nullptr, flags, &type, found.unknown()), S_OK);
        EXPECT_EQ(type, MAPI_FOLDER);
        return found;
    }
    Ptr<IMessage> message(const Bytes& id, ULONG flags = MAPI_MODIFY) const {
        Ptr<IMessage> found;
        ULONG type = 0;
        last = session->OpenEntry(size_of(id), entry(id), nullptr, flags, &type, found.unknown());
        return found;
    }
    // A saved message with this subject.
    Bytes add(IMAPIFolder* folder, const std::u16string& subject, LONG flags = 0) const {
        Ptr<IMessage> made;
        EXPECT_EQ(folder->CreateMessage(nullptr, 0, made.out()), S_OK);
        SPropValue values[] = {text_prop(PR_SUBJECT_W, subject), number_prop(PR_MESSAGE_FLAGS, flags)};
        EXPECT_EQ(made->SetProps(2, values, nullptr), S_OK);
        EXPECT_EQ(made->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
        return id_of(made.get());
    }
    Ptr<IMAPIFolder> fresh_folder(const std::u16string& name) const {
        Ptr<IMAPIFolder> made;
        EXPECT_EQ(
            folder(PR_IPM_SUBTREE_ENTRYID)->CreateFolder(FOLDER_GENERIC, wide(name), nullptr, nullptr, 0, made.out()),
            S_OK);
        return made;
    }
    Ptr<IZrMail> extras() const {
        Ptr<IZrMail> found;
        EXPECT_EQ(session->QueryInterface(IID_IZrMail, found.any()), S_OK);
        return found;
    }

    Ptr<IMAPISession> session;
    Ptr<IMsgStore> store;
    HRESULT logon = E_FAIL;
    HRESULT open = E_FAIL;
    mutable HRESULT last = S_OK;
};

inline std::vector<std::u16string> subjects(IMAPIFolder* folder) {
    Ptr<IMAPITable> table;
    EXPECT_EQ(folder->GetContentsTable(0, table.out()), S_OK);
    EXPECT_EQ(columns(table.get(), {PR_SUBJECT_W}), S_OK);
    const Rows rows(table.get());
    std::vector<std::u16string> list;
    for (ULONG i = 0; i < rows.size(); ++i) {
        list.push_back(rows.text(i, 0));
    }
    return list;
}

// The original of a message: of a length and content that its name tells.
inline std::string original(int number) {
    std::string text(100 + static_cast<std::size_t>(number) * 7919 % 90000, 0);
    for (std::size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char>('a' + (i * 31 + static_cast<std::size_t>(number)) % 26);
    }
    return text;
}

inline std::u16string name_of(int number) {
    const std::string digits = std::to_string(number);
    return {digits.begin(), digits.end()};
}

inline HRESULT add_original(IMAPIFolder* folder, int number, Bytes& id) {
    Ptr<IMessage> made;
    HRESULT result = folder->CreateMessage(nullptr, 0, made.out());
    if (SUCCEEDED(result)) result = set(made.get(), text_prop(PR_SUBJECT_W, name_of(number)));
    if (SUCCEEDED(result)) result = set(made.get(), text_prop(PR_BODY_W, u"words of " + name_of(number)));
    if (SUCCEEDED(result)) {
        const std::string text = original(number);
        Ptr<IStream> stream;
        result = made->OpenProperty(PR_CE_MIME_TEXT, &IID_IStream, 0, MAPI_CREATE | MAPI_MODIFY, stream.unknown());
        if (SUCCEEDED(result)) result = stream->Write(text.data(), static_cast<ULONG>(text.size()), nullptr);
        if (SUCCEEDED(result)) result = stream->Commit(0);
    }
    if (SUCCEEDED(result)) result = made->SaveChanges(0);
    if (SUCCEEDED(result)) id = id_of(made.get());
    return result;
}

// Whether what a message's name says is what it holds.
inline bool is_whole(IMessage* message) {
    const Props props(message, {PR_SUBJECT_W});
    const std::u16string name = props.text();
    const std::string wanted = original(std::stoi(std::string(name.begin(), name.end())));
    Ptr<IStream> stream;
    if (message->OpenProperty(PR_CE_MIME_TEXT, &IID_IStream, 0, 0, stream.unknown()) != S_OK) return false;
    std::string text(wanted.size() + 1, 0);
    ULONG got = 0;
    if (FAILED(stream->Read(text.data(), static_cast<ULONG>(text.size()), &got))) return false;
    text.resize(got);
    return text == wanted;
}

}  // namespace zr::test
