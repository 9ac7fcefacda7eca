#pragma once

// Messaging (CE MAPI): message stores that all of the user's programs share.
//
//     MAPIInitialize(nullptr);
//     MAPILogonEx(0, nullptr, nullptr, 0, &session);
//     session->GetMsgStoresTable(MAPI_UNICODE, &table);  // PR_ENTRYID, PR_DISPLAY_NAME, PR_DEFAULT_STORE
//     session->OpenMsgStore(0, cb, entry, nullptr, MAPI_BEST_ACCESS, &store);
//     store->OpenEntry(cb, inbox, nullptr, MAPI_MODIFY, &type, &unknown);
//
// A store is one account. Each has a top folder (PR_IPM_SUBTREE_ENTRYID) with the folders Inbox, Outbox, Sent Items,
// Drafts and Deleted Items, which can be neither deleted nor moved. The first logon of a user makes one store, the
// default one, "Mail".
//
// Results. S_OK unless stated. MAPI_E_NO_SUPPORT: what this system does not offer; each call of that kind says so
// below. MAPI_E_INVALID_PARAMETER: a null output, an impossible argument. MAPI_E_UNKNOWN_FLAGS: a flag that a call does
// not know. MAPI_E_INVALID_ENTRYID: no entry identifier of this system. MAPI_E_NOT_FOUND: there is no such object any
// more. MAPI_E_OBJECT_DELETED: the object in hand was deleted meanwhile, by whichever program. MAPI_E_NO_ACCESS: a
// change of what was opened without MAPI_MODIFY or MAPI_BEST_ACCESS; a change that is not allowed.
// MAPI_E_END_OF_SESSION: after Logoff. Store failures: MAPI_E_NOT_ENOUGH_DISK; MAPI_E_BUSY (another program kept the
// store locked for more than five seconds); MAPI_E_CORRUPT_DATA (the file is damaged and was set aside; the next call
// finds a new, empty store); MAPI_E_VERSION (written by a newer version); MAPI_E_DISK_ERROR; MAPI_E_NO_ACCESS;
// MAPI_E_NOT_ENOUGH_MEMORY; MAPI_E_CALL_FAILED. A call that fails leaves the store as it was. GetLastError gives a
// sentence about the calling thread's last failure.
//
// One call that changes something is one change: all of it is kept or nothing, at whichever moment the process ends.
// Folders and stores keep each property at once. A message, its recipients and its attachments are kept by the
// message's SaveChanges.
//
// Ownership. Interfaces handed out are given back with Release. Values, rows and entry identifiers handed out lie in
// buffers of MAPIAllocateBuffer: MAPIFreeBuffer gives back the buffer and what is linked to it; a row set goes back
// with FreeProws. Outputs are null (0) after a failure. What goes in is copied.
//
// Text is UTF-16, valid or not, and comes back unit by unit. MAPI_UNICODE may be given or not, it changes nothing;
// 8-bit text (PT_STRING8) is not kept: MAPI_E_BAD_CHARWIDTH.
//
// Threads. Any thread may use any object, one at a time per object; reference counts are safe anywhere.
//
// Entry identifiers stay the same for the life of an object, also when it is moved within its store, and are never
// handed out again. They name their store: an object that is moved to another one gets another. Compare them with
// CompareEntryIDs or byte by byte.
//
// Freshness. What a program kept before a call began is seen by that call. A message in hand shows what was kept when
// it is asked, with its own unsaved changes laid over it. For tables see IMAPITable.

#include "platform/com.h"
#include "platform/errors.h"
#include "platform/export.h"
#include "platform/mapi_structures.h"
#include "platform/mapi_tags.h"
#include "platform/types.h"

