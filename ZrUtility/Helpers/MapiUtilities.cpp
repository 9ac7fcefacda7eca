#include "ZrUtility/Helpers/MapiUtilities.h"

#include <climits>
#include <cstddef>
#include <cstring>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/Helpers/StringUtilities.h"
#include "platform/base.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\MapiUtilities.cppzrwindowsmobile";
constexpr std::uint32_t LOG_WALK_FAILURE = zrLogCategory(0x14, kZrLogFailure);
constexpr std::uint32_t LOG_WALK_INFORMATION = zrLogCategory(0x14, kZrLogInformation);
constexpr std::uint32_t LOG_MEETING_FAILURE = zrLogCategory(0x34, kZrLogFailure);
constexpr std::uint32_t LOG_MEETING_INFORMATION = zrLogCategory(0x34, kZrLogInformation);

constexpr int LINE_NO_PARENT = 63;
constexpr int LINE_PARENT_NOT_OPENED = 74;
constexpr int LINE_SAVED_FOLDER_FOUND = 259;
constexpr int LINE_STILL_HELD = 379;
constexpr int LINE_FOREIGN_MEETING = 424;
constexpr int LINE_FOREIGN_DELETED = 437;
constexpr int LINE_FOREIGN_NOT_DELETED = 441;

// Set to 1 on the folder that holds saved messages.
constexpr ULONG SAVED_FOLDER_MARK = PROP_TAG(PT_BOOLEAN, 0x602B);

constexpr const WCHAR* MEETING_CLASS = u"IPM.Schedule";
constexpr const WCHAR* OWN_MEETING_NAME = u"Halcyon";

constexpr LONG ROWS_IN_A_BATCH = 10;

// What one GetProps call gave, which goes back to MAPI.
class Properties {
public:
    Properties(IMAPIProp* object, SPropTagArray* tags) {
        m_lResult = object->GetProps(tags, MAPI_UNICODE, &m_ulCount, &m_pValues);
    }
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;
    ~Properties() {
        if (m_pValues != nullptr) MAPIFreeBuffer(m_pValues);
    }

    HRESULT result() const { return m_lResult; }
    // The value in a place, if it is there and has this tag.
    const SPropValue* At(ULONG place, ULONG tag) const {
        const bool there = m_lResult >= 0 && m_pValues != nullptr && place < m_ulCount;
        return there && m_pValues[place].ulPropTag == tag ? &m_pValues[place] : nullptr;
    }

private:
    ULONG m_ulCount = 0;
    SPropValue* m_pValues = nullptr;
    HRESULT m_lResult;
};

// One entry identifier among an object's properties.
class EntryProperty {
public:
    EntryProperty(IMAPIProp* object, ULONG tag) : m_tag{1, {tag}}, m_properties(object, &m_tag) {
        const SPropValue* value = m_properties.At(0, tag);
        if (value != nullptr) m_entry = value->Value.bin;
    }

    // E_FAIL when the object was read but does not have it.
    HRESULT result() const {
        return m_properties.result() >= 0 && m_entry.lpb == nullptr ? E_FAIL : m_properties.result();
    }
    SBinary& entry() { return m_entry; }

private:
    SPropTagArray m_tag;
    Properties m_properties;
    SBinary m_entry = {0, nullptr};
};

LPENTRYID EntryOf(const SBinary& entry) {
    return reinterpret_cast<LPENTRYID>(entry.lpb);
}

HRESULT OpenStoreFolder(IMsgStore* store, const SBinary& entry, IMAPIFolder** folder) {
    ULONG type = 0;
    IUnknown* opened = nullptr;
    const HRESULT result = store->OpenEntry(entry.cb, EntryOf(entry), &IID_IMAPIFolder, MAPI_MODIFY, &type, &opened);
    *folder = result >= 0 ? static_cast<IMAPIFolder*>(opened) : nullptr;
    return result;
}

// Opens the folder that a property of the store names.
HRESULT OpenNamedFolder(IMsgStore* store, ULONG tag, IMAPIFolder** folder) {
    *folder = nullptr;
    EntryProperty named(store, tag);
    return named.result() < 0 ? named.result() : OpenStoreFolder(store, named.entry(), folder);
}

