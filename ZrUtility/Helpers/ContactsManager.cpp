#include "ZrUtility/Helpers/ContactsManager.h"

#include <new>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/Helpers/OutlookManager.h"
#include "ZrUtility/Helpers/contact_item.h"
#include "platform/base.h"
#include "platform/kernel.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\ContactsManager.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x73, kZrLogFailure);
constexpr std::uint32_t LOG_INFORMATION = zrLogCategory(0x73, kZrLogInformation);

constexpr ULONG ALL_FIELDS = 0xFFFFFFFF;

void LogFailure(int line, LONG result) {
    zrKelDebugBinLog1(LOG_SOURCE, line, LOG_FAILURE, static_cast<ULONG>(result));
}

void LogSystemError(int line) {
    zrKelDebugBinLog1(LOG_SOURCE, line, LOG_FAILURE, GetLastError());
}

// The collection's name of a field, NULL for what it cannot be ordered by.
const WCHAR* SortTag(int field) {
    switch (field) {
        case Contact::CONTACT_FIELD_FILE_AS:
            return u"[FileAs]";
        case Contact::CONTACT_FIELD_TITLE:
            return u"[Title]";
        case Contact::CONTACT_FIELD_FIRST_NAME:
            return u"[FirstName]";
        case Contact::CONTACT_FIELD_MIDDLE_NAME:
            return u"[MiddleName]";
        case Contact::CONTACT_FIELD_LAST_NAME:
            return u"[LastName]";
        case Contact::CONTACT_FIELD_SUFFIX:
            return u"[Suffix]";
        case Contact::CONTACT_FIELD_COMPANY_NAME:
            return u"[CompanyName]";
        case Contact::CONTACT_FIELD_EMAIL1:
            return u"[Email1Address]";
        case Contact::CONTACT_FIELD_EMAIL2:
            return u"[Email2Address]";
        case Contact::CONTACT_FIELD_EMAIL3:
            return u"[Email3Address]";
        default:
            return nullptr;
    }
}

}  // namespace

const WCHAR* const ContactsManager::S_pwzListenerClassName = u"kel.net.Contacts.Listener";

ContactsManager::ContactsManager()
    : m_pOutlookApp(nullptr), m_pFolder(nullptr), m_pItems(nullptr), m_hwndListener(nullptr), m_iInitialized(0) {}

ContactsManager::~ContactsManager() {
    ContactsManager::Uninitialize(1);
}

int ContactsManager::IsInitialized() {
    return m_iInitialized > 0 ? 1 : 0;
}

ContactsManager::CM_MANAGER_TYPE ContactsManager::GetClassType() {
    return CM_TYPE_CONTACTS;
}

LONG ContactsManager::Initialize() {
    LONG result = S_OK;
    if (IsInitialized() == 0) {
        result = OpenFolder();
        if (result >= 0) {
            zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_INFORMATION, static_cast<ULONG>(result));
            m_iInitialized = 0;
        }
    }
    ++m_iInitialized;
    zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_INFORMATION, m_iInitialized);
    if (result < 0) {
        LogFailure(__LINE__, result);
        // This class's own: a derived manager counts for itself.
        ContactsManager::Uninitialize(0);
    }
    return result;
}

LONG ContactsManager::OpenFolder() {
    const bool listens = GetClassType() == CM_TYPE_EMAIL;
    LONG result = S_OK;
    if (listens) {
        result = CreateListenerWindow();
        if (result >= 0) result = OutlookManager::LoginEx(m_pOutlookApp, m_hwndListener);
    } else {
        result = OutlookManager::Login(m_pOutlookApp);
    }
    if (result >= 0) result = m_pOutlookApp->GetDefaultFolder(olFolderContacts, &m_pFolder);
    if (result >= 0) result = m_pFolder->get_Items(&m_pItems);
    if (result >= 0 && listens) result = SubscribeToNotifications();
    return result;
}

LONG ContactsManager::Uninitialize(int force) {
    --m_iInitialized;
    zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_INFORMATION, m_iInitialized, force);
    // A call too many must not keep what a later failing Initialize holds, so below 0 is as good as 0.
    if (m_iInitialized > 0 && force == 0) return S_OK;
    m_iInitialized = 0;
    const LONG result = CloseSession();
    if (result < 0) {
        zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result), m_iInitialized);
    }
    return result;
}

