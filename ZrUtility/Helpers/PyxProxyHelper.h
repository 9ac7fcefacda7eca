#pragma once

// Has the Connection Manager send web traffic through the client's own proxy on this device, and takes it back.
//
// The Connection Manager keeps its proxy entries in the registry. Two of them are the client's own. While the client's
// proxy is enabled, every other entry that leads into the Internet or the Work network points at this device's address
// and the client's port, and those that lead out of these networks are off. What an entry held before is kept beside
// it, and is put back when the proxy is disabled. Changes are handed to the Connection Manager as one provisioning
// document, on a worker thread; documents are made and carried out one at a time among all of the user's programs.
//
// The helper is one for the process. It is made, started and released by one thread at a time; its other operations may
// be called by any. Nothing throws; failures are told by results and by the log.

#include <atomic>

#include "ZrUtility/Export.h"
#include "platform/registry.h"
#include "platform/types.h"

class ZrLinkList;

class ZRUTILITY_API PyxProxyHelper {
public:
    // One proxy entry: a key of the registry, open until the item is destroyed. Not locked. Assigning copies all of it,
    // the key's handle included: only one of the copies may be destroyed. Results are 1 or 0 unless stated.
    class ZRUTILITY_API ProviderItem {
    public:
        // Takes `key` over. With a null key the entry of that name is opened, and made when it is missing.
        ProviderItem(HKEY key, WCHAR* name);
        // The name is both texts, at most 255 characters of them.
        ProviderItem(HKEY key, WCHAR* prefix, WCHAR* suffix);
        // What was written has reached the disk when this returns.
        ~ProviderItem();

        // Read a value into `buffer`, which holds `chars` characters. 0 when it is missing, no text, or too long.
        int GetConnectionGUID(WCHAR* buffer, ULONG chars);
        int GetDestId(WCHAR* buffer, ULONG chars);
        int GetSrcId(WCHAR* buffer, ULONG chars);
        int GetProxy(WCHAR* buffer, ULONG chars);
        int GetUserName(WCHAR* buffer, ULONG chars);
        int GetPassword(WCHAR* buffer, ULONG chars);
        int GetType(ULONG* value);
        int GetEnable(int* value);

        // Write a value, unless it is stored already; texts are compared ignoring case. With `backup` the value from
        // before the first change is kept for RevertChanges; a value that was missing has none, and one of more than
        // 256 bytes neither. 0 when it could not be written.
        int SetConnectionGUID(WCHAR* value, int backup);
        int SetDestId(WCHAR* value, int backup);
        int SetSrcId(WCHAR* value, int backup);
        int SetProxy(WCHAR* value, int backup);
        int SetUserName(WCHAR* value, int backup);
        int SetPassword(WCHAR* value, int backup);
        int SetType(ULONG value, int backup);
        int SetEnable(int value, int backup);

        // Whether it is one of the client's own two, by its name.
        int IsHalcyonProvider();

        // Puts back what was kept, and forgets it. Values that had nothing kept stay. When something was put back, all
        // values count as changed from then on. 0 when there is no key, or when one could not be written.
        int RevertChanges();

        // The entry with each value that was changed and can be read, as part of a provisioning document, in a fixed
        // order. The caller deletes it with delete[]. NULL when nothing was changed, or when it has more than 808
        // characters. Texts are written as they are stored.
        WCHAR* GenerateXMLEntry();
        // A whole document around it.
        WCHAR* GenerateConfigXML();

    protected:
        void Initialize(HKEY key, WCHAR* name);
        int BackupValue(const WCHAR* valueName);
        int GetString(const WCHAR* name, WCHAR* buffer, ULONG chars);
        int SetString(const WCHAR* name, const WCHAR* value, int backup, int bit);
        int GetDWORD(const WCHAR* name, ULONG* value);
        int SetDWORD(const WCHAR* name, ULONG value, int backup, int bit);

    private:
        int IsChanged(int bit) const { return (m_changed >> bit & 1) != 0; }
        int BackupPath(WCHAR* path, ULONG chars) const;
        int WriteEntry(WCHAR* text, ULONG chars);