HRESULT MoveMessage(IMessage* message, IMAPIFolder* from, IMAPIFolder* to) {
    EntryProperty moved(message, PR_ENTRYID);
    if (moved.result() < 0) return moved.result();
    ENTRYLIST list = {1, &moved.entry()};
    return from->CopyMessages(&list, nullptr, to, 0, nullptr, MESSAGE_MOVE);
}

template <class Interface>
HRESULT OpenAs(IMAPISession* session, ULONG size, ENTRYID* entry, ULONG wanted, Interface** out) {
    ULONG type = 0;
    IUnknown* opened = nullptr;
    const HRESULT result = session->OpenEntry(size, entry, nullptr, 0, &type, &opened);
    if (result < 0) return result;
    if (type != wanted) {
        if (opened != nullptr) opened->Release();
        return E_FAIL;
    }
    *out = static_cast<Interface*>(opened);
    return result;
}

bool IsMarked(const SRow& row) {
    return row.cValues >= 2 && row.lpProps[0].ulPropTag == SAVED_FOLDER_MARK && row.lpProps[0].Value.b == 1 &&
           row.lpProps[1].ulPropTag == PR_ENTRYID;
}

// The last marked folder of a batch of rows, or NULL.
IMAPIFolder* SavedFolderAmong(IMsgStore* store, const SRowSet& rows, ULONG* size, ENTRYID* entry) {
    IMAPIFolder* found = nullptr;
    for (ULONG i = 0; i < rows.cRows; ++i) {
        if (!IsMarked(rows.aRow[i])) continue;
        const SBinary& marked = rows.aRow[i].lpProps[1].Value.bin;
        IMAPIFolder* folder = nullptr;
        if (OpenStoreFolder(store, marked, &folder) < 0) continue;
        if (found != nullptr) found->Release();
        found = folder;
        if (size != nullptr && entry != nullptr) {
            zrKelDebugBinLog0(LOG_SOURCE, LINE_SAVED_FOLDER_FOUND, LOG_WALK_INFORMATION);
            *size = marked.cb;
            std::memcpy(entry, marked.lpb, marked.cb);
        }
    }
    return found;
}

IMAPIFolder* FindSavedFolder(IMsgStore* store, IMAPITable* folders, ULONG* size, ENTRYID* entry) {
    SizedSPropTagArray(2, columns) = {2, {SAVED_FOLDER_MARK, PR_ENTRYID}};
    if (folders->SetColumns(reinterpret_cast<SPropTagArray*>(&columns), 0) < 0) return nullptr;
    for (;;) {
        SRowSet* rows = nullptr;
        if (folders->QueryRows(ROWS_IN_A_BATCH, 0, &rows) < 0 || rows == nullptr) {
            OutputDebugStringW(u"ERROR:MSG:UTL MapiUtilities::GetSavedFolder() Could not get table rows\r\n");
            return nullptr;
        }
        const bool atEnd = rows->cRows == 0;
        IMAPIFolder* found = SavedFolderAmong(store, *rows, size, entry);
        FreeProws(rows);
        if (found != nullptr || atEnd) return found;
    }
}

}  // namespace

IMAPIProp* MapiUtilities::GetMapiParent(IMAPISession* session, IMAPIProp* object, ULONG type) {
    if (type != MAPI_STORE && type != MAPI_FOLDER) return nullptr;
    SizedSPropTagArray(2, tags) = {2, {PR_PARENT_ENTRYID, PR_STORE_ENTRYID}};
    IMAPIProp* current = object;
    ULONG opened = 0;
    for (;;) {
        const Properties properties(current, reinterpret_cast<SPropTagArray*>(&tags));
        if (current != object) current->Release();
        if (properties.result() < 0) return nullptr;
        const SPropValue* up = type == MAPI_STORE ? properties.At(1, PR_STORE_ENTRYID) : nullptr;
        if (up == nullptr) up = properties.At(0, PR_PARENT_ENTRYID);
        if (up == nullptr) {
            zrKelDebugBinLog0(LOG_SOURCE, LINE_NO_PARENT, LOG_WALK_FAILURE);
            return nullptr;
        }
        IUnknown* parent = nullptr;
        const SBinary& entry = up->Value.bin;
        const HRESULT result = session->OpenEntry(entry.cb, EntryOf(entry), nullptr, MAPI_MODIFY, &opened, &parent);
        if (result < 0) {
            zrKelDebugBinLog1(LOG_SOURCE, LINE_PARENT_NOT_OPENED, LOG_WALK_FAILURE, static_cast<ULONG>(result));
            return nullptr;
        }
        if (opened == 0) opened = MAPI_STORE;
        current = static_cast<IMAPIProp*>(parent);
        if (opened == type) return current;
    }
}