// Every step is taken, whatever became of the one before.
LONG ContactsManager::CloseSession() {
    OutlookManager::ReleaseContactsCollection(nullptr, m_pItems);
    m_pItems = nullptr;
    OutlookManager::ReleaseContactsCollection(m_pFolder, nullptr);
    m_pFolder = nullptr;
    LONG result = S_OK;
    if (m_pOutlookApp != nullptr) {
        // A session with a window is a private one, also when the derived manager is already gone.
        if (GetClassType() == CM_TYPE_EMAIL || m_hwndListener != nullptr) {
            result = OutlookManager::LogoutEx(m_pOutlookApp);
        } else {
            result = OutlookManager::Logout(m_pOutlookApp);
        }
    }
    if (m_hwndListener != nullptr) DestroyListenerWindow();
    return result;
}

void ContactsManager::DestroyListenerWindow() {
    if (DestroyWindow(m_hwndListener) == FALSE) {
        LogSystemError(__LINE__);
        // It belongs to another thread and stays until that one ends; it must not call into this manager, nor, after
        // an unload, into this library.
        SetWindowLongW(m_hwndListener, GWL_USERDATA, 0);
        SetWindowLongW(m_hwndListener, GWL_WNDPROC, reinterpret_cast<LONG_PTR>(&DefWindowProcW));
    }
    m_hwndListener = nullptr;
}

LONG ContactsManager::SortCollection(int field) {
    const WCHAR* tag = SortTag(field);
    if (tag == nullptr) return S_OK;
    const LONG result = m_pItems != nullptr ? m_pItems->Sort(const_cast<WCHAR*>(tag), VARIANT_FALSE) : E_FAIL;
    if (result < 0) LogFailure(__LINE__, result);
    return result;
}

LONG ContactsManager::GetContactsCount(int& count) {
    return m_pItems != nullptr ? m_pItems->get_Count(&count) : E_FAIL;
}

LONG ContactsManager::AddContact(Contact*& contact) {
    contact = nullptr;
    IDispatch* item = nullptr;
    const LONG result = m_pItems != nullptr ? m_pItems->Add(&item) : E_FAIL;
    return HandOut(result, static_cast<IContact*>(item), contact);
}

LONG ContactsManager::GetContact(int index, Contact*& contact) {
    contact = nullptr;
    IDispatch* item = nullptr;
    const LONG result = m_pItems != nullptr ? m_pItems->Item(index, &item) : E_FAIL;
    return HandOut(result, static_cast<IContact*>(item), contact);
}

LONG ContactsManager::GetContactFromOid(ULONG oid, Contact*& contact) {
    contact = nullptr;
    IDispatch* item = nullptr;
    IContact* found = nullptr;
    LONG result = m_pOutlookApp != nullptr ? m_pOutlookApp->GetItemFromOid(static_cast<LONG>(oid), &item) : E_FAIL;
    // The identifier may be an appointment's or a task's.
    const LONG kind = ContactOfItem(item, found);
    if (result >= 0 && kind < 0) result = kind;
    return HandOut(result, found, contact);
}

// Makes a record of an item that was got with `result`, and takes over the item's reference.
LONG ContactsManager::HandOut(LONG result, IContact* item, Contact*& contact) {
    if (result >= 0 && item != nullptr) {
        contact = new (std::nothrow) Contact;
        result = contact != nullptr ? contact->Initialize(item) : E_FAIL;
        if (contact != nullptr) item = nullptr;
    }
    if (result < 0) {
        LogFailure(__LINE__, result);
        DestroyContact(contact);
        if (item != nullptr) item->Release();
    }
    return result;
}

void ContactsManager::DestroyContact(Contact*& contact) {
    if (contact == nullptr) return;
    contact->Uninitialize();
    delete contact;
    contact = nullptr;
}

LONG ContactsManager::ReleaseContact(Contact*& contact) {
    if (contact == nullptr) return S_OK;
    const LONG result = contact->Uninitialize();
    delete contact;
    contact = nullptr;
    return result;
}

ContactsManager::CM_QUANTIFIER ContactsManager::FindContact(WCHAR* pattern, int, int exact, int substrings,
                                                            int emailOnly, Contact*& contact) {
    contact = nullptr;
    if (pattern == nullptr) return CM_NONE;
    int count = 0;
    LONG result = m_pItems != nullptr ? m_pItems->get_Count(&count) : E_FAIL;
    Contact* candidate = nullptr;
    int matches = 0;
    for (int index = 1; result >= 0 && index <= count && matches < 2; ++index) {
        if (candidate == nullptr) candidate = new (std::nothrow) Contact;
        result = candidate != nullptr ? BindToItem(index, candidate) : E_FAIL;
        if (result < 0) break;
        const bool passedOver = emailOnly != 0 && candidate->HasEmail(0) == 0;
        if (passedOver || candidate->IsComparable(pattern, ALL_FIELDS, exact, substrings) == 0) {
            candidate->Uninitialize();
        } else if (++matches == 1) {
            contact = candidate;
            candidate = nullptr;
        }
    }
    DestroyContact(candidate);
    if (result < 0 || matches > 1) DestroyContact(contact);
    if (result < 0) {
        LogFailure(__LINE__, result);
        return CM_FAILED;
    }
    return static_cast<CM_QUANTIFIER>(matches);
}

