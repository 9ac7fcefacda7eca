#pragma once

// Making the objects that programs hold, and what their entry identifiers say.

#include "platform/mapi.h"
#include "session.h"
#include "value.h"

namespace zr::platform::mapi {

// Each gives the caller one reference. Not with the store's lock held.
HRESULT make_msg_store(const SessionRef& session, LONGLONG account, bool writable, LPMDB* store);
HRESULT make_folder(const SessionRef& session, LONGLONG folder, bool writable, LPMAPIFOLDER* object);
// MAPI_E_NOT_FOUND when the store that the identifier names has no such message.
HRESULT make_message(const SessionRef& session, const EntryId& id, bool writable, LPMESSAGE* object);
HRESULT make_new_message(const SessionRef& session, LONGLONG folder, LPMESSAGE* object);

// The object of an entry identifier. `account` not 0: of that store alone. MAPI_E_INVALID_ENTRYID, MAPI_E_NOT_FOUND,
// MAPI_E_INTERFACE_NOT_SUPPORTED. A null `type` is allowed.
HRESULT open_entry(const SessionRef& session, LONGLONG account, ULONG size, const ENTRYID* entry, LPCIID iid,
                   ULONG flags, ULONG* type, IUnknown** object);

HRESULT compare_entries(ULONG size1, const ENTRYID* entry1, ULONG size2, const ENTRYID* entry2, ULONG* same);

// The number of the folder that a program's interface stands for.
HRESULT folder_of(const SessionRef& session, LPCIID iid, void* folder, LONGLONG& number);

// What every object with an entry identifier has: PR_ENTRYID, PR_OBJECT_TYPE, the keys and the store's identifiers.
// False: the tag is none of them.
bool fill_identity(ULONG tag, const EntryId& id, LONGLONG account, Row& row);
inline void add_entry_id(ULONG tag, const EntryId& id, Row& row) {
    const EntryIdBytes bytes = entry_id_bytes(id);
    row.copy(tag, bytes.data(), bytes.size());
}
// A computed number, or an error where another type was asked for.
void fill_number(ULONG tag, ULONG type, LONGLONG number, Row& row);
void fill_text(ULONG tag, std::string_view units, Row& row);

// Whether the identifier is one that fill_identity knows.
bool is_identity(WORD id);

}  // namespace zr::platform::mapi
