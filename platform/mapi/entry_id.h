#pragma once

// Entry identifiers: what they are made of. Programs see bytes.
//
// 4 bytes of flags (0), 4 bytes that tell ours from others', 16 bytes that name the account for ever, the object's type
// and number. Numbers are never used again.

#include <array>
#include <cstring>
#include <optional>

#include "platform/mapi.h"

namespace zr::platform::mapi {

using AccountUid = std::array<BYTE, 16>;

struct EntryId {
    AccountUid account{};
    ULONG type = 0;
    LONGLONG number = 0;

    friend bool operator==(const EntryId&, const EntryId&) = default;
};

inline constexpr std::size_t kEntryIdSize = 36;
using EntryIdBytes = std::array<BYTE, kEntryIdSize>;
inline constexpr BYTE kEntryIdMark[4] = {'Z', 'r', 'M', 1};

inline EntryIdBytes entry_id_bytes(const EntryId& id) {
    EntryIdBytes bytes{};
    std::memcpy(&bytes[4], kEntryIdMark, 4);
    std::memcpy(&bytes[8], id.account.data(), 16);
    std::memcpy(&bytes[24], &id.type, 4);
    std::memcpy(&bytes[28], &id.number, 8);
    return bytes;
}

// Nothing when the bytes are none of ours.
inline std::optional<EntryId> read_entry_id(ULONG size, const void* entry) {
    if (entry == nullptr || size != kEntryIdSize) return std::nullopt;
    const auto* const bytes = static_cast<const BYTE*>(entry);
    constexpr BYTE kNoFlags[4] = {};
    if (std::memcmp(bytes, kNoFlags, 4) != 0 || std::memcmp(bytes + 4, kEntryIdMark, 4) != 0) return std::nullopt;
    EntryId id;
    std::memcpy(id.account.data(), bytes + 8, 16);
    std::memcpy(&id.type, bytes + 24, 4);
    std::memcpy(&id.number, bytes + 28, 8);
    if (id.type != MAPI_STORE && id.type != MAPI_FOLDER && id.type != MAPI_MESSAGE) return std::nullopt;
    return id;
}

}  // namespace zr::platform::mapi