LONG ContactsManager::BindToItem(int index, Contact* contact) {
    IDispatch* item = nullptr;
    const LONG result = m_pItems->Item(index, &item);
    return result < 0 ? result : contact->Initialize(static_cast<IContact*>(item));
}

int ContactsManager::FindContacts(WCHAR*, int, int, Contact**&) {
    return -1;
}

LONG ContactsManager::ReleaseContacts(Contact**&, int) {
    return E_FAIL;
}

LONG ContactsManager::ProcessPIMCreated(HWND, UINT, WPARAM, LPARAM) {
    return S_OK;
}

LONG ContactsManager::ProcessPIMDeleted(HWND, UINT, WPARAM, LPARAM) {
    return S_OK;
}

LONG ContactsManager::ProcessPIMChanged(HWND, UINT, WPARAM, LPARAM) {
    return S_OK;
}

LONG ContactsManager::CreateListenerWindow() {
    const HMODULE module = GetModuleHandleW(nullptr);
    WNDCLASSW known = {};
    // A class from an earlier life of this library has a procedure that may be gone; it is made anew if it can be.
    const bool exists = GetClassInfoW(module, S_pwzListenerClassName, &known) != FALSE;
    if (!exists || UnregisterClassW(S_pwzListenerClassName, module) != FALSE) {
        WNDCLASSW fresh = {};
        fresh.lpfnWndProc = WinWndStaticProc;
        fresh.hInstance = module;
        fresh.lpszClassName = S_pwzListenerClassName;
        if (RegisterClassW(&fresh) == 0) {
            LogSystemError(__LINE__);
            return E_FAIL;
        }
    }
    m_hwndListener = CreateWindowExW(0, S_pwzListenerClassName, nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, module, this);
    return m_hwndListener != nullptr ? S_OK : E_FAIL;
}

LRESULT ContactsManager::WinWndStaticProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_CREATE) {
        const auto* creation = reinterpret_cast<const CREATESTRUCTW*>(lParam);
        if (creation == nullptr || creation->lpCreateParams == nullptr) {
            return DefWindowProcW(window, message, wParam, lParam);
        }
        SetWindowLongW(window, GWL_USERDATA, reinterpret_cast<LONG_PTR>(creation->lpCreateParams));
    } else if (message == WM_DESTROY) {
        zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_INFORMATION);
        SetWindowLongW(window, GWL_USERDATA, 0);
        return DefWindowProcW(window, message, wParam, lParam);
    }
    if (auto* manager = reinterpret_cast<ContactsManager*>(GetWindowLongW(window, GWL_USERDATA))) {
        switch (message) {
            case PIM_ITEM_CREATED_LOCAL:
            case PIM_ITEM_CREATED_REMOTE:
                manager->ProcessPIMCreated(window, message, wParam, lParam);
                break;
            case PIM_ITEM_DELETED_LOCAL:
            case PIM_ITEM_DELETED_REMOTE:
                manager->ProcessPIMDeleted(window, message, wParam, lParam);
                break;
            case PIM_ITEM_CHANGED_LOCAL:
            case PIM_ITEM_CHANGED_REMOTE:
                manager->ProcessPIMChanged(window, message, wParam, lParam);
                break;
            default:
                break;
        }
    }
    return DefWindowProcW(window, message, wParam, lParam);
}

LONG ContactsManager::SubscribeToNotifications() {
    void* object = nullptr;
    LONG result = m_pFolder->QueryInterface(IID_IItem, &object);
    auto* item = static_cast<IItem*>(object);
    if (result >= 0) {
        CEPROPVAL notifications = {};
        notifications.propid = PIMPR_FOLDERNOTIFICATIONS;
        notifications.val.ulVal = PIMFOLDERNOTIFICATION_LOCAL | PIMFOLDERNOTIFICATION_REMOTE;
        result = item->SetProps(0, 1, &notifications);
    }
    if (result < 0) LogFailure(__LINE__, result);
    if (item != nullptr) item->Release();
    return result;
}
