#pragma once

// The message store as the commands of zr mail use it. Every function throws Failure when the store fails.

#include <platform/mapi.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "zr/base/failure.h"
#include "zr/stores/com_ptr.h"

namespace zr {

// What a failed call of the message store means: the code to end with and one line for people.
Failure mail_failure(HRESULT result, const std::string& doing);
void check_mail(HRESULT result, const char* doing);

// Tags of the client's own, beside those of the platform.
inline constexpr ULONG kMailSavedMark = PROP_TAG(PT_BOOLEAN, 0x602B);  // 1 on the folder of saved messages
inline constexpr ULONG kMailSeparator = PROP_TAG(PT_UNICODE, 0x6801);  // the mbox line that stood before
inline constexpr ULONG kMailFlagStatus = PROP_TAG(PT_LONG, 0x1090);    // 2: flagged
inline constexpr ULONG kMailLastVerb = PROP_TAG(PT_LONG, 0x1081);      // 102: replied, 104: forwarded
inline constexpr ULONG kMailDeletedMark = 0x8;                         // in PR_MSG_STATUS
inline constexpr ULONG kMailRepliedMark = 0x200;                       // there, for one that was forwarded later

// An entry identifier: its bytes. People see what tells it from the default store's own: the place of the first byte
// that differs and the differences up to the last one, in hexadecimal. The whole identifier in hexadecimal is as good.
using EntryBytes = std::string;

inline LPENTRYID entry_of(const EntryBytes& entry) {
    return reinterpret_cast<LPENTRYID>(const_cast<char*>(entry.data()));
}
inline ULONG size_of(const EntryBytes& entry) {
    return static_cast<ULONG>(entry.size());
}
EntryBytes bytes_of(const SBinary& binary);
std::string hexadecimal(const EntryBytes& entry);

// Values of an object, read in one call; what it does not have is not there.
class MailValues {
public:
    MailValues(IMAPIProp* object, const std::vector<ULONG>& tags);
    ~MailValues();
    MailValues(const MailValues&) = delete;
    MailValues& operator=(const MailValues&) = delete;

    bool has(ULONG tag) const { return find(tag) != nullptr; }
    std::string text(ULONG tag) const;  // UTF-8; empty when it is not there
    EntryBytes bytes(ULONG tag) const;
    LONG number(ULONG tag) const;                       // 0 when it is not there
    std::optional<std::int64_t> time(ULONG tag) const;  // in seconds since 1970 UTC

private:
    const SPropValue* find(ULONG tag) const;

    ULONG count_ = 0;
    SPropValue* values_ = nullptr;
};

// Values to be set, with what they point to.
class MailChanges {
public:
    void text(ULONG tag, const std::string& value);  // not when it is empty
    void number(ULONG tag, LONG value);
    void truth(ULONG tag, bool value);
    void time(ULONG tag, std::int64_t seconds);
    void apply(IMAPIProp* object, const char* doing);
    std::vector<SPropValue> values();

private:
    struct Value {
        SPropValue value;
        std::u16string text;
    };
    std::vector<Value> values_;
};

// A folder and its place: the names from the top down.
struct MailFolder {
    EntryBytes entry;
    std::vector<std::string> path;
    LONG messages = 0;
    LONG unread = 0;

    std::string name() const;  // "Work/Reports"
};

// Open as long as the object. For one thread.
class MailSession {
public:
    MailSession();
    ~MailSession();
    MailSession(const MailSession&) = delete;
    MailSession& operator=(const MailSession&) = delete;

    IMAPISession* session() const { return session_.get(); }
    IMsgStore* store() const { return store_.get(); }

    std::string id_of(const EntryBytes& entry) const;
    // Nothing when the text is no identifier.
    std::optional<EntryBytes> entry_of_id(const std::string& id) const;

    // All below the top, each behind the one that it is in.
    std::vector<MailFolder> folders();
    ComPtr<IMAPIFolder> open_folder(const EntryBytes& entry);
    ComPtr<IMAPIFolder> special_folder(ULONG tag);
    // By name or path, ignoring case, '/' between: "inbox", "Work/Reports"; or by identifier. Throws Failure (None).
    ComPtr<IMAPIFolder> folder_named(const std::string& name);
    // The same; made where there is none.
    ComPtr<IMAPIFolder> folder_made(const std::string& name);
    // By its path; made likewise.
    ComPtr<IMAPIFolder> folder_for(const std::vector<std::string>& path);
    ComPtr<IMAPIFolder> saved_folder();  // made where there is none

    // Throws Failure (None) where there is no such message.
    ComPtr<IMessage> message(const EntryBytes& entry, bool change = false);
    ComPtr<IMessage> message_of_id(const std::string& id, EntryBytes& entry);

    // The messages in which all of the words are. Throws Failure (Usage) where there is no word in the text.
    ComPtr<IMAPITable> find_words(const std::string& text);
    // The messages of all stores that have this identifier.
    std::vector<EntryBytes> with_message_id(const std::string& id);

    void begin_batch();
    void commit_batch();
    void rollback_batch();

private:
    IZrMail* extras();
    HRESULT find(const std::string& text, ComPtr<IMAPITable>& table);
    std::optional<EntryBytes> find_folder(const std::string& name);

    ComPtr<IMAPISession> session_;
    ComPtr<IMsgStore> store_;
    ComPtr<IZrMail> extras_;
    EntryBytes store_entry_;
};

// A row of a table: its columns by their place.
class MailCells {
public:
    explicit MailCells(const SRow& row) : row_(row) {}

    std::string text(ULONG column) const;
    LONG number(ULONG column) const;
    EntryBytes bytes(ULONG column) const;
    std::optional<std::int64_t> time(ULONG column) const;

private:
    const SPropValue* find(ULONG column, ULONG type) const;

    const SRow& row_;
};

// Each row of a table with these columns, until `take` gives false.
void each_row(IMAPITable* table, const std::vector<ULONG>& columns, const std::function<bool(const MailCells&)>& take);

// What a list shows of a message.
struct MailRow {
    EntryBytes entry;
    std::optional<std::int64_t> time;
    std::string sender;
    std::string address;
    std::string subject;
    std::string message_class;
    LONG flags = 0;
    LONG size = 0;

    bool is_read() const { return (static_cast<ULONG>(flags) & MSGFLAG_READ) != 0; }
    bool has_attachments() const { return (static_cast<ULONG>(flags) & MSGFLAG_HASATTACH) != 0; }
};

MailRow mail_row_of(IMessage* message);
// Each row of a table of messages, from the first one on, until `take` gives false.
void each_mail_row(IMAPITable* table, const std::function<bool(const MailRow&)>& take);

// The bytes of a value, piece by piece; false when there is no such value.
bool read_mail_stream(IMAPIProp* object, ULONG tag, const std::function<void(const char*, std::size_t)>& take);
// The same of a text, as UTF-8.
bool read_mail_text(IMAPIProp* object, ULONG tag, const std::function<void(std::string_view)>& take);

// A value that is written piece by piece; it is the object's when the writer is finished.
class MailStreamWriter {
public:
    MailStreamWriter(IMAPIProp* object, ULONG tag);

    void write(std::string_view bytes);
    void write_text(std::string_view utf8);  // whole characters
    void finish();

private:
    ComPtr<IStream> stream_;
};

}  // namespace zr
