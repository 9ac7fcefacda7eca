#include "ZrUtility/Helpers/SystemTimeHelper.h"

#include <new>

#include "ZrLog/ZrLog.h"
#include "platform/base.h"
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/notify.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\SystemTimeHelper.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x88, kZrLogFailure);
constexpr std::uint32_t LOG_INFORMATION = zrLogCategory(0x88, kZrLogInformation);

constexpr const WCHAR* EVENT_NAME = u"ZrNotificationListener";
constexpr SIZE_T PATH_BYTES = 260;

// How long a callback that calls nothing of the platform is waited for.
constexpr DWORD GRACE_MILLISECONDS = 1000;

BOOL NotifyAt(LONG systemEvent) {
    WCHAR path[PATH_BYTES / sizeof(WCHAR)];
    StringCbCopyW(path, sizeof path, NAMED_EVENT_PREFIX_TEXT);
    StringCbCatW(path, sizeof path, EVENT_NAME);
    return CeRunAppAtEvent(path, systemEvent);
}

// The listening thread runs this library's code, so it ends with it.
struct ReleaseAtUnload {
    ~ReleaseAtUnload() { SystemTimeHelper::Release(); }
} S_releaseAtUnload;

}  // namespace

SystemTimeHelper* SystemTimeHelper::m_Instance = nullptr;

SystemTimeHelper::SystemTimeHelper() : m_pCallback(nullptr), m_hThread(nullptr), m_hEvent(nullptr), m_iStop(0) {}

SystemTimeHelper* SystemTimeHelper::GetInstance() {
    if (m_Instance == nullptr) m_Instance = new (std::nothrow) SystemTimeHelper;
    return m_Instance;
}

void SystemTimeHelper::Release() {
    if (m_Instance == nullptr) return;
    // A thread that could not be ended yet may still read its listener; the memory is left to it.
    if (m_Instance->Stop()) delete m_Instance;
    m_Instance = nullptr;
}

LONG SystemTimeHelper::StartListening(void (*callback)()) {
    if (callback == nullptr) return E_FAIL;
    StopListening();
    if (NotifyAt(NOTIFICATION_EVENT_TIME_CHANGE) != TRUE) return E_FAIL;
    m_hEvent = CreateEventW(nullptr, TRUE, FALSE, EVENT_NAME);
    if (m_hEvent == nullptr) {
        zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_FAILURE, GetLastError());
        return E_FAIL;
    }
    m_pCallback = callback;
    m_iStop = 0;
    // It runs when its handle is stored, which the callback may want to close.
    m_hThread = CreateThread(nullptr, 0, ListenerThread, this, CREATE_SUSPENDED, nullptr);
    if (m_hThread == nullptr) {
        zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_FAILURE, GetLastError());
        StopListening();
        return E_FAIL;
    }
    ResumeThread(m_hThread);
    return S_OK;
}

LONG SystemTimeHelper::StopListening() {
    Stop();
    return S_OK;
}

// False: the thread has not ended yet.
bool SystemTimeHelper::Stop() {
    NotifyAt(NOTIFICATION_EVENT_NONE);
    if (m_hEvent == nullptr) return true;
    m_iStop = 1;
    const HANDLE event = m_hEvent.exchange(nullptr);
    EventModify(event, EVENT_SET);
    CloseHandle(event);
    return EndThread();
}

bool SystemTimeHelper::EndThread() {
    if (m_hThread == nullptr) return true;
    // By a destructor, for the thread may be the calling one, which goes no further than TerminateThread.
    struct Closer {
        std::atomic<HANDLE>& thread;
        ~Closer() { CloseHandle(thread.exchange(nullptr)); }
    } const closer{m_hThread};
    TerminateThread(m_hThread, 0);
    return WaitForSingleObject(m_hThread, GRACE_MILLISECONDS) == WAIT_OBJECT_0;
}

DWORD SystemTimeHelper::ListenerThread(LPVOID parameter) {
    auto* const instance = static_cast<SystemTimeHelper*>(parameter);
    HANDLE event = nullptr;
    while (instance != nullptr && (event = instance->m_hEvent) != nullptr) {
        const DWORD woken = WaitForSingleObject(event, INFINITE);
        if (woken != WAIT_OBJECT_0) {
            zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, woken, GetLastError());
            return 0;
        }
        if (instance->m_iStop != 0) {
            zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_INFORMATION);
            return 0;
        }
        if (instance->m_pCallback != nullptr) instance->m_pCallback();
        // Here the thread ends if it was stopped meanwhile; the listener may be gone by then and is not looked at.
        EventModify(event, EVENT_RESET);
    }
    zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_FAILURE);
    return 0;
}
