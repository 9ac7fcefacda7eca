#pragma once

#include "ZrUtility/Export.h"
#include "platform/mapi.h"
#include "platform/types.h"

// Reads recipient texts such as "Jo Doe <jo.doe>; Al Smith <al.smith>" and splits them into the display names and
// addresses that MAPI recipient tables need. Strings are NUL-terminated UTF-16; most functions work in place.
//
// No function fails: malformed text yields some split. Arguments are valid pointers unless a function says what NULL
// gives. All functions are reentrant, from any thread.
class ZRUTILITY_API AddressUtilities {
public:
    // 1 when `s` holds a usable character (not a space, separator, bracket, quote or the like) that is directly
    // followed by a character of 0x20 or above; else 0, also for NULL. So a usable last character alone does not do.
    static int IsValidRecipientNameOrAddress(WCHAR* s);
    // Overwrites trailing spaces, ',', ';', DEL and control characters with NUL. Nothing is done for NULL.
    static void TrimRecipientNameOrAddress(WCHAR* s);
    // Cuts `s` at its first control character or DEL. Nothing is done for NULL.
    static void TrimMAPIRecipient(WCHAR* s);

    // Takes the first recipient off a list whose recipients are separated by ';', and by ',' too when `commaSeparates`
    // is nonzero, and writes its name and address. *next is where the next recipient begins, or NULL after the last; a
    // list that ends with a separator has an empty last recipient.
    //
    // `name` and `address` must each have room for the whole of `text` and a terminator: the sizes are not consulted,
    // and neither buffer may overlap `text`. *nameLen and *addressLen are the lengths written. A recipient without
    // angle brackets is all name, with an empty address. Text after the closing '>' makes the recipient a name as it
    // stands, up to the next ';', with an empty address.
    static void NextRecipient(WCHAR* text, WCHAR** next, WCHAR* name, unsigned int nameSize, unsigned int* nameLen,
                              WCHAR* address, unsigned int addressSize, unsigned int* addressLen, int commaSeparates);

    // Splits one "Name <address>" in place; *name is NULL when there is no '<', and then the whole text is the address.
    // Double quotes stay. A text that begins with '<' gives the name "<" and an empty address.
    static void KelRecipientsToMAPIRecipients(WCHAR* text, WCHAR** address, WCHAR** name);

    // Copies the name, which is what stands before the first '<' just as it is, and the address between it and the
    // first
    // '>'. *nameLen and *addressLen say on entry how many characters there is room for, besides a terminator, and on
    // return how many were copied; what does not fit is cut. Without a '<' followed by at least one character and a
    // '>', the whole text is the address and the name is empty. Into a buffer of negative room nothing is written, and
    // its length becomes 0.
    static void ParseEmailAddress(WCHAR* text, WCHAR* name, int* nameLen, WCHAR* address, int* addressLen);

    // The bytes that a list's recipients need as text: 12, and for each entry with a recipient type
    // 2 * (name + address + 3), where a name or address that is there counts its length and a terminator, as a signed
    // 16-bit number. 0 for a list without entries.
    static int CalculateMemoryForRecipient(struct _ADRLIST* list);

private:
    AddressUtilities() {}
    AddressUtilities& operator=(const AddressUtilities&) { return *this; }
};
