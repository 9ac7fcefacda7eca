#pragma once

// Messaging: property types, and the property tags that this system's message store knows.
//
// A property tag is an identifier (upper 16 bits) and a type (lower 16 bits). Any other tag can be set and read as
// well; the identifiers listed here are those with a meaning. A text tag without a suffix is the Unicode one.

#include "platform/types.h"

inline constexpr ULONG PT_UNSPECIFIED = 0x0000;
inline constexpr ULONG PT_NULL = 0x0001;
inline constexpr ULONG PT_I2 = 0x0002;
inline constexpr ULONG PT_SHORT = PT_I2;
inline constexpr ULONG PT_LONG = 0x0003;
inline constexpr ULONG PT_I4 = PT_LONG;
inline constexpr ULONG PT_R4 = 0x0004;
inline constexpr ULONG PT_DOUBLE = 0x0005;
inline constexpr ULONG PT_CURRENCY = 0x0006;
inline constexpr ULONG PT_APPTIME = 0x0007;
inline constexpr ULONG PT_ERROR = 0x000A;
inline constexpr ULONG PT_BOOLEAN = 0x000B;
inline constexpr ULONG PT_OBJECT = 0x000D;
inline constexpr ULONG PT_I8 = 0x0014;
inline constexpr ULONG PT_STRING8 = 0x001E;
inline constexpr ULONG PT_UNICODE = 0x001F;
inline constexpr ULONG PT_TSTRING = PT_UNICODE;
inline constexpr ULONG PT_SYSTIME = 0x0040;
inline constexpr ULONG PT_CLSID = 0x0048;
inline constexpr ULONG PT_BINARY = 0x0102;

constexpr ULONG PROP_TYPE(ULONG tag) {
    return tag & 0xFFFF;
}
constexpr ULONG PROP_ID(ULONG tag) {
    return tag >> 16;
}
constexpr ULONG PROP_TAG(ULONG type, ULONG id) {
    return (id << 16) | type;
}
constexpr ULONG CHANGE_PROP_TYPE(ULONG tag, ULONG type) {
    return (tag & 0xFFFF0000) | type;
}
inline constexpr ULONG PR_NULL = PROP_TAG(PT_NULL, 0x0000);

// --- every object ---------------------------------------------------------------------------------------------------
inline constexpr ULONG PR_ENTRYID = PROP_TAG(PT_BINARY, 0x0FFF);           // computed; a message's once it was saved
inline constexpr ULONG PR_OBJECT_TYPE = PROP_TAG(PT_LONG, 0x0FFE);         // computed: MAPI_STORE, MAPI_FOLDER, ...
inline constexpr ULONG PR_RECORD_KEY = PROP_TAG(PT_BINARY, 0x0FF9);        // computed: compares byte by byte
inline constexpr ULONG PR_INSTANCE_KEY = PROP_TAG(PT_BINARY, 0x0FF6);      // computed: the same
inline constexpr ULONG PR_STORE_ENTRYID = PROP_TAG(PT_BINARY, 0x0FFB);     // computed
inline constexpr ULONG PR_STORE_RECORD_KEY = PROP_TAG(PT_BINARY, 0x0FFA);  // computed
inline constexpr ULONG PR_PARENT_ENTRYID =
    PROP_TAG(PT_BINARY, 0x0E09);                               // computed: the folder; the top folder's is its own
inline constexpr ULONG PR_ACCESS = PROP_TAG(PT_LONG, 0x0FF4);  // computed: MAPI_ACCESS_*
inline constexpr ULONG PR_ACCESS_LEVEL = PROP_TAG(PT_LONG, 0x0FF7);  // computed: 0, or MAPI_MODIFY
inline constexpr ULONG PR_DISPLAY_NAME_W = PROP_TAG(PT_UNICODE, 0x3001);
inline constexpr ULONG PR_DISPLAY_NAME = PR_DISPLAY_NAME_W;
inline constexpr ULONG PR_COMMENT_W = PROP_TAG(PT_UNICODE, 0x3004);
inline constexpr ULONG PR_COMMENT = PR_COMMENT_W;
inline constexpr ULONG PR_CREATION_TIME = PROP_TAG(PT_SYSTIME, 0x3007);           // computed
inline constexpr ULONG PR_LAST_MODIFICATION_TIME = PROP_TAG(PT_SYSTIME, 0x3008);  // computed

