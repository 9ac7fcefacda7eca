#include "ZrUtility/Helpers/PyxProxyHelper.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/Helpers/open_registry_key.h"
#include "ZrUtility/Helpers/proxy_entries.h"
#include "ZrUtility/Helpers/registry_batch.h"
#include "ZrUtility/ZrLinkList.h"
#include "platform/base.h"
#include "platform/com.h"
#include "platform/connection.h"
#include "platform/cursor.h"
#include "platform/iphelper.h"
#include "platform/kernel.h"
#include "platform/provisioning.h"
#include "platform/registry_readers.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\PyxProxyHelper.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x94, kZrLogFailure);
constexpr std::uint32_t LOG_INFORMATION = zrLogCategory(0x94, kZrLogInformation);
constexpr std::uint32_t LOG_TRACE = zrLogCategory(0x94, kZrLogTrace);

constexpr const WCHAR* MUTEX_NAME = u"KEL.ZR.PYX.PyxProxyHelper.Mutex";
constexpr const WCHAR* DESTINATION_KEY = u"Comm\\ConnMgr\\Destinations\\My Halcyon\\";
constexpr const WCHAR* INTERNET_TEXT = u"{436EF144-B4FB-4863-A041-8F905A62C572}";
constexpr const WCHAR* WORK_TEXT = u"{A1182988-0D73-439E-87AD-2A5B369F808B}";
constexpr ULONG VALUE_CHARS = 256;
// So many entries are changed as one: others wait no longer.
constexpr ULONG ENTRIES_AT_ONCE = 256;

constexpr const WCHAR* DESTINATION_DOCUMENT =
    u"<wap-provisioningdoc>\r\n"
    u"  <characteristic type=\"CM_Networks\">\r\n"
    u"    <characteristic type=\"My Halcyon\">\r\n"
    u"      <parm name=\"DestId\" value=\"{3584769F-41FC-4035-BE97-320DA11E0F02}\" />\r\n"
    u"    </characteristic>  </characteristic>\r\n"
    u"</wap-provisioningdoc>\r\n";

using ProviderItem = PyxProxyHelper::ProviderItem;
using ProviderEnumerator = PyxProxyHelper::ProviderEnumerator;

// The result document is looked at by nobody.
HRESULT Provision(const WCHAR* document) {
    WCHAR* answer = nullptr;
    const HRESULT result = DMProcessConfigXML(document, CFGFLAG_PROCESS, &answer);
    delete[] answer;
    return result;
}

bool IsInternetOrWork(const WCHAR* network) {
    return _wcsicmp(network, INTERNET_TEXT) == 0 || _wcsicmp(network, WORK_TEXT) == 0;
}

// The first item, which is the caller's from then on; NULL when there is none.
template <class Item>
Item* TakeFirst(ZrLinkList& list) {
    return list.getNumberOfElement() > 0 ? static_cast<Item*>(list.removeElement(0)) : nullptr;
}

void DeleteItems(ZrLinkList* items) {
    while (ProviderItem* const item = TakeFirst<ProviderItem>(*items)) {
        delete item;
    }
    delete items;
}

struct ItemsDeleter {
    void operator()(ZrLinkList* items) const { DeleteItems(items); }
};
using OwnedItems = std::unique_ptr<ZrLinkList, ItemsDeleter>;

// The client's own two entries.
struct OwnEntries {
    std::unique_ptr<ProviderItem> http;
    std::unique_ptr<ProviderItem> corp;

    explicit OwnEntries(ProviderEnumerator& entries)
        : http(Find(entries, u"HTTP-")), corp(Find(entries, u"null-corp-")) {}

    bool AreThere() const { return http && corp; }

private:
    static ProviderItem* Find(ProviderEnumerator& entries, const WCHAR* prefix) {
        WCHAR name[VALUE_CHARS];
        ProviderItem* found = nullptr;
        StringCchCopyW(name, VALUE_CHARS, prefix);
        return entries.GetItem(name, HALCYON_DESTINATION, &found) ? found : nullptr;
    }
};