// --- results --------------------------------------------------------------------------------------------------------
inline constexpr HRESULT MAPI_E_CALL_FAILED = E_FAIL;
inline constexpr HRESULT MAPI_E_NOT_ENOUGH_MEMORY = E_OUTOFMEMORY;
inline constexpr HRESULT MAPI_E_INVALID_PARAMETER = E_INVALIDARG;
inline constexpr HRESULT MAPI_E_INTERFACE_NOT_SUPPORTED = E_NOINTERFACE;
inline constexpr HRESULT MAPI_E_NO_ACCESS = E_ACCESSDENIED;
inline constexpr HRESULT MAPI_E_NO_SUPPORT = ZRPLATFORM_HRESULT(0x80040102);
inline constexpr HRESULT MAPI_E_BAD_CHARWIDTH = ZRPLATFORM_HRESULT(0x80040103);
inline constexpr HRESULT MAPI_E_STRING_TOO_LONG = ZRPLATFORM_HRESULT(0x80040105);
inline constexpr HRESULT MAPI_E_UNKNOWN_FLAGS = ZRPLATFORM_HRESULT(0x80040106);
inline constexpr HRESULT MAPI_E_INVALID_ENTRYID = ZRPLATFORM_HRESULT(0x80040107);
inline constexpr HRESULT MAPI_E_INVALID_OBJECT = ZRPLATFORM_HRESULT(0x80040108);
inline constexpr HRESULT MAPI_E_OBJECT_CHANGED = ZRPLATFORM_HRESULT(0x80040109);
inline constexpr HRESULT MAPI_E_OBJECT_DELETED = ZRPLATFORM_HRESULT(0x8004010A);
inline constexpr HRESULT MAPI_E_BUSY = ZRPLATFORM_HRESULT(0x8004010B);
inline constexpr HRESULT MAPI_E_NOT_ENOUGH_DISK = ZRPLATFORM_HRESULT(0x8004010D);
inline constexpr HRESULT MAPI_E_NOT_ENOUGH_RESOURCES = ZRPLATFORM_HRESULT(0x8004010E);
inline constexpr HRESULT MAPI_E_NOT_FOUND = ZRPLATFORM_HRESULT(0x8004010F);
inline constexpr HRESULT MAPI_E_VERSION = ZRPLATFORM_HRESULT(0x80040110);
inline constexpr HRESULT MAPI_E_LOGON_FAILED = ZRPLATFORM_HRESULT(0x80040111);
inline constexpr HRESULT MAPI_E_DISK_ERROR = ZRPLATFORM_HRESULT(0x80040116);
inline constexpr HRESULT MAPI_E_TOO_COMPLEX = ZRPLATFORM_HRESULT(0x80040117);
inline constexpr HRESULT MAPI_E_COMPUTED = ZRPLATFORM_HRESULT(0x8004011A);
inline constexpr HRESULT MAPI_E_CORRUPT_DATA = ZRPLATFORM_HRESULT(0x8004011B);
inline constexpr HRESULT MAPI_E_END_OF_SESSION = ZRPLATFORM_HRESULT(0x80040200);
inline constexpr HRESULT MAPI_E_UNKNOWN_ENTRYID = ZRPLATFORM_HRESULT(0x80040201);
inline constexpr HRESULT MAPI_E_BAD_VALUE = ZRPLATFORM_HRESULT(0x80040301);
inline constexpr HRESULT MAPI_E_INVALID_TYPE = ZRPLATFORM_HRESULT(0x80040302);
inline constexpr HRESULT MAPI_E_TYPE_NO_SUPPORT = ZRPLATFORM_HRESULT(0x80040303);
inline constexpr HRESULT MAPI_E_UNEXPECTED_TYPE = ZRPLATFORM_HRESULT(0x80040304);
inline constexpr HRESULT MAPI_E_TOO_BIG = ZRPLATFORM_HRESULT(0x80040305);
inline constexpr HRESULT MAPI_E_INVALID_BOOKMARK = ZRPLATFORM_HRESULT(0x80040405);
inline constexpr HRESULT MAPI_E_COLLISION = ZRPLATFORM_HRESULT(0x80040604);
inline constexpr HRESULT MAPI_E_NOT_INITIALIZED = ZRPLATFORM_HRESULT(0x80040605);
inline constexpr HRESULT MAPI_E_HAS_FOLDERS = ZRPLATFORM_HRESULT(0x80040609);
inline constexpr HRESULT MAPI_E_HAS_MESSAGES = ZRPLATFORM_HRESULT(0x8004060A);
inline constexpr HRESULT MAPI_E_FOLDER_CYCLE = ZRPLATFORM_HRESULT(0x8004060B);
inline constexpr HRESULT MAPI_W_ERRORS_RETURNED = 0x00040380;
inline constexpr HRESULT MAPI_W_PARTIAL_COMPLETION = 0x00040680;

// --- flags and numbers ----------------------------------------------------------------------------------------------
inline constexpr ULONG MAPI_UNICODE = 0x80000000;
inline constexpr ULONG MAPI_MODIFY = 0x00000001;
inline constexpr ULONG MAPI_CREATE = 0x00000002;
inline constexpr ULONG MAPI_DEFERRED_ERRORS = 0x00000008;
inline constexpr ULONG MAPI_BEST_ACCESS = 0x00000010;
inline constexpr ULONG MDB_NO_DIALOG = 0x00000001;
inline constexpr ULONG MDB_WRITE = 0x00000004;

// PR_OBJECT_TYPE and the type that OpenEntry reports.
inline constexpr ULONG MAPI_STORE = 1;
inline constexpr ULONG MAPI_FOLDER = 3;
inline constexpr ULONG MAPI_MESSAGE = 5;
inline constexpr ULONG MAPI_MAILUSER = 6;  // a row of recipients
inline constexpr ULONG MAPI_ATTACH = 7;
inline constexpr ULONG MAPI_SESSION = 9;

inline constexpr ULONG MAPI_ACCESS_MODIFY = 0x01;
inline constexpr ULONG MAPI_ACCESS_READ = 0x02;
inline constexpr ULONG MAPI_ACCESS_DELETE = 0x04;