// --- message stores -------------------------------------------------------------------------------------------------
inline constexpr ULONG PR_DEFAULT_STORE = PROP_TAG(PT_BOOLEAN, 0x3400);           // computed
inline constexpr ULONG PR_STORE_SUPPORT_MASK = PROP_TAG(PT_LONG, 0x340D);         // computed
inline constexpr ULONG PR_MDB_PROVIDER = PROP_TAG(PT_BINARY, 0x3414);             // computed
inline constexpr ULONG PR_RESOURCE_TYPE = PROP_TAG(PT_LONG, 0x3E03);              // computed, in the table of stores
inline constexpr ULONG PR_VALID_FOLDER_MASK = PROP_TAG(PT_LONG, 0x35DF);          // computed: FOLDER_*_VALID
inline constexpr ULONG PR_IPM_SUBTREE_ENTRYID = PROP_TAG(PT_BINARY, 0x35E0);      // computed: the top folder
inline constexpr ULONG PR_IPM_OUTBOX_ENTRYID = PROP_TAG(PT_BINARY, 0x35E2);       // computed
inline constexpr ULONG PR_IPM_WASTEBASKET_ENTRYID = PROP_TAG(PT_BINARY, 0x35E3);  // computed: Deleted Items
inline constexpr ULONG PR_IPM_SENTMAIL_ENTRYID = PROP_TAG(PT_BINARY, 0x35E4);     // computed
inline constexpr ULONG PR_CE_IPM_DRAFTS_ENTRYID = PROP_TAG(PT_BINARY, 0x35E8);    // computed
inline constexpr ULONG PR_CE_IPM_INBOX_ENTRYID = PROP_TAG(PT_BINARY, 0x35E9);     // computed

// --- folders --------------------------------------------------------------------------------------------------------
inline constexpr ULONG PR_FOLDER_TYPE = PROP_TAG(PT_LONG, 0x3601);  // computed: FOLDER_ROOT (the top) or FOLDER_GENERIC
inline constexpr ULONG PR_CONTENT_COUNT = PROP_TAG(PT_LONG, 0x3602);   // computed
inline constexpr ULONG PR_CONTENT_UNREAD = PROP_TAG(PT_LONG, 0x3603);  // computed
inline constexpr ULONG PR_SUBFOLDERS = PROP_TAG(PT_BOOLEAN, 0x360A);   // computed
inline constexpr ULONG PR_CONTAINER_CLASS_W = PROP_TAG(PT_UNICODE, 0x3613);
inline constexpr ULONG PR_CONTAINER_CLASS = PR_CONTAINER_CLASS_W;
inline constexpr ULONG PR_CONTAINER_HIERARCHY = PROP_TAG(PT_OBJECT, 0x360E);  // OpenProperty as IID_IMAPITable
inline constexpr ULONG PR_CONTAINER_CONTENTS = PROP_TAG(PT_OBJECT, 0x360F);   // likewise
inline constexpr ULONG PR_DEPTH = PROP_TAG(PT_LONG, 0x3005);  // computed, in hierarchy tables: 1 for the folder's own