// The port of the client's own proxy, with its colon. False when it has none.
bool OwnPort(ProviderItem& http, WCHAR (&port)[VALUE_CHARS]) {
    WCHAR proxy[VALUE_CHARS];
    if (!http.GetProxy(proxy, VALUE_CHARS)) return false;
    const WCHAR* const colon = wcsrchr(proxy, u':');
    return colon != nullptr && SUCCEEDED(StringCchCopyW(port, VALUE_CHARS, colon));
}

// Threads that nobody waits for; the library's code must not go before they have ended.
class RunningWorkers {
public:
    // Takes the handle over.
    void Keep(HANDLE worker) {
        const std::lock_guard guard(m_mutex);
        CloseEnded();
        if (m_workers.appendElement(worker) != 0) CloseHandle(worker);
    }
    void End(ULONG milliseconds) {
        const std::lock_guard guard(m_mutex);
        while (const HANDLE worker = TakeFirst<void>(m_workers)) {
            if (WaitForSingleObject(worker, milliseconds) != WAIT_OBJECT_0) {
                TerminateThread(worker, 1);
                WaitForSingleObject(worker, milliseconds);
            }
            CloseHandle(worker);
        }
    }

private:
    void CloseEnded() {
        for (int i = m_workers.getNumberOfElement() - 1; i >= 0; --i) {
            const HANDLE worker = m_workers.getElementByIndex(i);
            if (WaitForSingleObject(worker, 0) != WAIT_OBJECT_0) continue;
            CloseHandle(worker);
            m_workers.removeElement(i);
        }
    }

    std::mutex m_mutex;
    ZrLinkList m_workers;
} S_workers;

// The entries of a provisioning document, and their items until each is written.
class ProxyDocument {
public:
    explicit ProxyDocument(ZrLinkList* items) : m_items(items) {}
    // Also when the thread is terminated: what is not yet written of the items is left out, and they are closed.
    ~ProxyDocument() {
        while (const WCHAR* const entry = TakeFirst<WCHAR>(m_entries)) {
            delete[] entry;
        }
        if (m_items != nullptr) DeleteItems(m_items);
    }
    ProxyDocument(const ProxyDocument&) = delete;
    ProxyDocument& operator=(const ProxyDocument&) = delete;

    void TakeEntries() {
        while (m_items != nullptr) {
            const std::unique_ptr<ProviderItem> item(TakeFirst<ProviderItem>(*m_items));
            if (!item) return;
            std::unique_ptr<WCHAR[]> entry(item->GenerateXMLEntry());
            if (!entry) {
                zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_FAILURE);
                continue;
            }
            const std::size_t length = wcslen(entry.get());
            if (m_entries.appendElement(entry.get()) != 0) continue;
            static_cast<void>(entry.release());
            m_chars += length;
        }
    }

    // The whole text; NULL when it cannot be written.
    const WCHAR* Write() {
        m_text.reset(new (std::nothrow) WCHAR[m_chars]);
        if (!m_text) return nullptr;
        *m_text.get() = 0;
        Append(PROXY_DOCUMENT_HEAD);
        for (;;) {
            const std::unique_ptr<WCHAR[]> entry(TakeFirst<WCHAR>(m_entries));
            if (!entry) break;
            Append(entry.get());
        }
        return Append(PROXY_DOCUMENT_TAIL) ? m_text.get() : nullptr;
    }

private:
    bool Append(const WCHAR* text) {
        if (FAILED(StringCchCopyW(m_text.get() + m_length, m_chars - m_length, text))) {
            m_text[m_length] = 0;
            zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_FAILURE);
            return false;
        }
        m_length += wcslen(text);
        return true;
    }

    ZrLinkList* const m_items;
    ZrLinkList m_entries;
    std::size_t m_chars = PROXY_DOCUMENT_CHARS;
    std::unique_ptr<WCHAR[]> m_text;
    std::size_t m_length = 0;
};