// CopyMessages, CopyFolder, CopyTo.
inline constexpr ULONG MESSAGE_MOVE = 0x01;
inline constexpr ULONG MESSAGE_DIALOG = 0x02;
inline constexpr ULONG FOLDER_MOVE = 0x01;
inline constexpr ULONG FOLDER_DIALOG = 0x02;
inline constexpr ULONG COPY_SUBFOLDERS = 0x10;
inline constexpr ULONG MAPI_MOVE = 0x01;
inline constexpr ULONG MAPI_NOREPLACE = 0x02;
// CreateFolder.
inline constexpr ULONG FOLDER_ROOT = 0;
inline constexpr ULONG FOLDER_GENERIC = 1;
inline constexpr ULONG FOLDER_SEARCH = 2;
inline constexpr ULONG OPEN_IF_EXISTS = 0x01;
// DeleteFolder.
inline constexpr ULONG DEL_MESSAGES = 0x01;
inline constexpr ULONG DEL_FOLDERS = 0x04;
// GetHierarchyTable: the folders below the folder's own as well.
inline constexpr ULONG CONVENIENT_DEPTH = 0x01;
inline constexpr ULONG MAPI_ASSOCIATED = 0x40;
// SaveChanges.
inline constexpr ULONG KEEP_OPEN_READONLY = 0x01;
inline constexpr ULONG KEEP_OPEN_READWRITE = 0x02;
inline constexpr ULONG FORCE_SAVE = 0x04;
// SetReadFlag.
inline constexpr ULONG SUPPRESS_RECEIPT = 0x01;
inline constexpr ULONG CLEAR_READ_FLAG = 0x04;
// ModifyRecipients; 0 replaces all of them.
inline constexpr ULONG MODRECIP_ADD = 0x02;
inline constexpr ULONG MODRECIP_MODIFY = 0x04;
inline constexpr ULONG MODRECIP_REMOVE = 0x08;

// PR_MESSAGE_FLAGS.
inline constexpr ULONG MSGFLAG_READ = 0x01;
inline constexpr ULONG MSGFLAG_UNMODIFIED = 0x02;
inline constexpr ULONG MSGFLAG_SUBMIT = 0x04;
inline constexpr ULONG MSGFLAG_UNSENT = 0x08;
inline constexpr ULONG MSGFLAG_HASATTACH = 0x10;
inline constexpr ULONG MSGFLAG_FROMME = 0x20;

// PR_VALID_FOLDER_MASK.
inline constexpr ULONG FOLDER_IPM_SUBTREE_VALID = 0x01;
inline constexpr ULONG FOLDER_IPM_INBOX_VALID = 0x02;
inline constexpr ULONG FOLDER_IPM_OUTBOX_VALID = 0x04;
inline constexpr ULONG FOLDER_IPM_WASTEBASKET_VALID = 0x08;
inline constexpr ULONG FOLDER_IPM_SENTMAIL_VALID = 0x10;

// PR_STORE_SUPPORT_MASK.
inline constexpr ULONG STORE_ENTRYID_UNIQUE = 0x00000001;
inline constexpr ULONG STORE_MODIFY_OK = 0x00000008;
inline constexpr ULONG STORE_CREATE_OK = 0x00000010;
inline constexpr ULONG STORE_ATTACH_OK = 0x00000020;
inline constexpr ULONG STORE_NOTIFY_OK = 0x00000100;
inline constexpr ULONG STORE_RESTRICTION_OK = 0x00001000;
inline constexpr ULONG STORE_SORT_OK = 0x00002000;
inline constexpr ULONG STORE_UNICODE_OK = 0x00040000;

// Tables.
using BOOKMARK = ULONG;
inline constexpr BOOKMARK BOOKMARK_BEGINNING = 0;
inline constexpr BOOKMARK BOOKMARK_CURRENT = 1;
inline constexpr BOOKMARK BOOKMARK_END = 2;
inline constexpr ULONG TBL_ALL_COLUMNS = 0x01;
inline constexpr ULONG TBL_NOADVANCE = 0x01;
inline constexpr ULONG TBL_BATCH = 0x02;
inline constexpr ULONG DIR_BACKWARD = 0x01;
inline constexpr ULONG TBLSTAT_COMPLETE = 0;
inline constexpr ULONG TBLTYPE_DYNAMIC = 2;

// --- interfaces -----------------------------------------------------------------------------------------------------
struct IMAPITable;
struct IMAPIFolder;
struct IMsgStore;
struct IMessage;
struct IAttach;
struct MAPINAMEID;

// Not offered by this system: null wherever one is expected.
struct IMAPIProgress;

using LPMAPITABLE = IMAPITable*;
using LPMAPIFOLDER = IMAPIFolder*;
using LPMDB = IMsgStore*;
using LPMESSAGE = IMessage*;
using LPATTACH = IAttach*;
using LPCIID = const IID*;

// What a program passes to Advise. Notifications reach the thread that called Advise, from within its DispatchMessageW:
// the thread takes its messages (GetMessageW or PeekMessageW, also behind MsgWaitForMultipleObjectsEx) and dispatches
// them. No other message, and no clock, is needed. They come in the order in which the changes were kept, each exactly
// once, from this process and from others, many in one call where many wait; a thread that takes no messages for long
// misses none. The structures are valid during the call.
struct IMAPIAdviseSink : IUnknown {
    virtual ULONG OnNotify(ULONG count, LPNOTIFICATION notifications) = 0;  // the result is not looked at

protected:
    ~IMAPIAdviseSink() = default;
};
using LPMAPIADVISESINK = IMAPIAdviseSink*;

