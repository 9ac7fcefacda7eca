#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/Helpers/Contact.h"
#include "platform/pim.h"
#include "platform/windowing.h"

// The device's contacts folder: contacts by place, by identifier or by search.
//
//   ContactsManager manager;
//   if (manager.Initialize() >= 0) {
//       Contact* contact = nullptr;
//       if (manager.FindContact(pattern, 0, 0, 1, 0, contact) == ContactsManager::CM_ONE) { ... }
//       manager.ReleaseContact(contact);
//       manager.Uninitialize(0);
//   }
//
// Initialize and Uninitialize count, so that several parts of a program can share one manager. Results are S_OK, E_FAIL
// for the manager's own failures (among them a call on a manager that is not initialised), or what the contact store
// returned; failures are logged. Nothing is locked: a manager is used by one thread, the one that initialised it, and
// must be uninitialised there. Contacts that were handed out must be released before the last Uninitialize.
//
// Copies are shallow: they share session, folder, collection and window without holding them, so of a manager and its
// copies only one may be uninitialised or destroyed while initialised.
class ZRUTILITY_API ContactsManager {
public:
    enum CM_MANAGER_TYPE : int {
        CM_TYPE_CONTACTS = 0,
        CM_TYPE_EMAIL = 1,
    };
    enum CM_QUANTIFIER : int {
        CM_NONE = 0,     // no contact matches
        CM_ONE = 1,      // one does, and is handed out
        CM_SEVERAL = 2,  // more than one, none is handed out
        CM_FAILED = 3,
    };

    // The window class of the window that hears of changed contacts: "kel.net.Contacts.Listener".
    static const WCHAR* const S_pwzListenerClassName;

    ContactsManager();
    ContactsManager(const ContactsManager&) = default;
    ContactsManager& operator=(const ContactsManager&) = default;
    // Uninitialize(1).
    virtual ~ContactsManager();

    virtual int IsInitialized();
    // Opens the session, the contacts folder and its collection, or counts one more user. After a failure nothing is
    // held.
    virtual LONG Initialize();
    // Counts one user less; the last one, or any with `force`, gives everything back. A further call does no harm.
    virtual LONG Uninitialize(int force);
    virtual CM_MANAGER_TYPE GetClassType();

    // Orders the collection by the field with this CONTACT_FIELD value, ascending. The job title and values that are no
    // field leave the order and give S_OK.
    virtual LONG SortCollection(int field);
    virtual LONG GetContactsCount(int& count);

    // Each sets `contact` to a record that the caller gives back with ReleaseContact, or to NULL on failure.
    // AddContact: a new contact, which joins the folder with its Save().
    virtual LONG AddContact(Contact*& contact);
    // Places count from 1, in the collection's order.
    virtual LONG GetContact(int index, Contact*& contact);
    // E_NOINTERFACE when the identifier is another kind of item's.
    virtual LONG GetContactFromOid(ULONG oid, Contact*& contact);

    // Looks through all contacts, in the collection's order, for those that match `pattern` (Contact::IsComparable) in
    // any field; `fieldMask` has no effect here. With `emailOnly`, contacts without an address are passed over. A NULL
    // pattern matches none, an empty one all. `contact` is NULL unless the result is CM_ONE.
    virtual CM_QUANTIFIER FindContact(WCHAR* pattern, int fieldMask, int exact, int substrings, int emailOnly,
                                      Contact*& contact);

    // NULL is harmless. `contact` becomes NULL.
    virtual LONG ReleaseContact(Contact*& contact);

    // Not offered: always -1, and always E_FAIL.
    virtual int FindContacts(WCHAR* pattern, int exact, int substrings, Contact**& contacts);
    virtual LONG ReleaseContacts(Contact**& contacts, int count);

    // What the listener window hears; `oid` is the identifier of the contact. Always 0.
    virtual LONG ProcessPIMCreated(HWND window, UINT message, WPARAM oid, LPARAM lParam);
    virtual LONG ProcessPIMDeleted(HWND window, UINT message, WPARAM oid, LPARAM lParam);
    virtual LONG ProcessPIMChanged(HWND window, UINT message, WPARAM oid, LPARAM lParam);

protected:
    IPOutlookApp* m_pOutlookApp;
    IFolder* m_pFolder;
    IPOutlookItemCollection* m_pItems;
    HWND m_hwndListener;
    int m_iInitialized;

private:
    LONG OpenFolder();
    LONG CloseSession();
    LONG CreateListenerWindow();
    void DestroyListenerWindow();
    LONG SubscribeToNotifications();
    LONG HandOut(LONG result, IContact* item, Contact*& contact);
    LONG BindToItem(int index, Contact* contact);
    static void DestroyContact(Contact*& contact);
    static LRESULT WinWndStaticProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
};
