#pragma once

// The tables of mail.db.

#include "store/store_file.h"

namespace zr::platform::mapi {

extern const StoreKind kMailStore;

// What a row of `property` belongs to: an account, a folder or a message, by its number and MAPI's object type. A
// message's attachments and recipients are parts of it.
constexpr LONGLONG owner_of(ULONG type, LONGLONG number) {
    return number << 3 | type;
}
constexpr LONGLONG attachment_part(LONGLONG number) {
    return number + 1;
}
constexpr LONGLONG recipient_part(LONGLONG row) {
    return -row - 1;
}

// Values of more bytes than this lie in chunks: chunk n of blob b has the number b << kChunkBits | n.
inline constexpr std::size_t kMostInline = 1024;
inline constexpr std::size_t kChunkSize = 32768;
inline constexpr int kChunkBits = 24;

// What a folder is to its account.
enum class Role : LONG { None = 0, Top = 1, Inbox = 2, Outbox = 3, Sent = 4, Drafts = 5, Deleted = 6 };
inline constexpr int kRoles = 7;

}  // namespace zr::platform::mapi
