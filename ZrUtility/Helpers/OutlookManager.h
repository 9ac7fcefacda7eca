#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/Helpers/ContactsManager.h"
#include "ZrUtility/Helpers/ContactsManagerEmail.h"
#include "platform/pim.h"

// Sessions with the Pocket Outlook application, and what is done to whole folders.
//
// There is one session that all callers of Login share, and private ones of LoginEx. Each successful log-in initialises
// COM (multithreaded) on the calling thread and each log-out takes that back, so a thread logs out as often as it
// logged in. The shared session is not locked: callers of Login and Logout take turns.
//
// Results are COM result codes, negative for failure, and unchanged from where they arose unless stated; failures are
// logged.
class ZRUTILITY_API OutlookManager {
public:
    // Opens the shared session, or joins it; `app` is then one reference more to it. When COM cannot be initialised
    // that result is returned and nothing has changed. When the application cannot be created, COM is given back.
    // When it cannot log on, `app` is untouched but the session object and COM's initialisation remain, and a later
    // Login joins that object as it is.
    // Otherwise the result is that of logging on, or when joining that of initialising COM (S_OK or S_FALSE).
    static LONG Login(IPOutlookApp*& app);
    // Leaves the shared session, logging off with its last user; a pointer that is not the shared session is passed to
    // LogoutEx. `app` becomes NULL. The result is 0, or that of logging off.
    static LONG Logout(IPOutlookApp*& app);

    // Opens a session of the caller's own, whose folders report changes to `hwnd`. When logging on fails, COM stays
    // initialised and `app` holds what was created: LogoutEx gives both back. When nothing could be created, `app` is
    // NULL and COM stays initialised, which only CoUninitialize takes back.
    static LONG LoginEx(IPOutlookApp*& app, HWND hwnd);
    // Closes such a session; `app` becomes NULL, and NULL is harmless. The result is that of logging off with the
    // remaining reference count or-ed into it: not 0 when somebody still holds the session.
    static LONG LogoutEx(IPOutlookApp*& app);

    // The contacts folder and a collection of its items, for ReleaseContactsCollection. When only the second step fails
    // *folder is set and the caller's to release. E_FAIL when an argument is NULL.
    static LONG GetContactsCollection(IPOutlookApp* app, IFolder** folder, IPOutlookItemCollection** items);
    // Always 0; either may be NULL.
    static LONG ReleaseContactsCollection(IFolder* folder, IPOutlookItemCollection* items);

    // The library's one contacts manager, S_ContactsManagerEmail, whatever the type. It outlives all callers, and
    // releasing it does nothing.
    static ContactsManager* GetContactsManagerInstance(ContactsManager::CM_MANAGER_TYPE type);
    static void ReleaseContactsManagerInstance(ContactsManager* manager);

    // Deletes what the bits of `flags` name, in this order: 1 the contacts whose source is `sourceId` (-1: all), 2 all
    // appointments, 4 all tasks, 8 the "*.pwi" files in the user's documents folder. The first failure ends it. With a
    // NULL `app` and without bit 8 the shared session is used for the time; with bit 8 and a NULL `app` the bits 1 to 4
    // give E_FAIL. 0, or the last step's result; the files do not change it.
    static LONG WipeFolders(int flags, int sourceId, IPOutlookApp* app);

    // Sets which changes the default folder reports (1 local, 2 remote) and gives its identifier. 0, or 1 for any
    // failure, among them that no shared session is open, which is required though `app` is what is used. When the
    // identifier cannot be read, the references to the folder are not given back.
    static LONG SetFolderNotification(IPOutlookApp*& app, int folder, ULONG flags, LONG* folderOid);

    // The shared session, or NULL.
    static IPOutlookApp* m_pOutlookApp;
    // Made when the library is loaded, ended when it is unloaded.
    static ContactsManagerEmail S_ContactsManagerEmail;

private:
    OutlookManager() {}

    static LONG WipeFolder(IPOutlookApp* app, OlDefaultFolders folder, int sourceId);
    static LONG RemoveAll(IPOutlookItemCollection* items, int count);
    static LONG RemoveSource(IPOutlookItemCollection* items, int count, int sourceId);
    // An item's source, 0 when it never had one, -1 when it cannot be told.
    static int GetSourceId(IDispatch* item);
};