IMAPIFolder* MapiUtilities::GetMsgFolder(IMAPISession* session, IMessage* message) {
    return static_cast<IMAPIFolder*>(GetMapiParent(session, message, MAPI_FOLDER));
}

IMsgStore* MapiUtilities::GetMsgStore(IMAPISession* session, IMAPIFolder* folder) {
    return static_cast<IMsgStore*>(GetMapiParent(session, folder, MAPI_STORE));
}

HRESULT MapiUtilities::OpenFolder(IMAPISession* session, ULONG size, ENTRYID* entry, IMAPIFolder** out) {
    return OpenAs(session, size, entry, MAPI_FOLDER, out);
}

HRESULT MapiUtilities::OpenMessage(IMAPISession* session, ULONG size, ENTRYID* entry, IMessage** out) {
    return OpenAs(session, size, entry, MAPI_MESSAGE, out);
}

HRESULT MapiUtilities::DeleteMessage(IMAPISession* session, IMessage* message) {
    IMAPIFolder* folder = GetMsgFolder(session, message);
    if (folder == nullptr) return E_FAIL;
    IMsgStore* store = GetMsgStore(session, folder);
    if (store == nullptr) {
        folder->Release();
        return E_FAIL;
    }
    IMAPIFolder* deletedItems = nullptr;
    HRESULT result = OpenNamedFolder(store, PR_IPM_WASTEBASKET_ENTRYID, &deletedItems);
    if (result >= 0) result = MoveMessage(message, folder, deletedItems);
    if (deletedItems != nullptr) deletedItems->Release();
    store->Release();
    folder->Release();
    return result;
}

HRESULT MapiUtilities::DeleteMessagePermanently(IMAPISession* session, IMessage* message) {
    IMAPIFolder* folder = GetMsgFolder(session, message);
    if (folder == nullptr) return E_FAIL;
    EntryProperty deleted(message, PR_ENTRYID);
    HRESULT result = deleted.result();
    if (result >= 0) {
        ENTRYLIST list = {1, &deleted.entry()};
        result = folder->DeleteMessages(&list, 0, nullptr, 0);
    }
    folder->Release();
    return result;
}

IMAPIFolder* MapiUtilities::GetSavedFolder(IMAPISession*, IMsgStore* store, ULONG* size, ENTRYID* entry) {
    IMAPIFolder* top = nullptr;
    if (OpenNamedFolder(store, PR_IPM_SUBTREE_ENTRYID, &top) < 0) return nullptr;
    IMAPIFolder* found = nullptr;
    IMAPITable* folders = nullptr;
    if (top->GetHierarchyTable(0, &folders) >= 0) {
        found = FindSavedFolder(store, folders, size, entry);
        folders->Release();
    }
    top->Release();
    return found;
}

HRESULT MapiUtilities::MoveMsgToSavedFolder(IMAPISession* session, IMessage* message) {
    IMAPIFolder* folder = GetMsgFolder(session, message);
    if (folder == nullptr) return E_FAIL;
    HRESULT result = E_FAIL;
    IMsgStore* store = GetMsgStore(session, folder);
    if (store != nullptr) {
        IMAPIFolder* saved = GetSavedFolder(session, store, nullptr, nullptr);
        if (saved != nullptr) {
            result = MoveMessage(message, folder, saved);
            saved->Release();
        }
        store->Release();
    }
    folder->Release();
    return result;
}