// The connections of this device, as of one moment.
class Connections {
public:
    void Query() {
        DWORD size = 0;
        ConnMgrQueryDetailedStatus(nullptr, &size);
        if (size == 0) return;
        m_buffer.reset(new (std::nothrow) BYTE[size]);
        if (!m_buffer || FAILED(ConnMgrQueryDetailedStatus(reinterpret_cast<Record*>(m_buffer.get()), &size)) ||
            size == 0)
            m_buffer.reset();
    }
    // The address of the first one that is connected to the network; 0 when there is none.
    ULONG AddressIn(const GUID& network) const {
        for (const Record* each = reinterpret_cast<const Record*>(m_buffer.get()); each != nullptr;
             each = each->pNext) {
            if (each->dwConnectionStatus != CONNMGR_STATUS_CONNECTED || !(each->guidDestNet == network)) continue;
            if (each->pIPAddr == nullptr || each->pIPAddr->cIPAddr == 0) return 0;
            ULONG address = 0;  // behind the port
            std::memcpy(&address, each->pIPAddr->IPAddr[0].ss_data + sizeof(USHORT), sizeof address);
            return address;
        }
        return 0;
    }

private:
    using Record = CONNMGR_CONNECTION_DETAILED_STATUS;

    std::unique_ptr<BYTE[]> m_buffer;
};

// Up to ENTRIES_AT_ONCE entries from a position on that are not the client's own; each(entry) is called for each of
// them, and all that it changes in the registry is kept as one. What takes time is done before others have to wait for
// it. Where that cannot be kept, on a disk that is full, say: once more, value by value, as far as it goes, after
// undo(). False when there are no more entries.
template <class Each, class Undo>
bool ChangeSome(ProviderEnumerator& entries, ULONG first, Each each, Undo undo) {
    for (const bool together : {true, false}) {
        const OwnedItems found(new (std::nothrow) ZrLinkList);
        ProviderItem* next = nullptr;
        ULONG count = 0;
        for (; found && count < ENTRIES_AT_ONCE && entries.GetNextItem(first + count, &next); ++count) {
            if (next->IsHalcyonProvider() || found->appendElement(next) != 0) delete next;
        }
        RegistryBatch batch;
        if (!together) batch.Keep();
        while (found) {
            std::unique_ptr<ProviderItem> entry(TakeFirst<ProviderItem>(*found));
            if (!entry) break;
            each(std::move(entry));
        }
        if (batch.Keep()) return count == ENTRIES_AT_ONCE;
        undo();
    }
    return true;
}

// One rewrite of all entries.
struct Rewrite {
    ProviderEnumerator entries;
    OwnedItems items;
    const int enable;

    explicit Rewrite(int wanted) : enable(wanted) {}

    void All();
    void DropBehind(int count) const;
    bool Take(std::unique_ptr<ProviderItem> item) const;
    bool One(ProviderItem& entry, ProviderItem& http) const;
    void PointAtClient(ProviderItem& entry, ProviderItem& http) const;

private:
    Connections m_connections;
};

// False without memory: then the item is closed.
bool Rewrite::Take(std::unique_ptr<ProviderItem> item) const {
    if (items->appendElement(item.get()) != 0) return false;
    static_cast<void>(item.release());
    return true;
}

void Rewrite::All() {
    OwnEntries own(entries);
    if (!own.AreThere()) return;
    ProviderItem& http = *own.http;
    http.SetEnable(enable, 0);
    own.corp->SetEnable(enable, 0);
    if (!Take(std::move(own.http)) || !Take(std::move(own.corp))) return;
    // Whoever is asked for them may take seconds to answer.
    if (enable) m_connections.Query();
    bool more = true;
    for (ULONG first = 0; more; first += ENTRIES_AT_ONCE) {
        const int before = items->getNumberOfElement();
        const auto rewrite = [&](std::unique_ptr<ProviderItem> entry) {
            if (One(*entry, http)) Take(std::move(entry));
        };
        more = ChangeSome(entries, first, rewrite, [&] { DropBehind(before); });
    }
}

