#include "zr/stores/mail.h"

#include <ZrUtility/Helpers/MapiUtilities.h>
#include <platform/base.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr std::int64_t kSecondsTo1970 = 11644473600;
constexpr std::int64_t kTicks = 10000000;
constexpr LONG kRowsAtOnce = 100;

// A list of tags as calls want it.
class Tags {
public:
    explicit Tags(const std::vector<ULONG>& tags) : words_{static_cast<ULONG>(tags.size())} {
        words_.insert(words_.end(), tags.begin(), tags.end());
    }
    LPSPropTagArray get() { return reinterpret_cast<LPSPropTagArray>(words_.data()); }

private:
    std::vector<ULONG> words_;
};

std::int64_t seconds_of(const FILETIME& time) {
    const auto ticks = static_cast<std::int64_t>(ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime);
    return ticks / kTicks - kSecondsTo1970;
}

FILETIME filetime_of(std::int64_t seconds) {
    const auto ticks = static_cast<ULONGLONG>((seconds + kSecondsTo1970) * kTicks);
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

int digit_of(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::string> from_hexadecimal(const std::string& text) {
    if (text.empty() || text.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digit_of(text[i]);
        const int low = digit_of(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
}

// The difference of two runs of bytes; 0 where one is over.
char difference(const std::string& a, const std::string& b, std::size_t i) {
    return static_cast<char>((i < a.size() ? a[i] : 0) ^ (i < b.size() ? b[i] : 0));
}

std::vector<std::string> parts_of(const std::string& name) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at <= name.size();) {
        const std::size_t end = std::min(name.find('/', at), name.size());
        if (end > at) parts.push_back(name.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

bool same_name(const std::string& a, const std::string& b) {
    return _wcsicmp(to_utf16(a).c_str(), to_utf16(b).c_str()) == 0;
}

bool is_not_there(HRESULT result) {
    return result == MAPI_E_NOT_FOUND || result == MAPI_E_OBJECT_DELETED || result == MAPI_E_INVALID_ENTRYID ||
           result == MAPI_E_UNKNOWN_ENTRYID;
}

}  // namespace

Failure mail_failure(HRESULT result, const std::string& doing) {
    Exit code = Exit::StoreFailed;
    std::string reason = "the message store failed";
    bool refused = false;
    if (result == MAPI_E_NOT_ENOUGH_DISK) {
        code = Exit::DiskFull;
        reason = "the disk is full";
    } else if (result == MAPI_E_VERSION) {
        code = Exit::NewerStore;
        reason = "the message store was written by a newer version";
    } else if (result == MAPI_E_CORRUPT_DATA) {
        code = Exit::DamagedStore;
        reason = "the message store is damaged";
    } else if (result == MAPI_E_BUSY) {
        reason = "another program keeps the message store locked";
    } else if (is_not_there(result)) {
        code = Exit::None;
        reason = "there is no such message or folder";
    } else {
        refused = result == MAPI_E_BAD_VALUE || result == MAPI_E_COLLISION || result == MAPI_E_INVALID_PARAMETER;
    }
    char number[16];
    std::snprintf(number, sizeof number, "0x%08X", static_cast<unsigned>(result));
    return {code, doing + ": " + reason + " (" + number + ")", refused};
}

void check_mail(HRESULT result, const char* doing) {
    if (FAILED(result)) throw mail_failure(result, doing);
}

EntryBytes bytes_of(const SBinary& binary) {
    return {reinterpret_cast<const char*>(binary.lpb), binary.cb};
}

std::string hexadecimal(const EntryBytes& entry) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : entry) {
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

// ---- values --------------------------------------------------------------------------------------------------------

MailValues::MailValues(IMAPIProp* object, const std::vector<ULONG>& tags) {
    Tags list(tags);
    check_mail(object->GetProps(list.get(), MAPI_UNICODE, &count_, &values_), "reading a message");
}

MailValues::~MailValues() {
    MAPIFreeBuffer(values_);
}

const SPropValue* MailValues::find(ULONG tag) const {
    for (ULONG i = 0; i < count_; ++i) {
        if (values_[i].ulPropTag == tag) return &values_[i];
    }
    return nullptr;
}

std::string MailValues::text(ULONG tag) const {
    const SPropValue* const value = find(tag);
    return value != nullptr ? to_utf8(value->Value.lpszW) : std::string();
}

EntryBytes MailValues::bytes(ULONG tag) const {
    const SPropValue* const value = find(tag);
    return value != nullptr ? bytes_of(value->Value.bin) : EntryBytes();
}

LONG MailValues::number(ULONG tag) const {
    const SPropValue* const value = find(tag);
    return value != nullptr ? value->Value.l : 0;
}

std::optional<std::int64_t> MailValues::time(ULONG tag) const {
    const SPropValue* const value = find(tag);
    if (value == nullptr) return std::nullopt;
    return seconds_of(value->Value.ft);
}

void MailChanges::text(ULONG tag, const std::string& value) {
    if (value.empty()) return;
    values_.push_back({{tag, 0, {}}, to_utf16(value)});
}

void MailChanges::number(ULONG tag, LONG value) {
    values_.push_back({{tag, 0, {}}, {}});
    values_.back().value.Value.l = value;
}

void MailChanges::truth(ULONG tag, bool value) {
    values_.push_back({{tag, 0, {}}, {}});
    values_.back().value.Value.b = value ? 1 : 0;
}

void MailChanges::time(ULONG tag, std::int64_t seconds) {
    values_.push_back({{tag, 0, {}}, {}});
    values_.back().value.Value.ft = filetime_of(seconds);
}

std::vector<SPropValue> MailChanges::values() {
    std::vector<SPropValue> list;
    for (Value& each : values_) {
        list.push_back(each.value);
        if (PROP_TYPE(each.value.ulPropTag) == PT_UNICODE) list.back().Value.lpszW = each.text.data();
    }
    return list;
}

void MailChanges::apply(IMAPIProp* object, const char* doing) {
    std::vector<SPropValue> list = values();
    if (!list.empty()) check_mail(object->SetProps(static_cast<ULONG>(list.size()), list.data(), nullptr), doing);
}

// ---- the session ---------------------------------------------------------------------------------------------------

std::string MailFolder::name() const {
    std::string name;
    for (const std::string& part : path) {
        name += (name.empty() ? "" : "/") + part;
    }
    return name;
}

MailSession::MailSession() {
    constexpr const char* opening = "opening the message store";
    check_mail(MAPIInitialize(nullptr), opening);
    HRESULT result = MAPILogonEx(0, nullptr, nullptr, 0, session_.out());
    if (SUCCEEDED(result)) {
        result = session_->OpenMsgStore(0, 0, nullptr, nullptr, MAPI_BEST_ACCESS, store_.out());
    }
    try {
        check_mail(result, opening);
        store_entry_ = MailValues(store_.get(), {PR_ENTRYID}).bytes(PR_ENTRYID);
    } catch (const Failure&) {
        store_.reset();
        session_.reset();
        MAPIUninitialize();
        throw;
    }
}

MailSession::~MailSession() {
    extras_.reset();
    store_.reset();
    session_->Logoff(0, 0, 0);
    session_.reset();
    MAPIUninitialize();
}

IZrMail* MailSession::extras() {
    if (!extras_) check_mail(session_->QueryInterface(IID_IZrMail, extras_.out<void>()), "opening the message store");
    return extras_.get();
}

std::string MailSession::id_of(const EntryBytes& entry) const {
    std::size_t begin = 0;
    std::size_t end = entry.size();
    while (begin < end && difference(entry, store_entry_, begin) == 0) {
        ++begin;
    }
    while (end > begin && difference(entry, store_entry_, end - 1) == 0) {
        --end;
    }
    if (entry.size() != store_entry_.size() || begin > 255 || begin == end) return hexadecimal(entry);
    std::string different(1, static_cast<char>(begin));
    for (std::size_t i = begin; i < end; ++i) {
        different += difference(entry, store_entry_, i);
    }
    return hexadecimal(different);
}

std::optional<EntryBytes> MailSession::entry_of_id(const std::string& id) const {
    std::optional<std::string> bytes = from_hexadecimal(id);
    if (!bytes || bytes->size() > store_entry_.size()) return std::nullopt;
    if (bytes->size() == store_entry_.size()) return bytes;
    EntryBytes entry = store_entry_;
    const auto begin = static_cast<std::size_t>(static_cast<unsigned char>((*bytes)[0]));
    if (bytes->size() < 2 || begin + bytes->size() - 1 > entry.size()) return std::nullopt;
    for (std::size_t i = 1; i < bytes->size(); ++i) {
        entry[begin + i - 1] = static_cast<char>(entry[begin + i - 1] ^ (*bytes)[i]);
    }
    return entry;
}

std::vector<MailFolder> MailSession::folders() {
    const ComPtr<IMAPIFolder> top = special_folder(PR_IPM_SUBTREE_ENTRYID);
    ComPtr<IMAPITable> table;
    check_mail(top->GetHierarchyTable(CONVENIENT_DEPTH, table.out()), "reading the folders");
    std::vector<MailFolder> folders;
    std::vector<std::string> path;
    each_row(table.get(), {PR_ENTRYID, PR_DISPLAY_NAME_W, PR_DEPTH, PR_CONTENT_COUNT, PR_CONTENT_UNREAD},
             [&](const MailCells& row) {
                 const auto depth = static_cast<std::size_t>(std::max<LONG>(1, row.number(2)));
                 path.resize(std::min(path.size(), depth - 1));
                 path.push_back(row.text(1));
                 folders.push_back({row.bytes(0), path, row.number(3), row.number(4)});
                 return true;
             });
    return folders;
}

ComPtr<IMAPIFolder> MailSession::open_folder(const EntryBytes& entry) {
    ComPtr<IMAPIFolder> folder;
    ULONG type = 0;
    check_mail(store_->OpenEntry(size_of(entry), entry_of(entry), &IID_IMAPIFolder, MAPI_MODIFY, &type,
                                 folder.out<IUnknown>()),
               "opening a folder");
    return folder;
}

ComPtr<IMAPIFolder> MailSession::special_folder(ULONG tag) {
    return open_folder(MailValues(store_.get(), {tag}).bytes(tag));
}

std::optional<EntryBytes> MailSession::find_folder(const std::string& name) {
    const std::vector<std::string> wanted = parts_of(name);
    const auto is_it = [&](const MailFolder& folder) {
        return folder.path.size() == wanted.size() &&
               std::equal(wanted.begin(), wanted.end(), folder.path.begin(), same_name);
    };
    const std::vector<MailFolder> all = folders();
    const auto found = std::find_if(all.begin(), all.end(), is_it);
    if (found != all.end()) return found->entry;
    const auto entry = entry_of_id(name);
    const auto same = [&](const MailFolder& folder) { return folder.entry == *entry; };
    return entry && std::any_of(all.begin(), all.end(), same) ? entry : std::nullopt;
}

ComPtr<IMAPIFolder> MailSession::folder_named(const std::string& name) {
    if (const auto entry = find_folder(name)) return open_folder(*entry);
    throw Failure{Exit::None, name + ": no such folder (zr mail folders lists them)"};
}

ComPtr<IMAPIFolder> MailSession::folder_made(const std::string& name) {
    if (const auto entry = find_folder(name)) return open_folder(*entry);
    const std::vector<std::string> path = parts_of(name);
    if (path.empty()) throw Failure{Exit::Usage, "a folder needs a name"};
    return folder_for(path);
}

ComPtr<IMAPIFolder> MailSession::folder_for(const std::vector<std::string>& path) {
    ComPtr<IMAPIFolder> folder = special_folder(PR_IPM_SUBTREE_ENTRYID);
    for (const std::string& name : path) {
        std::u16string wide = to_utf16(name);
        ComPtr<IMAPIFolder> below;
        const HRESULT result =
            folder->CreateFolder(FOLDER_GENERIC, wide.data(), nullptr, nullptr, OPEN_IF_EXISTS, below.out());
        if (FAILED(result)) throw mail_failure(result, "making the folder " + name);
        folder = std::move(below);
    }
    return folder;
}

ComPtr<IMAPIFolder> MailSession::saved_folder() {
    ComPtr<IMAPIFolder> folder;
    *folder.out() = MapiUtilities::GetSavedFolder(session_.get(), store_.get(), nullptr, nullptr);
    if (folder) return folder;
    folder = folder_for({"Saved"});
    MailChanges mark;
    mark.truth(kMailSavedMark, true);
    mark.apply(folder.get(), "making the folder of saved messages");
    return folder;
}

ComPtr<IMessage> MailSession::message(const EntryBytes& entry, bool change) {
    ComPtr<IMessage> message;
    if (!change) {
        const HRESULT result =
            MapiUtilities::OpenMessage(session_.get(), size_of(entry), entry_of(entry), message.out());
        if (result == E_FAIL) throw mail_failure(MAPI_E_NOT_FOUND, "opening a message");
        check_mail(result, "opening a message");
        return message;
    }
    ULONG type = 0;
    const HRESULT result = session_->OpenEntry(size_of(entry), entry_of(entry), &IID_IMessage, MAPI_MODIFY, &type,
                                               message.out<IUnknown>());
    // A folder's or a store's identifier.
    check_mail(result == MAPI_E_INTERFACE_NOT_SUPPORTED ? MAPI_E_NOT_FOUND : result, "opening a message");
    return message;
}

ComPtr<IMessage> MailSession::message_of_id(const std::string& id, EntryBytes& entry) {
    const std::optional<EntryBytes> found = entry_of_id(id);
    if (!found) throw Failure{Exit::None, id + ": no identifier of a message (zr mail list shows them)"};
    entry = *found;
    try {
        return message(entry, true);
    } catch (const Failure& failure) {
        if (failure.code != Exit::None) throw;
        throw Failure{Exit::None, id + ": there is no such message"};
    }
}

HRESULT MailSession::find(const std::string& text, ComPtr<IMAPITable>& table) {
    return extras()->Find(to_utf16(text).c_str(), table.out());
}

ComPtr<IMAPITable> MailSession::find_words(const std::string& text) {
    ComPtr<IMAPITable> table;
    // Nothing at all would be every message.
    const HRESULT result = trimmed(text).empty() ? MAPI_E_INVALID_PARAMETER : find(text, table);
    if (result == MAPI_E_INVALID_PARAMETER) throw Failure{Exit::Usage, text + ": there is no word in it to look for"};
    check_mail(result, "searching");
    return table;
}

std::vector<EntryBytes> MailSession::with_message_id(const std::string& id) {
    ComPtr<IMAPITable> table;
    check_mail(find("", table), "searching");
    std::u16string wide = to_utf16(id);
    SPropValue value = {};
    value.ulPropTag = PR_INTERNET_MESSAGE_ID_W;
    value.Value.lpszW = wide.data();
    SRestriction restriction = {};
    restriction.rt = RES_PROPERTY;
    restriction.res.resProperty = {RELOP_EQ, PR_INTERNET_MESSAGE_ID_W, &value};
    check_mail(table->Restrict(&restriction, 0), "searching");
    std::vector<EntryBytes> found;
    each_row(table.get(), {PR_ENTRYID}, [&](const MailCells& row) {
        found.push_back(row.bytes(0));
        return true;
    });
    return found;
}

void MailSession::begin_batch() {
    check_mail(extras()->BeginBatch(), "storing messages");
}

void MailSession::commit_batch() {
    check_mail(extras()->CommitBatch(), "storing messages");
}

void MailSession::rollback_batch() {
    extras()->RollbackBatch();
}

// ---- rows and streams ----------------------------------------------------------------------------------------------

const SPropValue* MailCells::find(ULONG column, ULONG type) const {
    const bool there = column < row_.cValues && PROP_TYPE(row_.lpProps[column].ulPropTag) == type;
    return there ? &row_.lpProps[column] : nullptr;
}

std::string MailCells::text(ULONG column) const {
    const SPropValue* const value = find(column, PT_UNICODE);
    return value != nullptr ? to_utf8(value->Value.lpszW) : std::string();
}

LONG MailCells::number(ULONG column) const {
    const SPropValue* const value = find(column, PT_LONG);
    return value != nullptr ? value->Value.l : 0;
}

EntryBytes MailCells::bytes(ULONG column) const {
    const SPropValue* const value = find(column, PT_BINARY);
    return value != nullptr ? bytes_of(value->Value.bin) : EntryBytes();
}

std::optional<std::int64_t> MailCells::time(ULONG column) const {
    const SPropValue* const value = find(column, PT_SYSTIME);
    if (value == nullptr) return std::nullopt;
    return seconds_of(value->Value.ft);
}

void each_row(IMAPITable* table, const std::vector<ULONG>& columns, const std::function<bool(const MailCells&)>& take) {
    constexpr const char* reading = "reading a list";
    Tags tags(columns);
    check_mail(table->SetColumns(tags.get(), 0), reading);
    for (bool more = true; more;) {
        LPSRowSet read = nullptr;
        check_mail(table->QueryRows(kRowsAtOnce, 0, &read), reading);
        const std::unique_ptr<SRowSet, decltype(&FreeProws)> rows(read, &FreeProws);
        more = rows->cRows > 0;
        const SRow* row = rows->aRow;
        for (ULONG i = 0; i < rows->cRows && more; ++i, ++row) {
            more = take(MailCells(*row));
        }
    }
}

MailRow mail_row_of(IMessage* message) {
    const MailValues values(message, {PR_ENTRYID, PR_MESSAGE_DELIVERY_TIME, PR_SENDER_NAME_W, PR_SENDER_EMAIL_ADDRESS_W,
                                      PR_SUBJECT_W, PR_MESSAGE_CLASS_W, PR_MESSAGE_FLAGS, PR_MESSAGE_SIZE});
    return {values.bytes(PR_ENTRYID),        values.time(PR_MESSAGE_DELIVERY_TIME),
            values.text(PR_SENDER_NAME_W),   values.text(PR_SENDER_EMAIL_ADDRESS_W),
            values.text(PR_SUBJECT_W),       values.text(PR_MESSAGE_CLASS_W),
            values.number(PR_MESSAGE_FLAGS), values.number(PR_MESSAGE_SIZE)};
}

void each_mail_row(IMAPITable* table, const std::function<bool(const MailRow&)>& take) {
    each_row(table,
             {PR_ENTRYID, PR_MESSAGE_DELIVERY_TIME, PR_SENDER_NAME_W, PR_SENDER_EMAIL_ADDRESS_W, PR_SUBJECT_W,
              PR_MESSAGE_CLASS_W, PR_MESSAGE_FLAGS, PR_MESSAGE_SIZE},
             [&](const MailCells& row) {
                 return take({row.bytes(0), row.time(1), row.text(2), row.text(3), row.text(4), row.text(5),
                              row.number(6), row.number(7)});
             });
}

bool read_mail_stream(IMAPIProp* object, ULONG tag, const std::function<void(const char*, std::size_t)>& take) {
    ComPtr<IStream> stream;
    const HRESULT result = object->OpenProperty(tag, &IID_IStream, 0, 0, stream.out<IUnknown>());
    if (result == MAPI_E_NOT_FOUND) return false;
    check_mail(result, "reading a message");
    std::vector<char> buffer(std::size_t{64} << 10);
    for (;;) {
        ULONG got = 0;
        check_mail(stream->Read(buffer.data(), static_cast<ULONG>(buffer.size()), &got), "reading a message");
        if (got == 0) return true;
        take(buffer.data(), got);
    }
}

bool read_mail_text(IMAPIProp* object, ULONG tag, const std::function<void(std::string_view)>& take) {
    std::string bytes;  // what is no whole character yet
    const auto hand_on = [&](std::size_t units) {
        std::u16string text(units, u'\0');
        std::memcpy(text.data(), bytes.data(), units * sizeof(char16_t));
        bytes.erase(0, units * sizeof(char16_t));
        take(to_utf8(text));
    };
    const bool there = read_mail_stream(object, tag, [&](const char* more, std::size_t size) {
        bytes.append(more, size);
        std::size_t units = bytes.size() / sizeof(char16_t);
        if (units == 0) return;
        char16_t last = 0;
        std::memcpy(&last, bytes.data() + (units - 1) * sizeof last, sizeof last);
        if ((last & 0xFC00) == 0xD800) --units;
        if (units > 0) hand_on(units);
    });
    if (bytes.size() >= sizeof(char16_t)) hand_on(bytes.size() / sizeof(char16_t));
    return there;
}

MailStreamWriter::MailStreamWriter(IMAPIProp* object, ULONG tag) {
    check_mail(object->OpenProperty(tag, &IID_IStream, 0, MAPI_CREATE | MAPI_MODIFY, stream_.out<IUnknown>()),
               "storing a message");
}

void MailStreamWriter::write(std::string_view bytes) {
    if (bytes.empty()) return;
    ULONG written = 0;
    check_mail(stream_->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written), "storing a message");
}

void MailStreamWriter::write_text(std::string_view utf8) {
    const std::u16string text = to_utf16(utf8);
    write({reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t)});
}

void MailStreamWriter::finish() {
    check_mail(stream_->Commit(0), "storing a message");
    stream_.reset();
}

}  // namespace zr
