#include "ZrUtility/Helpers/OutlookManager.h"

#include "ZrLog/ZrLog.h"
#include "ZrUtility/FileEnumerator.h"
#include "platform/base.h"
#include "platform/shell.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\OutlookManager.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x84, kZrLogFailure);
constexpr std::uint32_t LOG_INFORMATION = zrLogCategory(0x84, kZrLogInformation);

enum WipeFlags : int {
    WIPE_CONTACTS = 1,
    WIPE_CALENDAR = 2,
    WIPE_TASKS = 4,
    WIPE_DOCUMENTS = 8,
};
constexpr int EVERY_SOURCE = -1;

void LogFailure(int line, LONG result) {
    zrKelDebugBinLog1(LOG_SOURCE, line, LOG_FAILURE, static_cast<ULONG>(result));
}

void LogFailureWithSystemError(int line, LONG result) {
    const DWORD error = GetLastError();
    zrKelDebugBinLog2(LOG_SOURCE, line, LOG_FAILURE, static_cast<ULONG>(result), error);
}

// How a failure to initialise COM is told apart in the log: the record's first argument.
int KindOfComFailure(LONG result) {
    switch (result) {
        case E_UNEXPECTED:
            return 1;
        case RPC_E_CHANGED_MODE:
            return 2;
        case E_OUTOFMEMORY:
            return 3;
        case E_INVALIDARG:
            return 4;
        default:
            return 5;
    }
}

LONG InitializeCom() {
    const LONG result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (result < 0) {
        zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, KindOfComFailure(result), static_cast<ULONG>(result));
    }
    return result;
}

LONG CreateApplication(IPOutlookApp*& app) {
    void* object = nullptr;
    const LONG result = CoCreateInstance(CLSID_Application, nullptr, CLSCTX_INPROC_SERVER, IID_IPOutlookApp, &object);
    app = static_cast<IPOutlookApp*>(object);
    if (result < 0) LogFailure(__LINE__, result);
    return result;
}

}  // namespace

IPOutlookApp* OutlookManager::m_pOutlookApp = nullptr;
ContactsManagerEmail OutlookManager::S_ContactsManagerEmail;

LONG OutlookManager::Login(IPOutlookApp*& app) {
    const LONG initialized = InitializeCom();
    if (initialized < 0) return initialized;
    if (m_pOutlookApp != nullptr) {
        const ULONG count = m_pOutlookApp->AddRef();
        zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_INFORMATION, count);
        app = m_pOutlookApp;
        return initialized;
    }
    LONG result = CreateApplication(m_pOutlookApp);
    if (result < 0) {
        CoUninitialize();
        return result;
    }
    result = m_pOutlookApp->Logon(nullptr);
    if (result < 0) {
        LogFailure(__LINE__, result);
        return result;
    }
    zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_INFORMATION, static_cast<ULONG>(result));
    app = m_pOutlookApp;
    return result;
}

LONG OutlookManager::Logout(IPOutlookApp*& app) {
    if (m_pOutlookApp == nullptr || app != m_pOutlookApp) return LogoutEx(app);
    m_pOutlookApp->AddRef();
    const ULONG users = m_pOutlookApp->Release();
    LONG result = S_OK;
    if (users != 1) {
        const ULONG remaining = m_pOutlookApp->Release();
        zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_INFORMATION, remaining);
    } else {
        result = m_pOutlookApp->Logoff();
        m_pOutlookApp->Release();
        m_pOutlookApp = nullptr;
        zrKelDebugBinLog1(LOG_SOURCE, __LINE__, result < 0 ? LOG_FAILURE : LOG_INFORMATION, static_cast<ULONG>(result));
    }
    CoUninitialize();
    app = nullptr;
    return result;
}

LONG OutlookManager::LoginEx(IPOutlookApp*& app, HWND hwnd) {
    LONG result = InitializeCom();
    if (result < 0) return result;
    result = CreateApplication(app);
    if (result < 0) return result;
    result = app->Logon(hwnd);
    if (result < 0) LogFailure(__LINE__, result);
    return result;
}

LONG OutlookManager::LogoutEx(IPOutlookApp*& app) {
    if (app == nullptr) return S_OK;
    LONG result = app->Logoff();
    result |= static_cast<LONG>(app->Release());
    CoUninitialize();
    app = nullptr;
    if (result != 0) LogFailure(__LINE__, result);
    return result;
}

LONG OutlookManager::GetContactsCollection(IPOutlookApp* app, IFolder** folder, IPOutlookItemCollection** items) {
    if (app == nullptr || folder == nullptr || items == nullptr) return E_FAIL;
    const LONG result = app->GetDefaultFolder(olFolderContacts, folder);
    return result < 0 ? result : (*folder)->get_Items(items);
}

LONG OutlookManager::ReleaseContactsCollection(IFolder* folder, IPOutlookItemCollection* items) {
    if (items != nullptr) items->Release();
    if (folder != nullptr) folder->Release();
    return S_OK;
}

ContactsManager* OutlookManager::GetContactsManagerInstance(ContactsManager::CM_MANAGER_TYPE type) {
    zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_INFORMATION, type);
    return &S_ContactsManagerEmail;
}

void OutlookManager::ReleaseContactsManagerInstance(ContactsManager*) {}