void Rewrite::DropBehind(int count) const {
    for (int i = items->getNumberOfElement(); i-- > count;) {
        delete static_cast<ProviderItem*>(items->removeElement(i));
    }
}

// Whether the entry is one that is rewritten.
bool Rewrite::One(ProviderItem& entry, ProviderItem& http) const {
    WCHAR network[VALUE_CHARS];
    if (entry.GetDestId(network, VALUE_CHARS) && IsInternetOrWork(network)) {
        entry.RevertChanges();
        if (enable) PointAtClient(entry, http);
        return true;
    }
    if (!entry.GetSrcId(network, VALUE_CHARS) || !IsInternetOrWork(network)) return false;
    if (enable) {
        entry.SetEnable(0, 1);
    } else {
        entry.RevertChanges();
    }
    return true;
}

// At this device's address on the connection that the entry begins at, and the client's port.
void Rewrite::PointAtClient(ProviderItem& entry, ProviderItem& http) const {
    WCHAR source[VALUE_CHARS];
    WCHAR port[VALUE_CHARS];
    GUID network = {};
    if (!entry.GetSrcId(source, VALUE_CHARS) || FAILED(CLSIDFromString(source, &network))) return;
    if (!OwnPort(http, port)) return;
    const ULONG address = m_connections.AddressIn(network);
    if (address == 0) return;
    BYTE bytes[sizeof address];
    std::memcpy(bytes, &address, sizeof bytes);
    zrKelDebugBinLog4(LOG_SOURCE, __LINE__, LOG_INFORMATION, bytes[0], bytes[1], bytes[2], bytes[3]);
    WCHAR proxy[VALUE_CHARS];
    StringCchPrintfW(proxy, VALUE_CHARS, u"%u.%u.%u.%u%s", bytes[0], bytes[1], bytes[2], bytes[3], port);
    entry.SetProxy(proxy, 1);
    entry.SetType(1, 1);
    entry.SetEnable(1, 1);
}

void LogDocument(const WCHAR* document) {
    zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_TRACE, wcslen(document));
    if (!zrLogIsWanted()) return;
    const int size = WideCharToMultiByte(CP_ACP, 0, document, -1, nullptr, 0, nullptr, nullptr);
    const std::unique_ptr<char[]> bytes(size > 0 ? new (std::nothrow) char[static_cast<std::size_t>(size)] : nullptr);
    if (!bytes || WideCharToMultiByte(CP_ACP, 0, document, -1, bytes.get(), size, nullptr, nullptr) == 0) return;
    zrKelDebugBinBuffer(LOG_SOURCE, __LINE__, LOG_TRACE | kZrLogBuffer, bytes.get(),
                        static_cast<std::size_t>(size) - 1);
}

// Given back, too, when it was not obtained, and when the thread is terminated.
class ProvisioningMutex {
public:
    ProvisioningMutex() : m_mutex(CreateMutexW(nullptr, FALSE, MUTEX_NAME)) {}
    ~ProvisioningMutex() {
        if (m_mutex == nullptr) return;
        ReleaseMutex(m_mutex);
        CloseHandle(m_mutex);
    }
    ProvisioningMutex(const ProvisioningMutex&) = delete;
    ProvisioningMutex& operator=(const ProvisioningMutex&) = delete;

    bool IsThere() const { return m_mutex != nullptr; }
    bool Obtain(ULONG milliseconds) const {
        const DWORD woken = WaitForSingleObject(m_mutex, milliseconds);
        return woken == WAIT_OBJECT_0 || woken == WAIT_ABANDONED;
    }

private:
    const HANDLE m_mutex;
};

}  // namespace

std::atomic<ULONG> PyxProxyHelper::m_workerLimit = 15000;
std::atomic<ULONG> PyxProxyHelper::m_notifyLimit = 2000;
PyxProxyHelper* PyxProxyHelper::m_pInstance = nullptr;
PyxProxyHelper::PyxProxyHelperReleaser PyxProxyHelper::m_Releaser;

