#pragma once

// Rows of folders, stores and messages: what a tag is for them. Used by the objects and by tables.

#include "objects.h"
#include "store.h"

namespace zr::platform::mapi {

// All with the store's lock held, after refresh().
HRESULT fill_folder(MailStore& store, const Folder& folder, bool writable, ULONG tag, Row& row);
HRESULT fill_account(MailStore& store, const Account& account, bool writable, ULONG tag, Row& row);
bool is_computed_of_folder(WORD id);
bool is_computed_of_account(WORD id);

// A message's computed properties; false: the tag is none of them. `flags`: PR_MESSAGE_FLAGS.
bool fill_message_identity(const MailStore& store, LONGLONG message, LONGLONG folder, LONGLONG flags, bool writable,
                           ULONG tag, Row& row);
bool is_computed_of_message(WORD id);
void fill_column(ULONG tag, Column column, const ColumnView& view, Row& row);

inline constexpr ULONG kFolderTags[] = {PR_ENTRYID,
                                        PR_OBJECT_TYPE,
                                        PR_RECORD_KEY,
                                        PR_STORE_ENTRYID,
                                        PR_STORE_RECORD_KEY,
                                        PR_PARENT_ENTRYID,
                                        PR_ACCESS,
                                        PR_ACCESS_LEVEL,
                                        PR_DISPLAY_NAME_W,
                                        PR_CREATION_TIME,
                                        PR_LAST_MODIFICATION_TIME,
                                        PR_FOLDER_TYPE,
                                        PR_CONTENT_COUNT,
                                        PR_CONTENT_UNREAD,
                                        PR_SUBFOLDERS};
inline constexpr ULONG kAccountTags[] = {PR_ENTRYID,
                                         PR_OBJECT_TYPE,
                                         PR_RECORD_KEY,
                                         PR_STORE_ENTRYID,
                                         PR_STORE_RECORD_KEY,
                                         PR_ACCESS,
                                         PR_ACCESS_LEVEL,
                                         PR_DISPLAY_NAME_W,
                                         PR_CREATION_TIME,
                                         PR_DEFAULT_STORE,
                                         PR_STORE_SUPPORT_MASK,
                                         PR_MDB_PROVIDER,
                                         PR_VALID_FOLDER_MASK,
                                         PR_IPM_SUBTREE_ENTRYID,
                                         PR_IPM_OUTBOX_ENTRYID,
                                         PR_IPM_WASTEBASKET_ENTRYID,
                                         PR_IPM_SENTMAIL_ENTRYID,
                                         PR_CE_IPM_DRAFTS_ENTRYID,
                                         PR_CE_IPM_INBOX_ENTRYID};
inline constexpr ULONG kMessageTags[] = {PR_ENTRYID,       PR_OBJECT_TYPE,      PR_RECORD_KEY,
                                         PR_STORE_ENTRYID, PR_STORE_RECORD_KEY, PR_PARENT_ENTRYID,
                                         PR_ACCESS,        PR_ACCESS_LEVEL,     PR_HASATTACH};

}  // namespace zr::platform::mapi