LONG OutlookManager::WipeFolders(int flags, int sourceId, IPOutlookApp* app) {
    LONG result = S_OK;
    IPOutlookApp* own = nullptr;
    if (app == nullptr && (flags & WIPE_DOCUMENTS) == 0) {
        result = Login(own);
        if (result < 0) return result;
        app = own;
        result = S_OK;
    }
    if ((flags & WIPE_CONTACTS) != 0) result = WipeFolder(app, olFolderContacts, sourceId);
    if (result >= 0 && (flags & WIPE_CALENDAR) != 0) result = WipeFolder(app, olFolderCalendar, EVERY_SOURCE);
    if (result >= 0 && (flags & WIPE_TASKS) != 0) result = WipeFolder(app, olFolderTasks, EVERY_SOURCE);
    if (result >= 0 && (flags & WIPE_DOCUMENTS) != 0) {
        WCHAR folder[MAX_PATH] = {};
        WCHAR pattern[] = u"*.pwi";
        // Without a folder there is nothing to delete; an empty path would be the root.
        if (SHGetSpecialFolderPath(nullptr, folder, CSIDL_PERSONAL, FALSE) != FALSE && folder[0] != u'\0') {
            FileEnumerator::DeleteFilesFolders(folder, pattern, 0);
        } else {
            LogFailureWithSystemError(__LINE__, E_FAIL);
        }
    }
    if (own != nullptr) Logout(own);
    return result;
}

LONG OutlookManager::WipeFolder(IPOutlookApp* app, OlDefaultFolders folder, int sourceId) {
    if (app == nullptr) {
        LogFailure(__LINE__, E_FAIL);
        return E_FAIL;
    }
    IFolder* opened = nullptr;
    IPOutlookItemCollection* items = nullptr;
    INT count = 0;
    LONG result = app->GetDefaultFolder(folder, &opened);
    if (result >= 0) result = opened->get_Items(&items);
    if (result >= 0) result = items->get_Count(&count);
    if (result >= 0) {
        result = sourceId == EVERY_SOURCE ? RemoveAll(items, count) : RemoveSource(items, count, sourceId);
    }
    if (result < 0) zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result), folder);
    ReleaseContactsCollection(opened, items);
    return result;
}

LONG OutlookManager::RemoveAll(IPOutlookItemCollection* items, int count) {
    LONG result = S_OK;
    for (int i = 0; i < count && result >= 0; ++i) {
        result = items->Remove(1);
    }
    return result;
}

LONG OutlookManager::RemoveSource(IPOutlookItemCollection* items, int count, int sourceId) {
    LONG result = S_OK;
    for (int round = 0, index = 1; round < count; ++round) {
        IDispatch* item = nullptr;
        result = items->Item(index, &item);
        if (result < 0) {
            LogFailureWithSystemError(__LINE__, result);
            ++index;
        } else if (GetSourceId(item) == sourceId) {
            items->Remove(index);
        } else {
            ++index;
        }
        if (item != nullptr) item->Release();
    }
    return result;
}

int OutlookManager::GetSourceId(IDispatch* item) {
    if (item == nullptr) {
        LogFailure(__LINE__, E_FAIL);
        return -1;
    }
    void* object = nullptr;
    LONG result = item->QueryInterface(IID_IItem, &object);
    if (result < 0 || object == nullptr) {
        LogFailureWithSystemError(__LINE__, result);
        return -1;
    }
    auto* properties = static_cast<IItem*>(object);
    const CEPROPID wanted = PIMPR_SOURCE_ID;
    CEPROPVAL* values = nullptr;
    ULONG size = 0;
    int source = -1;
    result = properties->GetProps(&wanted, CEDB_ALLOWREALLOC, 1, &values, &size, GetProcessHeap());
    if (result < 0 || values == nullptr) {
        LogFailureWithSystemError(__LINE__, result);
    } else {
        source = values->wFlags == CEDB_PROPNOTFOUND ? 0 : static_cast<int>(values->val.ulVal);
    }
    if (values != nullptr) HeapFree(GetProcessHeap(), 0, values);
    properties->Release();
    return source;
}

LONG OutlookManager::SetFolderNotification(IPOutlookApp*& app, int folder, ULONG flags, LONG* folderOid) {
    if (m_pOutlookApp == nullptr || app == nullptr) {
        LogFailure(__LINE__, E_FAIL);
        return 1;
    }
    IFolder* opened = nullptr;
    LONG result = app->GetDefaultFolder(static_cast<OlDefaultFolders>(folder), &opened);
    if (result < 0) {
        LogFailure(__LINE__, result);
        return 1;
    }
    void* object = nullptr;
    result = opened->QueryInterface(IID_IItem, &object);
    if (result < 0) {
        LogFailure(__LINE__, result);
        opened->Release();
        return 1;
    }
    auto* item = static_cast<IItem*>(object);
    LONG failed = 0;
    CEPROPVAL notifications = {};
    notifications.propid = PIMPR_FOLDERNOTIFICATIONS;
    notifications.val.ulVal = flags;
    result = item->SetProps(0, 1, &notifications);
    if (result < 0) {
        LogFailure(__LINE__, result);
        failed = 1;
    }
    result = item->Save();
    if (result < 0) {
        LogFailure(__LINE__, result);
        failed = 1;
    }
    result = item->get_Oid(folderOid);
    if (result < 0) {
        LogFailure(__LINE__, result);
        return 1;
    }
    item->Release();
    opened->Release();
    return failed;
}