// The properties of a store, a folder, a message or an attachment.
struct IMAPIProp : IUnknown {
    // A sentence about the calling thread's last failure; *error is null when there is none. One buffer.
    virtual HRESULT GetLastError(HRESULT result, ULONG flags, LPMAPIERROR* error) = 0;
    // Messages and attachments: keeps the changes. Others have nothing to keep: S_OK. KEEP_OPEN_READWRITE or nothing:
    // the object can be changed on; KEEP_OPEN_READONLY: it cannot. MAPI_E_OBJECT_CHANGED: somebody else has changed the
    // message since it was opened or last saved, and nothing was kept; FORCE_SAVE keeps it nevertheless.
    virtual HRESULT SaveChanges(ULONG flags) = 0;
    // One value per tag, in that order; without tags (null) all there are. What cannot be given is a PT_ERROR entry
    // with the tag's identifier: MAPI_E_NOT_FOUND, MAPI_E_UNEXPECTED_TYPE, MAPI_E_BAD_CHARWIDTH, or
    // MAPI_E_NOT_ENOUGH_MEMORY for a value of more than 32 KiB: open it as a stream. The result is
    // MAPI_W_ERRORS_RETURNED then. PT_UNSPECIFIED asks for whatever type there is.
    virtual HRESULT GetProps(LPSPropTagArray tags, ULONG flags, ULONG* count, LPSPropValue* values) = 0;
    virtual HRESULT GetPropList(ULONG flags, LPSPropTagArray* tags) = 0;
    // As IID_IStream: a text or binary property, of any size, of which a little is held in memory. MAPI_MODIFY: to be
    // written, MAPI_CREATE besides: anew, also when it is not there. What was written becomes the object's with Commit
    // or with the last Release, and is kept by SaveChanges. Text streams hold UTF-16 without a terminator. A
    // reading stream fails with MAPI_E_OBJECT_CHANGED once the value was replaced by another program. As
    // IID_IMAPITable: PR_MESSAGE_RECIPIENTS, PR_MESSAGE_ATTACHMENTS, PR_CONTAINER_HIERARCHY, PR_CONTAINER_CONTENTS.
    virtual HRESULT OpenProperty(ULONG tag, LPCIID iid, ULONG interfaceOptions, ULONG flags, IUnknown** object) = 0;
    // Properties that cannot be set are named in *problems where that is asked for (not null; null then when there are
    // none): MAPI_E_COMPUTED, MAPI_E_TYPE_NO_SUPPORT (multi-valued), MAPI_E_BAD_CHARWIDTH. PT_ERROR, PT_NULL and
    // PT_OBJECT entries are passed over.
    virtual HRESULT SetProps(ULONG count, LPSPropValue values, LPSPropProblemArray* problems) = 0;
    virtual HRESULT DeleteProps(LPSPropTagArray tags, LPSPropProblemArray* problems) = 0;
    // Copies all properties but the computed and the excluded ones to an object of the same kind; a message's
    // recipients and attachments as well, unless PR_MESSAGE_RECIPIENTS or PR_MESSAGE_ATTACHMENTS are excluded. The
    // target's others stay; MAPI_NOREPLACE: the ones that it has, too. A folder's messages and folders are not copied
    // (CopyFolder). MAPI_MOVE: MAPI_E_NO_SUPPORT. The target's SaveChanges keeps what was copied.
    virtual HRESULT CopyTo(ULONG excludedInterfaces, LPCIID excluded, LPSPropTagArray excludedTags, ULONG_PTR uiParam,
                           IMAPIProgress* progress, LPCIID iid, void* target, ULONG flags,
                           LPSPropProblemArray* problems) = 0;
    virtual HRESULT CopyProps(LPSPropTagArray tags, ULONG_PTR uiParam, IMAPIProgress* progress, LPCIID iid,
                              void* target, ULONG flags, LPSPropProblemArray* problems) = 0;  // MAPI_E_NO_SUPPORT
    virtual HRESULT GetNamesFromIDs(LPSPropTagArray* tags, GUID* set, ULONG flags, ULONG* count,
                                    MAPINAMEID*** names) = 0;  // MAPI_E_NO_SUPPORT
    virtual HRESULT GetIDsFromNames(ULONG count, MAPINAMEID** names, ULONG flags,
                                    LPSPropTagArray* tags) = 0;  // MAPI_E_NO_SUPPORT

protected:
    ~IMAPIProp() = default;
};
using LPMAPIPROP = IMAPIProp*;

