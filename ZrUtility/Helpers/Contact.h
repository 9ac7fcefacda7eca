#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/Helpers/StringUtilities.h"
#include "platform/pim.h"

// One contact item of the contacts folder: its names, company, job title and e-mail addresses, and whether it matches
// what a user typed.
//
// Records come from a ContactsManager (AddContact, GetContact, GetContactFromOid, FindContact) and go back to it with
// ReleaseContact; nothing else makes or ends one. Copies are shallow: a copy shares the item and the texts of its
// source and must not outlive it.
//
// Results are S_OK, E_FAIL (0x80004005) for the record's own failures, or what the contact store returned. Every text
// that a getter hands out stays the record's: it is valid until free_String, or until the record is released. One
// thread at a time; nothing is locked.
class ZRUTILITY_API Contact {
public:
    // Bits of a field mask.
    enum CONTACT_FIELD : ULONG {
        CONTACT_FIELD_FILE_AS = 1,
        CONTACT_FIELD_TITLE = 2,
        CONTACT_FIELD_FIRST_NAME = 4,
        CONTACT_FIELD_MIDDLE_NAME = 8,
        CONTACT_FIELD_LAST_NAME = 16,
        CONTACT_FIELD_SUFFIX = 32,
        CONTACT_FIELD_COMPANY_NAME = 64,
        CONTACT_FIELD_EMAIL1 = 128,
        CONTACT_FIELD_EMAIL2 = 256,
        CONTACT_FIELD_EMAIL3 = 512,
        CONTACT_FIELD_JOB_TITLE = 1024,
    };

    // A field is read from the item the first time it is asked for and kept from then on. E_FAIL, with `value`
    // untouched, when it cannot be read; otherwise the store's result, or S_OK for a text that was kept.
    LONG get_FileAs(WCHAR*& value);
    LONG get_Title(WCHAR*& value);
    LONG get_FirstName(WCHAR*& value);
    LONG get_MiddleName(WCHAR*& value);
    LONG get_LastName(WCHAR*& value);
    LONG get_Suffix(WCHAR*& value);
    LONG get_CompanyName(WCHAR*& value);
    LONG get_Email1Address(WCHAR*& value);
    LONG get_Email2Address(WCHAR*& value);
    LONG get_Email3Address(WCHAR*& value);
    LONG get_JobTitle(WCHAR*& value);

    // Put a copy of `value` into the item; Save() makes it last. A text that was read before stays what the getter
    // returns, until free_String. The store's result.
    LONG put_FileAs(WCHAR*& value);
    LONG put_Title(WCHAR*& value);
    LONG put_FirstName(WCHAR*& value);
    LONG put_MiddleName(WCHAR*& value);
    LONG put_LastName(WCHAR*& value);
    LONG put_Suffix(WCHAR*& value);
    LONG put_Email1Address(WCHAR*& value);
    LONG put_Email2Address(WCHAR*& value);
    LONG put_Email3Address(WCHAR*& value);
    LONG put_JobTitle(WCHAR*& value);

    // Frees a text that a getter handed out and sets `value` to NULL, so that the next read asks the item again. E_FAIL
    // for NULL, and for a pointer that is none of the record's texts, which is left as it is.
    LONG free_String(WCHAR*& value);

    LONG Save();
    // Deletes the item from the folder; the record still has to be released.
    LONG Delete();
    LONG Display();
    // The item's identifier, 0 before its first Save.
    LONG get_Oid(LONG& oid);

    // How many e-mail addresses are not empty: 0 to 3, or with `countAll` 0 only whether there is one (0 or 1). An
    // address that cannot be read ends the count.
    int HasEmail(int countAll);

    // Nonzero when the contact matches `pattern`, ignoring case, in one of the fields of `fieldMask`:
    //   substrings         every blank-separated word of the pattern begins some word of some field
    //   else, exact        a field is the pattern
    //   neither            a field begins with the pattern
    // NULL matches nothing, an empty pattern everything, and with `substrings` so does one of blanks only. The bit of
    // the middle name searches the file-as name; middle names are not searched. A field that cannot be read ends the
    // search without a match.
    int IsComparable(WCHAR* pattern, ULONG fieldMask, int exact, int substrings);

private:
    friend class ContactsManager;

    static constexpr int FIELD_COUNT = 11;

    Contact();
    ~Contact();
    Contact(const Contact&) = default;
    Contact& operator=(const Contact&) = default;

    // Takes over the caller's reference to `item`. E_FAIL for NULL, which is nothing, or when the record is bound
    // already, and then the reference stays the caller's. After any other failure the record holds the item.
    LONG Initialize(IContact* item);
    // Gives everything back; always S_OK. The record can be bound again.
    LONG Uninitialize();

    LONG ReadField(int field, WCHAR*& value);
    LONG WriteField(int field, WCHAR* value);
    int FieldMatches(int field, const WCHAR* pattern, StringUtilities::COMPARE_TYPE kind);
    // The first field that matches, in the order of the bits, or 0.
    CONTACT_FIELD CheckFields(const WCHAR* pattern, ULONG fieldMask, StringUtilities::COMPARE_TYPE kind);
    int CheckFieldsSubstrings(const WCHAR* pattern, ULONG fieldMask);

    IPOutlookApp* m_pOutlookApp;
    IContact* m_pContact;
    WCHAR* m_pwzFields[FIELD_COUNT];  // the texts read so far, in the order of the bits
};