// --- messages -------------------------------------------------------------------------------------------------------
inline constexpr ULONG PR_MESSAGE_CLASS_W = PROP_TAG(PT_UNICODE, 0x001A);  // "IPM.Note" unless set
inline constexpr ULONG PR_MESSAGE_CLASS = PR_MESSAGE_CLASS_W;
inline constexpr ULONG PR_SUBJECT_W = PROP_TAG(PT_UNICODE, 0x0037);
inline constexpr ULONG PR_SUBJECT = PR_SUBJECT_W;
inline constexpr ULONG PR_SUBJECT_PREFIX_W = PROP_TAG(PT_UNICODE, 0x003D);
inline constexpr ULONG PR_NORMALIZED_SUBJECT_W = PROP_TAG(PT_UNICODE, 0x0E1D);
inline constexpr ULONG PR_CLIENT_SUBMIT_TIME = PROP_TAG(PT_SYSTIME, 0x0039);
inline constexpr ULONG PR_MESSAGE_DELIVERY_TIME = PROP_TAG(PT_SYSTIME, 0x0E06);  // the order of a contents table
inline constexpr ULONG PR_MESSAGE_FLAGS = PROP_TAG(PT_LONG, 0x0E07);  // MSGFLAG_*; can be set until the first save
inline constexpr ULONG PR_MESSAGE_SIZE = PROP_TAG(PT_LONG, 0x0E08);   // computed by SaveChanges: bytes of all values
inline constexpr ULONG PR_MSG_STATUS = PROP_TAG(PT_LONG, 0x0E17);
inline constexpr ULONG PR_IMPORTANCE = PROP_TAG(PT_LONG, 0x0017);  // 0 low, 1 normal, 2 high
inline constexpr ULONG PR_PRIORITY = PROP_TAG(PT_LONG, 0x0026);
inline constexpr ULONG PR_SENSITIVITY = PROP_TAG(PT_LONG, 0x0036);
inline constexpr ULONG PR_HASATTACH = PROP_TAG(PT_BOOLEAN, 0x0E1B);           // computed
inline constexpr ULONG PR_DISPLAY_BCC_W = PROP_TAG(PT_UNICODE, 0x0E02);       // computed from the recipients
inline constexpr ULONG PR_DISPLAY_CC_W = PROP_TAG(PT_UNICODE, 0x0E03);        // likewise
inline constexpr ULONG PR_DISPLAY_TO_W = PROP_TAG(PT_UNICODE, 0x0E04);        // likewise
inline constexpr ULONG PR_MESSAGE_RECIPIENTS = PROP_TAG(PT_OBJECT, 0x0E12);   // OpenProperty as IID_IMAPITable
inline constexpr ULONG PR_MESSAGE_ATTACHMENTS = PROP_TAG(PT_OBJECT, 0x0E13);  // likewise
inline constexpr ULONG PR_SENT_REPRESENTING_NAME_W = PROP_TAG(PT_UNICODE, 0x0042);
inline constexpr ULONG PR_SENT_REPRESENTING_ADDRTYPE_W = PROP_TAG(PT_UNICODE, 0x0064);
inline constexpr ULONG PR_SENT_REPRESENTING_EMAIL_ADDRESS_W = PROP_TAG(PT_UNICODE, 0x0065);
inline constexpr ULONG PR_SENDER_NAME_W = PROP_TAG(PT_UNICODE, 0x0C1A);
inline constexpr ULONG PR_SENDER_NAME = PR_SENDER_NAME_W;
inline constexpr ULONG PR_SENDER_ADDRTYPE_W = PROP_TAG(PT_UNICODE, 0x0C1E);
inline constexpr ULONG PR_SENDER_EMAIL_ADDRESS_W = PROP_TAG(PT_UNICODE, 0x0C1F);
inline constexpr ULONG PR_SENDER_EMAIL_ADDRESS = PR_SENDER_EMAIL_ADDRESS_W;
inline constexpr ULONG PR_REPLY_RECIPIENT_NAMES_W = PROP_TAG(PT_UNICODE, 0x0050);
inline constexpr ULONG PR_TRANSPORT_MESSAGE_HEADERS_W = PROP_TAG(PT_UNICODE, 0x007D);
inline constexpr ULONG PR_BODY_W = PROP_TAG(PT_UNICODE, 0x1000);
inline constexpr ULONG PR_BODY = PR_BODY_W;
inline constexpr ULONG PR_BODY_HTML_W = PROP_TAG(PT_UNICODE, 0x1013);  // the HTML text, decoded
inline constexpr ULONG PR_HTML = PROP_TAG(PT_BINARY, 0x1013);          // the HTML as its bytes; one of the two is kept
inline constexpr ULONG PR_INTERNET_CPID = PROP_TAG(PT_LONG, 0x3FDE);
inline constexpr ULONG PR_INTERNET_MESSAGE_ID_W = PROP_TAG(PT_UNICODE, 0x1035);
inline constexpr ULONG PR_INTERNET_REFERENCES_W = PROP_TAG(PT_UNICODE, 0x1039);
inline constexpr ULONG PR_IN_REPLY_TO_ID_W = PROP_TAG(PT_UNICODE, 0x1042);
inline constexpr ULONG PR_SEARCH_KEY = PROP_TAG(PT_BINARY, 0x300B);
// The message as it came, byte for byte. Of any size; written and read as a stream.
inline constexpr ULONG PR_CE_MIME_TEXT = PROP_TAG(PT_BINARY, 0x6F10);