// Rows of properties: of stores, folders, messages, recipients or attachments.
//
// A table stands before one of its rows. A contents table in its own order (PR_MESSAGE_DELIVERY_TIME, oldest first) or
// sorted by that property alone, in either direction, shows messages that come or go while it is read; sorted by others
// it shows the messages that there were when it was sorted, less those that are gone. Other tables show what there was
// when they were made. In either case a row shows the values of the moment it is read.
struct IMAPITable : IUnknown {
    virtual HRESULT GetLastError(HRESULT result, ULONG flags, LPMAPIERROR* error) = 0;
    virtual HRESULT Advise(ULONG mask, LPMAPIADVISESINK sink, ULONG* connection) = 0;  // MAPI_E_NO_SUPPORT
    virtual HRESULT Unadvise(ULONG connection) = 0;                                    // MAPI_E_NO_SUPPORT
    virtual HRESULT GetStatus(ULONG* status, ULONG* type) = 0;  // TBLSTAT_COMPLETE, TBLTYPE_DYNAMIC
    // Which properties rows have, in that order; What a row lacks is a PT_ERROR entry. TBL_BATCH changes nothing.
    virtual HRESULT SetColumns(LPSPropTagArray tags, ULONG flags) = 0;
    virtual HRESULT QueryColumns(ULONG flags, LPSPropTagArray* tags) = 0;
    virtual HRESULT GetRowCount(ULONG flags, ULONG* count) = 0;
    // From a BOOKMARK_*; the position stops at either end. *sought, which may be null: how far it went.
    virtual HRESULT SeekRow(BOOKMARK from, LONG count, LONG* sought) = 0;
    virtual HRESULT SeekRowApprox(ULONG numerator, ULONG denominator) = 0;                // MAPI_E_NO_SUPPORT
    virtual HRESULT QueryPosition(ULONG* row, ULONG* numerator, ULONG* denominator) = 0;  // MAPI_E_NO_SUPPORT
    // Stands before the first row from there on that fits, with DIR_BACKWARD the last one before it. MAPI_E_NOT_FOUND:
    // none does, and the position is as before.
    virtual HRESULT FindRow(LPSRestriction restriction, BOOKMARK from, ULONG flags) = 0;
    // Shows what fits, from the beginning; null: everything. MAPI_E_TOO_COMPLEX: nested deeper than 64, or of a kind
    // that is not listed.
    virtual HRESULT Restrict(LPSRestriction restriction, ULONG flags) = 0;
    virtual HRESULT CreateBookmark(BOOKMARK* bookmark) = 0;  // MAPI_E_NO_SUPPORT
    virtual HRESULT FreeBookmark(BOOKMARK bookmark) = 0;     // MAPI_E_NO_SUPPORT
    // By any properties (text ignores case, rows without the property come first), from the beginning; null: the
    // table's own order. Categories: MAPI_E_NO_SUPPORT. More than eight: MAPI_E_TOO_COMPLEX.
    virtual HRESULT SortTable(LPSSortOrderSet order, ULONG flags) = 0;
    virtual HRESULT QuerySortOrder(LPSSortOrderSet* order) = 0;
    // At most `count` rows from here on, and stands behind them unless TBL_NOADVANCE; none at the end. A value of more
    // than 32 KiB, or one that is missing, is a PT_ERROR entry as with GetProps. A negative count: MAPI_E_NO_SUPPORT.
    virtual HRESULT QueryRows(LONG count, ULONG flags, LPSRowSet* rows) = 0;
    virtual HRESULT Abort() = 0;  // S_OK
    virtual HRESULT ExpandRow(ULONG size, BYTE* key, ULONG count, ULONG flags, LPSRowSet* rows,
                              ULONG* more) = 0;                                         // MAPI_E_NO_SUPPORT
    virtual HRESULT CollapseRow(ULONG size, BYTE* key, ULONG flags, ULONG* count) = 0;  // MAPI_E_NO_SUPPORT
    virtual HRESULT WaitForCompletion(ULONG flags, ULONG timeout, ULONG* status) = 0;   // S_OK, at once
    virtual HRESULT GetCollapseState(ULONG flags, ULONG size, BYTE* key, ULONG* stateSize, BYTE** state) = 0;
    virtual HRESULT SetCollapseState(ULONG flags, ULONG size, BYTE* state,
                                     BOOKMARK* bookmark) = 0;  // both: MAPI_E_NO_SUPPORT

protected:
    ~IMAPITable() = default;
};

struct IMAPIContainer : IMAPIProp {
    // The folder's messages. Columns at first: PR_ENTRYID, PR_PARENT_ENTRYID, PR_MESSAGE_CLASS, PR_SUBJECT,
    // PR_SENDER_NAME, PR_SENDER_EMAIL_ADDRESS, PR_MESSAGE_DELIVERY_TIME, PR_MESSAGE_FLAGS, PR_MESSAGE_SIZE.
    // MAPI_ASSOCIATED: MAPI_E_NO_SUPPORT.
    virtual HRESULT GetContentsTable(ULONG flags, LPMAPITABLE* table) = 0;
    // The folder's own folders in the order of their making; CONVENIENT_DEPTH: all below it, each behind the one it is
    // in. Columns at first: PR_ENTRYID, PR_DISPLAY_NAME, PR_PARENT_ENTRYID, PR_DEPTH, PR_FOLDER_TYPE, PR_CONTENT_COUNT,
    // PR_CONTENT_UNREAD, PR_SUBFOLDERS; any property of a folder can be a column.
    virtual HRESULT GetHierarchyTable(ULONG flags, LPMAPITABLE* table) = 0;
    // Any folder or message of the folder's store. Null `iid`: IMAPIFolder or IMessage.
    virtual HRESULT OpenEntry(ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags, ULONG* type, IUnknown** object) = 0;
    virtual HRESULT SetSearchCriteria(LPSRestriction restriction, LPENTRYLIST containers, ULONG flags) = 0;
    virtual HRESULT GetSearchCriteria(ULONG flags, LPSRestriction* restriction, LPENTRYLIST* containers,
                                      ULONG* state) = 0;  // both: MAPI_E_NO_SUPPORT

protected:
    ~IMAPIContainer() = default;
};

