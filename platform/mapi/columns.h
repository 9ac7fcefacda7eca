#pragma once

// The columns of a message: which properties they are, and a message as they show it.

#include <optional>
#include <string>
#include <string_view>

#include "platform/mapi.h"
#include "store/sqlite.h"

namespace zr::platform::mapi {

enum class Column : unsigned {
    Delivered,
    Submitted,
    Flags,
    Size,
    Created,
    Modified,
    Class,
    Subject,
    SenderName,
    SenderAddress,
    DisplayTo,
    DisplayCc,
    DisplayBcc,
    MessageId,
    Count,
};
inline constexpr unsigned kColumns = static_cast<unsigned>(Column::Count);
inline constexpr unsigned kFirstText = static_cast<unsigned>(Column::Class);

struct ColumnInfo {
    ULONG tag;
    const char* name;
    bool computed;  // programs cannot set it
};
inline constexpr ColumnInfo kColumnInfo[kColumns] = {
    {PR_MESSAGE_DELIVERY_TIME, "delivered", false},
    {PR_CLIENT_SUBMIT_TIME, "submitted", false},
    {PR_MESSAGE_FLAGS, "flags", false},
    {PR_MESSAGE_SIZE, "size", true},
    {PR_CREATION_TIME, "created", true},
    {PR_LAST_MODIFICATION_TIME, "modified", true},
    {PR_MESSAGE_CLASS_W, "class", false},
    {PR_SUBJECT_W, "subject", false},
    {PR_SENDER_NAME_W, "sender_name", false},
    {PR_SENDER_EMAIL_ADDRESS_W, "sender_address", false},
    {PR_DISPLAY_TO_W, "display_to", true},
    {PR_DISPLAY_CC_W, "display_cc", true},
    {PR_DISPLAY_BCC_W, "display_bcc", true},
    {PR_INTERNET_MESSAGE_ID_W, "message_id", false},
};

constexpr std::optional<Column> column_of(ULONG tag) {
    switch (PROP_ID(tag)) {
        case PROP_ID(PR_MESSAGE_DELIVERY_TIME):
            return Column::Delivered;
        case PROP_ID(PR_CLIENT_SUBMIT_TIME):
            return Column::Submitted;
        case PROP_ID(PR_MESSAGE_FLAGS):
            return Column::Flags;
        case PROP_ID(PR_MESSAGE_SIZE):
            return Column::Size;
        case PROP_ID(PR_CREATION_TIME):
            return Column::Created;
        case PROP_ID(PR_LAST_MODIFICATION_TIME):
            return Column::Modified;
        case PROP_ID(PR_MESSAGE_CLASS_W):
            return Column::Class;
        case PROP_ID(PR_SUBJECT_W):
            return Column::Subject;
        case PROP_ID(PR_SENDER_NAME_W):
            return Column::SenderName;
        case PROP_ID(PR_SENDER_EMAIL_ADDRESS_W):
            return Column::SenderAddress;
        case PROP_ID(PR_DISPLAY_TO_W):
            return Column::DisplayTo;
        case PROP_ID(PR_DISPLAY_CC_W):
            return Column::DisplayCc;
        case PROP_ID(PR_DISPLAY_BCC_W):
            return Column::DisplayBcc;
        case PROP_ID(PR_INTERNET_MESSAGE_ID_W):
            return Column::MessageId;
        default:
            return std::nullopt;
    }
}
constexpr unsigned index_of(Column column) {
    return static_cast<unsigned>(column);
}
constexpr bool is_text(Column column) {
    return index_of(column) >= kFirstText;
}
constexpr bool columns_agree() {
    for (unsigned i = 0; i < kColumns; ++i) {
        if (column_of(kColumnInfo[i].tag) != static_cast<Column>(i)) return false;
    }
    return true;
}
static_assert(columns_agree());
// The list of a SELECT that reads all of them, in their order.
inline constexpr const char* kAllColumns =
    "delivered, submitted, flags, size, created, modified, class, subject, sender_name, sender_address, display_to,"
    " display_cc, display_bcc, message_id";

// What a row's columns hold; texts are the row's own memory.
struct ColumnView {
    bool present = false;
    LONGLONG number = 0;
    std::string_view bytes;  // UTF-16 units

    void read(const Statement& row, int at, Column column) {
        number = 0;
        bytes = {};
        present = is_text(column) ? row.read(at, bytes) : row.read(at, number);
    }
};

}  // namespace zr::platform::mapi