// --- recipients -----------------------------------------------------------------------------------------------------
inline constexpr ULONG PR_RECIPIENT_TYPE = PROP_TAG(PT_LONG, 0x0C15);
inline constexpr ULONG PR_ROWID = PROP_TAG(PT_LONG, 0x3000);  // names a row for ModifyRecipients; from 0
inline constexpr ULONG PR_ADDRTYPE_W = PROP_TAG(PT_UNICODE, 0x3002);
inline constexpr ULONG PR_ADDRTYPE = PR_ADDRTYPE_W;
inline constexpr ULONG PR_EMAIL_ADDRESS_W = PROP_TAG(PT_UNICODE, 0x3003);
inline constexpr ULONG PR_EMAIL_ADDRESS = PR_EMAIL_ADDRESS_W;
inline constexpr ULONG PR_SMTP_ADDRESS_W = PROP_TAG(PT_UNICODE, 0x39FE);

// Values of PR_RECIPIENT_TYPE.
inline constexpr LONG MAPI_ORIG = 0;
inline constexpr LONG MAPI_TO = 1;
inline constexpr LONG MAPI_CC = 2;
inline constexpr LONG MAPI_BCC = 3;

// --- attachments ----------------------------------------------------------------------------------------------------
inline constexpr ULONG PR_ATTACH_NUM = PROP_TAG(PT_LONG, 0x0E21);   // computed; never handed out again in its message
inline constexpr ULONG PR_ATTACH_SIZE = PROP_TAG(PT_LONG, 0x0E20);  // computed: bytes of all values
inline constexpr ULONG PR_ATTACH_DATA_BIN = PROP_TAG(PT_BINARY, 0x3701);
inline constexpr ULONG PR_ATTACH_ENCODING = PROP_TAG(PT_BINARY, 0x3702);
inline constexpr ULONG PR_ATTACH_EXTENSION_W = PROP_TAG(PT_UNICODE, 0x3703);
inline constexpr ULONG PR_ATTACH_FILENAME_W = PROP_TAG(PT_UNICODE, 0x3704);
inline constexpr ULONG PR_ATTACH_METHOD = PROP_TAG(PT_LONG, 0x3705);
inline constexpr ULONG PR_ATTACH_LONG_FILENAME_W = PROP_TAG(PT_UNICODE, 0x3707);
inline constexpr ULONG PR_RENDERING_POSITION = PROP_TAG(PT_LONG, 0x370B);
inline constexpr ULONG PR_ATTACH_MIME_TAG_W = PROP_TAG(PT_UNICODE, 0x370E);
inline constexpr ULONG PR_ATTACH_CONTENT_ID_W = PROP_TAG(PT_UNICODE, 0x3712);

// Values of PR_ATTACH_METHOD.
inline constexpr LONG NO_ATTACHMENT = 0;
inline constexpr LONG ATTACH_BY_VALUE = 1;
inline constexpr LONG ATTACH_EMBEDDED_MSG = 5;