struct IMAPIFolder : IMAPIContainer {
    // A new message, which is in the folder once it was saved. PR_MESSAGE_FLAGS is MSGFLAG_UNSENT | MSGFLAG_READ, the
    // class "IPM.Note", the delivery time that of the first save, unless they are set before. Saved into an Inbox,
    // unread and not MSGFLAG_UNSENT, it is new mail (fnevNewMail besides fnevObjectCreated).
    virtual HRESULT CreateMessage(LPCIID iid, ULONG flags, LPMESSAGE* message) = 0;
    // Messages of this folder to another one, also of another store, which `destination` is as `iid` (null:
    // IMAPIFolder). MESSAGE_MOVE takes them away here. What is not in this folder (any more) is passed over, and the
    // result is MAPI_W_PARTIAL_COMPLETION; the others are copied or moved, all at once. MESSAGE_DIALOG changes nothing.
    virtual HRESULT CopyMessages(LPENTRYLIST messages, LPCIID iid, void* destination, ULONG_PTR uiParam,
                                 IMAPIProgress* progress, ULONG flags) = 0;
    // For good. The rest as CopyMessages.
    virtual HRESULT DeleteMessages(LPENTRYLIST messages, ULONG_PTR uiParam, IMAPIProgress* progress, ULONG flags) = 0;
    // FOLDER_GENERIC, named as no other folder beside it (ignoring case): MAPI_E_COLLISION; with OPEN_IF_EXISTS that
    // one is opened. MAPI_E_BAD_VALUE: an empty name, or one of more than 255 characters.
    virtual HRESULT CreateFolder(ULONG type, LPWSTR name, LPWSTR comment, LPCIID iid, ULONG flags,
                                 LPMAPIFOLDER* folder) = 0;
    // A folder of this folder into another one, with its messages, under `newName` unless that is null.
    // COPY_SUBFOLDERS: and all that is below it; FOLDER_MOVE implies that. MAPI_E_COLLISION; MAPI_E_FOLDER_CYCLE: into
    // itself or what is below it; MAPI_E_NO_ACCESS: one of a store's own folders is not moved.
    virtual HRESULT CopyFolder(ULONG size, LPENTRYID entry, LPCIID iid, void* destination, LPWSTR newName,
                               ULONG_PTR uiParam, IMAPIProgress* progress, ULONG flags) = 0;
    // A folder of this folder. MAPI_E_HAS_MESSAGES, MAPI_E_HAS_FOLDERS unless DEL_MESSAGES, DEL_FOLDERS (and all
    // below).
    virtual HRESULT DeleteFolder(ULONG size, LPENTRYID entry, ULONG_PTR uiParam, IMAPIProgress* progress,
                                 ULONG flags) = 0;
    virtual HRESULT SetReadFlags(LPENTRYLIST messages, ULONG_PTR uiParam, IMAPIProgress* progress,
                                 ULONG flags) = 0;  // as IMessage::SetReadFlag, all at once; null: all of the folder
    virtual HRESULT GetMessageStatus(ULONG size, LPENTRYID entry, ULONG flags, ULONG* status) = 0;  // MAPI_E_NO_SUPPORT
    virtual HRESULT SetMessageStatus(ULONG size, LPENTRYID entry, ULONG status, ULONG mask,
                                     ULONG* oldStatus) = 0;                                    // MAPI_E_NO_SUPPORT
    virtual HRESULT SaveContentsSort(LPSSortOrderSet order, ULONG flags) = 0;                  // MAPI_E_NO_SUPPORT
    virtual HRESULT EmptyFolder(ULONG_PTR uiParam, IMAPIProgress* progress, ULONG flags) = 0;  // MAPI_E_NO_SUPPORT

protected:
    ~IMAPIFolder() = default;
};

struct IMsgStore : IMAPIProp {
    // Tells `sink` of what `mask` (fnev...) names: of the whole store (size 0 or the store's identifier), of a folder
    // and the messages and folders directly in it, or of one message. Moves and copies are told of where they came from
    // and where they went to. Everything that is kept after Advise returned is told; see IMAPIAdviseSink.
    // fnevCriticalError: the store was damaged and set aside, its objects are gone.
    virtual HRESULT Advise(ULONG size, LPENTRYID entry, ULONG mask, LPMAPIADVISESINK sink, ULONG* connection) = 0;
    // From any thread. When it returns the sink is not called any more, unless it is being called just then. Ends also
    // with the store object's last reference. MAPI_E_NOT_FOUND: no such connection.
    virtual HRESULT Unadvise(ULONG connection) = 0;
    virtual HRESULT CompareEntryIDs(ULONG size1, LPENTRYID entry1, ULONG size2, LPENTRYID entry2, ULONG flags,
                                    ULONG* same) = 0;
    // A folder or message of the store; size 0: its top folder.
    virtual HRESULT OpenEntry(ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags, ULONG* type, IUnknown** object) = 0;
    virtual HRESULT SetReceiveFolder(LPWSTR messageClass, ULONG flags, ULONG size, LPENTRYID entry) = 0;  // NO_SUPPORT
    virtual HRESULT GetReceiveFolder(LPWSTR messageClass, ULONG flags, ULONG* size, LPENTRYID* entry,
                                     LPWSTR* explicitClass) = 0;                 // the Inbox, for every class
    virtual HRESULT GetReceiveFolderTable(ULONG flags, LPMAPITABLE* table) = 0;  // MAPI_E_NO_SUPPORT
    virtual HRESULT StoreLogoff(ULONG* flags) = 0;                               // S_OK
    virtual HRESULT AbortSubmit(ULONG size, LPENTRYID entry, ULONG flags) = 0;   // from here on: MAPI_E_NO_SUPPORT
    virtual HRESULT GetOutgoingQueue(ULONG flags, LPMAPITABLE* table) = 0;
    virtual HRESULT SetLockState(LPMESSAGE message, ULONG state) = 0;
    virtual HRESULT FinishedMsg(ULONG flags, ULONG size, LPENTRYID entry) = 0;
    virtual HRESULT NotifyNewMail(LPNOTIFICATION notification) = 0;

protected:
    ~IMsgStore() = default;
};

