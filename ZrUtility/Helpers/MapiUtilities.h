#pragma once

#include "ZrUtility/Export.h"
#include "platform/com.h"
#include "platform/mapi.h"
#include "platform/types.h"

// What is done to messages and folders of a message store: from a message to its folder and its store, moving it to
// Deleted Items or to the folder of saved messages, deleting it, telling whether it is about a meeting.
//
// Sessions, messages, folders and stores are valid pointers and stay the caller's. An interface that is handed out is
// the caller's to release. Results are MAPI's own, unchanged, or E_FAIL where an object cannot be reached; functions
// that hand out an interface give NULL instead. There is no state: any thread may call, as far as the session allows.
class ZRUTILITY_API MapiUtilities {
public:
    // The nearest folder or store (`type` MAPI_FOLDER, MAPI_STORE) that the object is in; NULL for any other type, or
    // when the way up ends before. A store that the object names is opened at once, whatever lies between. Failures are
    // logged.
    static IMAPIProp* GetMapiParent(IMAPISession* session, IMAPIProp* object, ULONG type);
    static IMAPIFolder* GetMsgFolder(IMAPISession* session, IMessage* message);
    static IMsgStore* GetMsgStore(IMAPISession* session, IMAPIFolder* folder);

    // Open by entry identifier, for reading. E_FAIL, with *out untouched, when it is something else.
    static HRESULT OpenFolder(IMAPISession* session, ULONG size, ENTRYID* entry, IMAPIFolder** out);
    static HRESULT OpenMessage(IMAPISession* session, ULONG size, ENTRYID* entry, IMessage** out);

    // Moves the message to its store's Deleted Items.
    static HRESULT DeleteMessage(IMAPISession* session, IMessage* message);
    // Deletes it for good.
    static HRESULT DeleteMessagePermanently(IMAPISession* session, IMessage* message);

    // The folder directly below the store's top folder that carries the mark of the folder of saved messages, a
    // property with the tag 0x602B000B that is 1; NULL when there is none. Which one is not said when several do. When
    // both are given, *size becomes the length of its entry identifier, whose bytes are copied to `entry`: it must have
    // room.
    static IMAPIFolder* GetSavedFolder(IMAPISession* session, IMsgStore* store, ULONG* size, ENTRYID* entry);
    // Moves the message there. E_FAIL when its store has no such folder.
    static HRESULT MoveMsgToSavedFolder(IMAPISession* session, IMessage* message);

    // Whether the message is about a meeting, by its class, and whether that is not one of the client's own classes.
    // E_FAIL when an output is NULL; otherwise both are set. With `deleteForeign` a foreign one is deleted for good,
    // and the result is that of deleting it; else it is that of reading the class. Found and deleted ones are logged.
    static HRESULT CheckMeetingMessage(IMAPISession* session, IMessage* message, bool deleteForeign, bool* isMeeting,
                                       bool* isForeign);
    // The same by entry identifier. When the message could be opened, the result is no result of the check but what
    // releasing the message returned: 0, or how often somebody else holds it.
    static HRESULT CheckMeetingMessage(IMAPISession* session, ULONG size, ENTRYID* entry, bool deleteForeign,
                                       bool* isMeeting, bool* isForeign);
    // Whether a message class begins with "IPM.Schedule", in this letter case. False for NULL.
    static bool isMeetingFormName(WCHAR* messageClass);
    // Whether it also has "Halcyon" in it.
    static bool isZrMeetingFormName(WCHAR* messageClass);

    // The lower 32 bits of a stream's size; 0 for NULL, or when the stream does not tell.
    static ULONG GetLength(IStream* stream);

    // A recipient line without leading spaces, double quotes and empty pairs of angle brackets, with each backslash
    // made a double quote, and with a ';' at the end unless it has one anywhere. Released with
    // StringUtilities::DeleteString. NULL for NULL, or when memory is short. A line that had a ';' is one unit longer
    // than what was copied, and that last unit is not set: it may be anything, a terminator included.
    static WCHAR* fixToFields(const WCHAR* recipients);

private:
    MapiUtilities() {}
};
