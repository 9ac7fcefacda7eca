#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/Helpers/ContactsManager.h"
#include "ZrUtility/ZrTypedList.h"

// The contacts manager with an index from e-mail address to contact, for finding out whose address a message came from
// without looking at every contact. OutlookManager::GetContactsManagerInstance hands out the library's one.
//
// Initialize also makes a window on the calling thread that hears of created, changed and deleted contacts, of this
// process and others; they take effect when that thread pumps its messages. Entries of changed and deleted contacts
// stay in the index until a lookup meets them or the index is rebuilt, and every hit is checked against the contact as
// it is now; so a lookup never hands out a contact that does not have the address.
//
// For the rest see ContactsManager. A copy shares the index too.
class ZRUTILITY_API ContactsManagerEmail : public ContactsManager {
public:
    // One address of one contact.
    struct Candidate {
        // Of the address in lower case: from 17 on, times 37 plus each character, wrapping.
        ULONG hash;
        LONG oid;
    };

    // The index is rebuilt when the entries added since it was built reach this share of
    // m_ciAssumedEmailsPerContact entries per contact.
    static const float m_cfRehashThreshHold;
    static const int m_ciAssumedEmailsPerContact;

    ContactsManagerEmail();
    ContactsManagerEmail(const ContactsManagerEmail&) = default;
    ContactsManagerEmail& operator=(const ContactsManagerEmail&) = default;
    ~ContactsManagerEmail() override;

    int IsInitialized() override;
    LONG Initialize() override;
    LONG Uninitialize(int force) override;
    CM_MANAGER_TYPE GetClassType() override;

    // With `exact`, without `substrings` and with a `fieldMask` of the three address fields (896), the contact that has
    // the address `pattern`, ignoring case, through the index; never CM_FAILED then, and `emailOnly` has no effect.
    // Any other combination is ContactsManager::FindContact.
    CM_QUANTIFIER FindContact(WCHAR* pattern, int fieldMask, int exact, int substrings, int emailOnly,
                              Contact*& contact) override;

    LONG ProcessPIMCreated(HWND window, UINT message, WPARAM oid, LPARAM lParam) override;
    LONG ProcessPIMDeleted(HWND window, UINT message, WPARAM oid, LPARAM lParam) override;
    LONG ProcessPIMChanged(HWND window, UINT message, WPARAM oid, LPARAM lParam) override;

private:
    using Bucket = ZrTypedList<Candidate>;
    class IndexBuilder;
    struct IndexMemory;

    static constexpr ULONG BUCKET_COUNT = 500;

    LONG CreateHashIndex();
    LONG DestroyHashIndex();
    LONG AddContactEmailsToHash(IContact* contact, IPOutlookApp* application);
    LONG AddCandidate(const Candidate& candidate);
    LONG AppendEntry(Candidate* entry);
    Candidate* FindCandidate(const Candidate& candidate);
    template <class Add>
    LONG ForEachEmail(IContact* contact, IPOutlookApp* application, Add add);
    void RemoveEntry(ULONG bucket, int index);
    IContact* ItemFromOid(LONG oid);
    void RebuildIfGrown();

    Bucket* m_pBuckets;  // BUCKET_COUNT of them, or NULL
    LONG m_lFirstDeletedOid;
    int m_iAddedEntries;
    int m_iEmailInitialized;
    IndexMemory* m_pMemory;  // with m_pBuckets: their hashes once more, for fast searches, and what entries lie in
};