struct IMessage : IMAPIProp {
    // The attachments, saved or not, in the order of their numbers. Columns at first: PR_ATTACH_NUM,
    // PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_METHOD, PR_ATTACH_SIZE, PR_ATTACH_MIME_TAG_W, PR_RENDERING_POSITION.
    virtual HRESULT GetAttachmentTable(ULONG flags, LPMAPITABLE* table) = 0;
    // By PR_ATTACH_NUM.
    virtual HRESULT OpenAttach(ULONG number, LPCIID iid, ULONG flags, LPATTACH* attach) = 0;
    virtual HRESULT CreateAttach(LPCIID iid, ULONG flags, ULONG* number, LPATTACH* attach) = 0;
    virtual HRESULT DeleteAttach(ULONG number, ULONG_PTR uiParam, IMAPIProgress* progress, ULONG flags) = 0;
    // Columns at first: PR_ROWID, PR_RECIPIENT_TYPE, PR_DISPLAY_NAME_W, PR_ADDRTYPE_W, PR_EMAIL_ADDRESS_W.
    virtual HRESULT GetRecipientTable(ULONG flags, LPMAPITABLE* table) = 0;
    virtual HRESULT ModifyRecipients(ULONG flags, LPADRLIST recipients) = 0;
    virtual HRESULT SubmitMessage(ULONG flags) = 0;  // MAPI_E_NO_SUPPORT
    // At once, without SaveChanges: read, or with CLEAR_READ_FLAG unread. SUPPRESS_RECEIPT changes nothing.
    virtual HRESULT SetReadFlag(ULONG flags) = 0;

protected:
    ~IMessage() = default;
};

// An attachment: SaveChanges hands it to its message, whose SaveChanges keeps it.
struct IAttach : IMAPIProp {
protected:
    ~IAttach() = default;
};

struct IMAPISession : IUnknown {
    virtual HRESULT GetLastError(HRESULT result, ULONG flags, LPMAPIERROR* error) = 0;
    // Columns at first: PR_ENTRYID, PR_DISPLAY_NAME, PR_DEFAULT_STORE, PR_RESOURCE_TYPE, PR_MDB_PROVIDER; the default
    // store comes first, the others in the order of their making.
    virtual HRESULT GetMsgStoresTable(ULONG flags, LPMAPITABLE* table) = 0;
    // Size 0: the default store. MAPI_BEST_ACCESS or MDB_WRITE: to be changed.
    virtual HRESULT OpenMsgStore(ULONG_PTR uiParam, ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags,
                                 LPMDB* store) = 0;
    virtual HRESULT OpenAddressBook(ULONG_PTR uiParam, LPCIID iid, ULONG flags, IUnknown** book) = 0;  // NO_SUPPORT
    virtual HRESULT OpenProfileSection(LPMAPIUID section, LPCIID iid, ULONG flags,
                                       IUnknown** object) = 0;            // NO_SUPPORT
    virtual HRESULT GetStatusTable(ULONG flags, LPMAPITABLE* table) = 0;  // NO_SUPPORT
    // A store, a folder or a message of any store. Size 0: MAPI_E_INVALID_ENTRYID.
    virtual HRESULT OpenEntry(ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags, ULONG* type, IUnknown** object) = 0;
    virtual HRESULT CompareEntryIDs(ULONG size1, LPENTRYID entry1, ULONG size2, LPENTRYID entry2, ULONG flags,
                                    ULONG* same) = 0;
    virtual HRESULT Advise(ULONG size, LPENTRYID entry, ULONG mask, LPMAPIADVISESINK sink, ULONG* connection) = 0;
    virtual HRESULT Unadvise(ULONG connection) = 0;  // both: MAPI_E_NO_SUPPORT; see IMsgStore
    virtual HRESULT MessageOptions(ULONG_PTR uiParam, ULONG flags, LPWSTR addressType,
                                   LPMESSAGE message) = 0;  // NO_SUPPORT
    virtual HRESULT QueryDefaultMessageOpt(LPWSTR addressType, ULONG flags, ULONG* count, LPSPropValue* options) = 0;
    virtual HRESULT EnumAdrTypes(ULONG flags, ULONG* count, LPWSTR** types) = 0;
    virtual HRESULT QueryIdentity(ULONG* size, LPENTRYID* entry) = 0;  // the three: MAPI_E_NO_SUPPORT
    // Ends the session. What it opened can be released and nothing else: MAPI_E_END_OF_SESSION.
    virtual HRESULT Logoff(ULONG_PTR uiParam, ULONG flags, ULONG reserved) = 0;
    virtual HRESULT SetDefaultStore(ULONG flags, ULONG size, LPENTRYID entry) = 0;  // from here on: MAPI_E_NO_SUPPORT
    virtual HRESULT AdminServices(ULONG flags, IUnknown** services) = 0;
    virtual HRESULT ShowForm(ULONG_PTR uiParam, LPMDB store, LPMAPIFOLDER parent, LPCIID iid, ULONG token,
                             LPMESSAGE message, ULONG flags, ULONG status, ULONG messageFlags, ULONG access,
                             LPSTR messageClass) = 0;
    virtual HRESULT PrepareForm(LPCIID iid, LPMESSAGE message, ULONG* token) = 0;

protected:
    ~IMAPISession() = default;
};
using LPMAPISESSION = IMAPISession*;