PyxProxyHelper::PyxProxyHelperReleaser::~PyxProxyHelperReleaser() {
    Release();
    S_workers.End(m_workerLimit);
}

PyxProxyHelper::PyxProxyHelper() : m_hNotifyThread(nullptr), m_hStopEvent(nullptr) {}

PyxProxyHelper::~PyxProxyHelper() {
    if (m_hNotifyThread != nullptr) {
        SetEvent(m_hStopEvent);
        if (WaitForSingleObject(m_hNotifyThread, m_notifyLimit) != WAIT_OBJECT_0) {
            TerminateThread(m_hNotifyThread, 0);
            // It ends at its next call of the platform; what it uses must not go before.
            WaitForSingleObject(m_hNotifyThread, m_notifyLimit);
        }
        CloseHandle(m_hNotifyThread);
    }
    if (m_hStopEvent != nullptr) CloseHandle(m_hStopEvent);
}

PyxProxyHelper* PyxProxyHelper::GetInstance() {
    if (m_pInstance == nullptr) m_pInstance = new (std::nothrow) PyxProxyHelper;
    return m_pInstance;
}

int PyxProxyHelper::Release() {
    if (m_pInstance == nullptr) return 0;
    delete m_pInstance;
    m_pInstance = nullptr;
    return 1;
}

// ---- Enabling and disabling ----

int PyxProxyHelper::ChangeProxyConnectionSettings(int enable, int wait) {
    zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_INFORMATION, static_cast<ULONG>(enable), static_cast<ULONG>(wait));
    const int enabled = IsProxyEnabled();
    if (enabled == -1 || enabled == enable) return 1;
    return UpdateProxyConnectionSettings(enable, wait);
}

int PyxProxyHelper::IsProxyEnabled() {
    ProviderEnumerator entries;
    entries.Initialize();
    const OwnEntries own(entries);
    if (!own.AreThere()) return -1;
    for (ProviderItem* const entry : {own.http.get(), own.corp.get()}) {
        int enabled = 0;
        if (!entry->GetEnable(&enabled) || enabled == 0) return 0;
    }
    return 1;
}

int PyxProxyHelper::UpdateProxyConnectionSettings(int enable, int wait) {
    DisplayWaitCursor(1);
    int result = 0;
    {
        Rewrite rewrite(enable);
        if (rewrite.entries.Initialize()) rewrite.items.reset(new (std::nothrow) ZrLinkList);
        if (rewrite.items) {
            rewrite.All();
            // From here on they are the worker's, also if this thread is ended.
            ZrLinkList* const items = rewrite.items.release();
            result = UpdateProviders(items, wait);
            if (result == 0) DeleteItems(items);
        }
        DisplayWaitCursor(0);
    }
    return result;
}

int PyxProxyHelper::UpdateProviders(ZrLinkList* items, int wait) {
    if (items->getNumberOfElement() == 0) return 0;
    // Not by the worker: when the library is unloaded it is waited for, and the loader does not serve it meanwhile.
    ZrPrepareProvisioning();
    const HANDLE worker = CreateThread(nullptr, 0, ThreadedProcessingXML, items, 0, nullptr);
    if (worker == nullptr) return 0;
    if (!wait) {
        S_workers.Keep(worker);
        return 1;
    }
    if (WaitForSingleObject(worker, m_workerLimit) != WAIT_OBJECT_0) TerminateThread(worker, 1);
    S_workers.Keep(worker);
    return 1;
}

ULONG PyxProxyHelper::ThreadedProcessingXML(void* items) {
    const ProvisioningMutex mutex;
    if (!mutex.IsThere()) return 0;
    if (!mutex.Obtain(m_workerLimit)) {
        // The items are another's turn no more: they stay as they are, open and not brought to the disk.
        zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_FAILURE);
        return 0;
    }
    ProxyDocument document(static_cast<ZrLinkList*>(items));
    document.TakeEntries();
    const WCHAR* const text = document.Write();
    if (text == nullptr) return 0;
    LogDocument(text);
    const HRESULT result = Provision(text);
    if (FAILED(result)) zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result));
    return 0;
}