        HKEY m_hKey;
        WCHAR m_name[260];
        ULONG m_changed;  // one bit a value
    };

    // Hands out the proxy entries. Not locked. Items are new, and the caller's to delete.
    class ZRUTILITY_API ProviderEnumerator {
    public:
        ProviderEnumerator();
        ~ProviderEnumerator();
        ProviderEnumerator(const ProviderEnumerator&) = default;
        ProviderEnumerator& operator=(const ProviderEnumerator&) = default;

        // 1 when the entries' key is open, now or already.
        int Initialize();
        // 1; 0 when it was not open.
        int Cleanup();
        // The entry at a position, by name: 1; 0 when there is none, or it cannot be opened.
        int GetNextItem(ULONG index, ProviderItem** item);
        // The entry of that name, which is not made: 1 or 0.
        int GetItem(WCHAR* name, ProviderItem** item);
        // Of that name with the GUID behind it, in braces.
        int GetItem(WCHAR* prefix, GUID guid, ProviderItem** item);

    private:
        HKEY m_hKey;
    };

    // Releases the helper when the library is unloaded, and ends what is still at work.
    struct ZRUTILITY_API PyxProxyHelperReleaser {
        ~PyxProxyHelperReleaser();
    };

    // The helper, made at the first call; NULL when there is no memory for it.
    static PyxProxyHelper* GetInstance();
    // Destroys the helper: 1, or 0 when there was none. Ends the notifications.
    static int Release();

    // Enables or disables the client's proxy, unless it is so already or the client has no entries: then 1 at once.
    // Else as UpdateProxyConnectionSettings.
    int ChangeProxyConnectionSettings(int enable, int wait);
    // Writes all entries anew and hands what changed to the Connection Manager: 1 when a worker was started, 0 when
    // there is nothing to hand over. With `wait` it returns when the worker has ended, and no later than after 15
    // seconds, when it ends it.
    int UpdateProxyConnectionSettings(int enable, int wait);
    // The last of that: takes the list, which was made with new, and its items over when it returns 1.
    int UpdateProviders(ZrLinkList* items, int wait);
    // -1: one of the client's own entries is missing. 1: both are on. 0: no, or they cannot be read.
    static int IsProxyEnabled();

    // Makes the client's destination network where it is missing. 1 when it is there, 0 when it could not be made.
    int EnsureHalcyonDestination();
    // Puts back what was kept of all other entries, in the registry alone. Always 0.
    int RevertNullProxies();

    // Writes the entries anew whenever an address of this device changes, on a thread of the helper's own. 1; 0 when
    // that goes on already, or cannot be started.
    int StartIPAddrChangeNotification();
    // To be told of the Connection Manager's status: when it is connected or disconnected and the proxy is on, the
    // entries are written anew. Their result, else 0.
    int OnConnectionStatusUpdate(ULONG status);

    // The wait cursor, or none. 1 when there was a cursor before.
    static int DisplayWaitCursor(int show);
    // This device's IPv4 address on the connection into a network, in the order of the wire; 0 when there is none.
    static ULONG GetDestIPAddress(GUID& network);

    static PyxProxyHelper* m_pInstance;
    static PyxProxyHelperReleaser m_Releaser;

protected:
    PyxProxyHelper();
    ~PyxProxyHelper();

    // How long a worker may take, and the wait for others' documents; and the thread of the notifications, to end. In
    // milliseconds.
    static std::atomic<ULONG> m_workerLimit;
    static std::atomic<ULONG> m_notifyLimit;

private:
    static ULONG ThreadedProcessingXML(void* items);
    static ULONG IpAddressChangeHandler(void* changeEvent);

    HANDLE m_hNotifyThread;
    HANDLE m_hStopEvent;
};

extern "C" {
// As the helper's operations of these names; the helper is made when there is none. 0 when that fails.
ZRUTILITY_API int ChangeProxySettings(int enable, int wait);
ZRUTILITY_API int OnConnectionStatusUpdate(ULONG status);
// As DMProcessConfigXML (platform/provisioning.h).
ZRUTILITY_API HRESULT zrProcessConfigXML(LPCWSTR document, DWORD flags, LPWSTR* result);
}