// The handheld's additions; every session is one (cast, or ask with IID_ICEMAPISession).
struct ICEMAPISession : IMAPISession {
    // A new store with its folders. MAPI_E_COLLISION: there is one of that name (ignoring case); MAPI_E_BAD_VALUE: an
    // empty name, or one of more than 255 characters.
    virtual HRESULT CreateMsgStore(LPCWSTR name, LPMDB* store) = 0;
    // With all that is in it. MAPI_E_NO_ACCESS: the default store.
    virtual HRESULT DeleteMsgStore(ULONG size, LPENTRYID entry) = 0;

protected:
    ~ICEMAPISession() = default;
};

// --- this system's additions ----------------------------------------------------------------------------------------

// Reached by QueryInterface from IMAPISession.
struct IZrMail : IUnknown {
    // A batch makes the changes of one session one transaction: all of them are kept or none, and they cost one commit.
    // Until CommitBatch no call of any program, this session's included, sees them, but a saved message in hand has its
    // identifier, which holds once the batch was kept. Objects of a batch that was not kept are MAPI_E_OBJECT_DELETED
    // or as before. One batch at a time in all stores: other writers wait for it five seconds, so keep it short. It
    // belongs to the thread that began it; changes of the session's other threads wait likewise. Logoff rolls an open
    // batch back.
    virtual HRESULT BeginBatch() = 0;
    virtual HRESULT CommitBatch() = 0;  // E_UNEXPECTED: no batch is open. Any other failure: nothing of it was kept
    virtual HRESULT RollbackBatch() = 0;
    // The messages in which all of the words are, in subject, names, addresses or text (ignoring case and accents; a
    // word that ends in * is a beginning; words in double quotes stand side by side), in all stores, newest first. Null
    // or empty: all messages, of which Restrict finds those with one PR_INTERNET_MESSAGE_ID_W at once. Of long texts
    // the first 1,048,576 characters are found. A contents table; the columns at first are the same.
    virtual HRESULT Find(LPCWSTR words, IMAPITable** table) = 0;
    virtual HRESULT LastErrorText(BSTR* text) = 0;  // the calling thread's last failure; for people
    virtual HRESULT get_StorePath(BSTR* path) = 0;  // the stores' file in the host's file system

protected:
    ~IZrMail() = default;
};

// --- functions ------------------------------------------------------------------------------------------------------

// Messaging can be used between the two; they are counted, for the whole process.
ZRPLATFORM_API HRESULT MAPIInitialize(LPVOID init);
ZRPLATFORM_API void MAPIUninitialize();

// A new session. Profiles, passwords and flags mean nothing. MAPI_E_NOT_INITIALIZED.
ZRPLATFORM_API HRESULT MAPILogonEx(ULONG_PTR uiParam, LPWSTR profile, LPWSTR password, ULONG flags,
                                   LPMAPISESSION* session);

// A buffer, aligned for anything, that MAPIFreeBuffer gives back. MAPI_E_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API SCODE MAPIAllocateBuffer(ULONG size, LPVOID* buffer);
// A further one that is given back with `object`, and never by itself. One thread at a time for one object.
ZRPLATFORM_API SCODE MAPIAllocateMore(ULONG size, LPVOID object, LPVOID* buffer);
// 0. Null does nothing.
ZRPLATFORM_API ULONG MAPIFreeBuffer(LPVOID buffer);
// A row set with its rows. Null does nothing.
ZRPLATFORM_API void FreeProws(LPSRowSet rows);

// --- interface identifiers ------------------------------------------------------------------------------------------
#define ZRPLATFORM_MAPI_IID(number)               \
    IID {                                         \
        0x00020000u + (number), 0x0000, 0x0000, { \
            0xC0, 0, 0, 0, 0, 0, 0, 0x46          \
        }                                         \
    }
inline constexpr IID IID_IMAPISession = ZRPLATFORM_MAPI_IID(0x300);
inline constexpr IID IID_IMAPITable = ZRPLATFORM_MAPI_IID(0x301);
inline constexpr IID IID_IMAPIAdviseSink = ZRPLATFORM_MAPI_IID(0x302);
inline constexpr IID IID_IMAPIProp = ZRPLATFORM_MAPI_IID(0x303);
inline constexpr IID IID_IMsgStore = ZRPLATFORM_MAPI_IID(0x306);
inline constexpr IID IID_IMessage = ZRPLATFORM_MAPI_IID(0x307);
inline constexpr IID IID_IAttachment = ZRPLATFORM_MAPI_IID(0x308);
inline constexpr IID IID_IMAPIContainer = ZRPLATFORM_MAPI_IID(0x30B);
inline constexpr IID IID_IMAPIFolder = ZRPLATFORM_MAPI_IID(0x30C);
#undef ZRPLATFORM_MAPI_IID
// This system's own numbers: refer to them by name.
inline constexpr IID IID_ICEMAPISession = {
    0x5C2B6F0E, 0x8A43, 0x4E0B, {0x9D, 0x57, 0x2F, 0x61, 0xC8, 0x0A, 0x3B, 0x74}};
inline constexpr IID IID_IZrMail = {0x1E9D0C52, 0x6B7F, 0x4A38, {0x8E, 0x21, 0x5D, 0xF4, 0x07, 0x9A, 0xC3, 0x16}};