int PyxProxyHelper::RevertNullProxies() {
    ProviderEnumerator entries;
    entries.Initialize();
    const auto revert = [](std::unique_ptr<ProviderItem> entry) { entry->RevertChanges(); };
    for (ULONG first = 0; ChangeSome(entries, first, revert, [] {}); first += ENTRIES_AT_ONCE) {
    }
    return 0;
}

int PyxProxyHelper::EnsureHalcyonDestination() {
    OpenRegistryKey key;
    WCHAR network[VALUE_CHARS];
    const bool isThere = key.Open(HKEY_LOCAL_MACHINE, DESTINATION_KEY) &&
                         SUCCEEDED(RegistryGetString(key, nullptr, u"DestId", network, VALUE_CHARS)) &&
                         _wcsicmp(network, HALCYON_DESTINATION_TEXT) == 0;
    return isThere || SUCCEEDED(Provision(DESTINATION_DOCUMENT));
}

// ---- Addresses and connections ----

ULONG PyxProxyHelper::GetDestIPAddress(GUID& network) {
    Connections connections;
    connections.Query();
    return connections.AddressIn(network);
}

int PyxProxyHelper::OnConnectionStatusUpdate(ULONG status) {
    zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_INFORMATION, status);
    if (status != CONNMGR_STATUS_CONNECTED && status != CONNMGR_STATUS_DISCONNECTED) return 0;
    return IsProxyEnabled() == 1 ? UpdateProxyConnectionSettings(1, 1) : 0;
}

int PyxProxyHelper::StartIPAddrChangeNotification() {
    if (m_hNotifyThread != nullptr) return 0;
    HANDLE changes = nullptr;
    if (NotifyAddrChange(&changes, nullptr) != NO_ERROR || changes == nullptr) return 0;
    // Not by the thread: when the library is unloaded it is waited for, and the loader does not serve it meanwhile.
    ZrPrepareConnections();
    ZrPrepareProvisioning();
    if (m_hStopEvent != nullptr) CloseHandle(m_hStopEvent);
    m_hStopEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (m_hStopEvent != nullptr)
        m_hNotifyThread = CreateThread(nullptr, 0, IpAddressChangeHandler, changes, 0, nullptr);
    if (m_hNotifyThread == nullptr) CloseHandle(changes);
    return m_hNotifyThread != nullptr;
}

ULONG PyxProxyHelper::IpAddressChangeHandler(void* changeEvent) {
    // The notification is this thread's, also when it is terminated.
    struct Changes {
        HANDLE handle;
        ~Changes() {
            if (handle != nullptr) CloseHandle(handle);
        }
    } const changes{changeEvent};
    PyxProxyHelper* const helper = GetInstance();
    if (helper == nullptr || changes.handle == nullptr) return 0;
    const HANDLE handles[] = {changes.handle, helper->m_hStopEvent};
    for (;;) {
        const DWORD woken = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
        if (woken != WAIT_OBJECT_0) return woken;
        helper->UpdateProxyConnectionSettings(IsProxyEnabled() >= 1, 1);
    }
}

int PyxProxyHelper::DisplayWaitCursor(int show) {
    return SetCursor(show ? LoadCursorW(nullptr, IDC_WAIT) : nullptr) != nullptr;
}

// ---- For callers that do not use the class ----

int ChangeProxySettings(int enable, int wait) {
    PyxProxyHelper* const helper = PyxProxyHelper::GetInstance();
    return helper != nullptr ? helper->ChangeProxyConnectionSettings(enable, wait) : 0;
}

int OnConnectionStatusUpdate(ULONG status) {
    PyxProxyHelper* const helper = PyxProxyHelper::GetInstance();
    return helper != nullptr ? helper->OnConnectionStatusUpdate(status) : 0;
}

HRESULT zrProcessConfigXML(LPCWSTR document, DWORD flags, LPWSTR* result) {
    return DMProcessConfigXML(document, flags, result);
}