HRESULT MapiUtilities::CheckMeetingMessage(IMAPISession* session, IMessage* message, bool deleteForeign,
                                           bool* isMeeting, bool* isForeign) {
    if (isMeeting == nullptr || isForeign == nullptr) return E_FAIL;
    *isMeeting = false;
    *isForeign = false;
    HRESULT result = S_OK;
    {
        SPropTagArray tag = {1, {PR_MESSAGE_CLASS_W}};
        const Properties properties(message, &tag);
        result = properties.result();
        const SPropValue* value = properties.At(0, PR_MESSAGE_CLASS_W);
        WCHAR* messageClass = value != nullptr ? value->Value.lpszW : nullptr;
        *isMeeting = isMeetingFormName(messageClass);
        if (*isMeeting && !isZrMeetingFormName(messageClass)) {
            *isForeign = true;
            zrKelDebugBinLog0(LOG_SOURCE, LINE_FOREIGN_MEETING, LOG_MEETING_INFORMATION);
        }
    }
    if (!deleteForeign || !*isForeign) return result;
    result = DeleteMessagePermanently(session, message);
    if (result >= 0) {
        zrKelDebugBinLog0(LOG_SOURCE, LINE_FOREIGN_DELETED, LOG_MEETING_INFORMATION);
    } else {
        zrKelDebugBinLog1(LOG_SOURCE, LINE_FOREIGN_NOT_DELETED, LOG_MEETING_FAILURE, static_cast<ULONG>(result));
    }
    return result;
}

HRESULT MapiUtilities::CheckMeetingMessage(IMAPISession* session, ULONG size, ENTRYID* entry, bool deleteForeign,
                                           bool* isMeeting, bool* isForeign) {
    if (isMeeting == nullptr || isForeign == nullptr) return E_FAIL;
    *isMeeting = false;
    *isForeign = false;
    IMessage* message = nullptr;
    const HRESULT opened = OpenMessage(session, size, entry, &message);
    if (opened < 0) return opened;
    CheckMeetingMessage(session, message, deleteForeign, isMeeting, isForeign);
    const auto held = static_cast<HRESULT>(message->Release());
    if (held < 0) zrKelDebugBinLog1(LOG_SOURCE, LINE_STILL_HELD, LOG_MEETING_FAILURE, static_cast<ULONG>(held));
    return held;
}

bool MapiUtilities::isMeetingFormName(WCHAR* messageClass) {
    return messageClass != nullptr && wcsncmp(messageClass, MEETING_CLASS, wcslen(MEETING_CLASS)) == 0;
}

bool MapiUtilities::isZrMeetingFormName(WCHAR* messageClass) {
    return isMeetingFormName(messageClass) && wcsstr(messageClass, OWN_MEETING_NAME) != nullptr;
}

ULONG MapiUtilities::GetLength(IStream* stream) {
    if (stream == nullptr) return 0;
    STATSTG stat = {};
    return stream->Stat(&stat, STATFLAG_NONAME) >= 0 ? stat.cbSize.u.LowPart : 0;
}

WCHAR* MapiUtilities::fixToFields(const WCHAR* recipients) {
    if (recipients == nullptr) return nullptr;
    while (*recipients == u' ')
        ++recipients;
    const std::size_t length = wcslen(recipients);
    if (length > INT_MAX - 2) return nullptr;
    WCHAR* fixed = StringUtilities::NewString(static_cast<int>(length) + 2);
    if (fixed == nullptr) return nullptr;
    WCHAR* end = fixed;
    bool separated = false;
    for (std::size_t i = 0; i < length; ++i) {
        const WCHAR character = recipients[i];
        const bool opensPair = character == u'<' && recipients[i + 1] == u'>';
        const bool closesPair = character == u'>' && i > 0 && recipients[i - 1] == u'<';
        if (character == u'"' || opensPair || closesPair) continue;
        separated = separated || character == u';';
        *end++ = character == u'\\' ? u'"' : character;
    }
    // The place of the separator stays free when there is one already.
    if (!separated) *end = u';';
    end[1] = u'\0';
    return fixed;
}
