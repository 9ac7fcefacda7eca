#include "ZrUtility/Helpers/RegistryMonitor.h"

#include <cstring>
#include <memory>
#include <new>

#include "ZrUtility/ZrHashTable.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/windowing.h"

namespace {

constexpr unsigned int WHOLE_TEXT = 0x7FFFFFFF;
constexpr DWORD STOP_MILLISECONDS = 1000;

bool IsArmed(HANDLE changes) {
    return changes != nullptr && changes != INVALID_HANDLE_VALUE;
}

}  // namespace

// Belongs to the monitor and to its thread, as a thread that has been terminated may run on for a moment.
struct __attribute__((visibility("hidden"))) RegistryMonitor::MonitorContext {
    HANDLE wakeEvent = nullptr;
    std::atomic<HANDLE> changeHandle = nullptr;
    HKEY key = nullptr;
    unsigned int expectedHash = 0;
    std::unique_ptr<WCHAR[]> valueName;
    HWND hwnd = nullptr;
    UINT message = 0;
    void (*callback)(HKEY) = nullptr;
    int watchSubtree = 0;
    std::atomic<int> stopRequested = 0;
    ULONG notifyFilter = REG_NOTIFY_CHANGE_LAST_SET;

    std::atomic<DWORD> listener = 0;  // the thread's identifier, while it runs
    std::atomic<int> users = 1;

    int Open(HKEY root, const WCHAR* subKey, bool createIfMissing);
    void SetValueName(const WCHAR* name);
    void SetExpected(const char* data, bool isDword);
    int Arm();
    void Disarm();
    void Release();
};

int RegistryMonitor::MonitorContext::Open(HKEY root, const WCHAR* subKey, bool createIfMissing) {
    LONG result = RegOpenKeyExW(root, subKey, 0, KEY_READ, &key);
    if (result == static_cast<LONG>(ERROR_FILE_NOT_FOUND) && createIfMissing)
        result = RegCreateKeyExW(root, subKey, 0, nullptr, 0, KEY_READ, nullptr, &key, nullptr);
    return result == static_cast<LONG>(ERROR_SUCCESS);
}

void RegistryMonitor::MonitorContext::SetValueName(const WCHAR* name) {
    std::size_t length = 0;
    if (name == nullptr || FAILED(StringCchLengthW(name, MAX_PATH, &length)) || length == 0) return;
    valueName.reset(new (std::nothrow) WCHAR[length + 1]);
    if (valueName) StringCchCopyW(valueName.get(), length + 1, name);
}

void RegistryMonitor::MonitorContext::SetExpected(const char* data, bool isDword) {
    if (data == nullptr) return;
    WCHAR number[3] = {};
    if (isDword) std::memcpy(number, data, sizeof(DWORD));
    expectedHash = ZrHashTable::Hash(isDword ? number : reinterpret_cast<const WCHAR*>(data), WHOLE_TEXT);
}

// Does not close a handle that is armed: there is none when the thread is about to wait, or has reported.
int RegistryMonitor::MonitorContext::Arm() {
    const HANDLE changes = CeFindFirstRegChange(key, watchSubtree, notifyFilter);
    changeHandle = IsArmed(changes) ? changes : nullptr;
    return IsArmed(changes);
}

void RegistryMonitor::MonitorContext::Disarm() {
    const HANDLE changes = changeHandle.exchange(nullptr);
    if (changes != nullptr) CeFindCloseRegChange(changes);
}

void RegistryMonitor::MonitorContext::Release() {
    if (users.fetch_sub(1) != 1) return;
    Disarm();
    if (wakeEvent != nullptr) CloseHandle(wakeEvent);
    RegCloseKey(key);
    delete this;
}

RegistryMonitor::RegistryMonitor() : m_hThread(nullptr), m_pContext(nullptr) {}

RegistryMonitor::~RegistryMonitor() {
    StopMonitor();
}

int RegistryMonitor::StartMonitor(HKEY root, WCHAR* subKey, WCHAR* valueName, const char* expectedData,
                                  int watchSubtree, ULONG notifyFilter, CallbackInfo info, bool createIfMissing,
                                  int expectedIsDword) {
    StopMonitor();
    std::unique_ptr<MonitorContext> context(new (std::nothrow) MonitorContext);
    if (!context || !context->Open(root, subKey, createIfMissing)) return 0;
    context->SetValueName(valueName);
    context->SetExpected(expectedData, expectedIsDword == 1);
    context->hwnd = info.hwnd;
    context->message = info.message;
    context->callback = info.callback;
    context->watchSubtree = watchSubtree;
    context->notifyFilter = notifyFilter;
    context->wakeEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    m_pContext = context.release();

    if (m_hThread != nullptr) CloseHandle(m_hThread);
    ++m_pContext->users;
    m_hThread = CreateThread(nullptr, 0, &RegistryMonitor::ListeningProc, m_pContext, 0, nullptr);
    if (m_hThread == nullptr) --m_pContext->users;
    return m_hThread != nullptr;
}

int RegistryMonitor::ContinueMonitor() {
    return m_pContext != nullptr && m_pContext->Arm();
}

int RegistryMonitor::StopMonitor() {
    if (m_pContext == nullptr) return 0;
    MonitorContext& context = *m_pContext;
    context.stopRequested = 1;
    if (const HANDLE changes = context.changeHandle; changes != nullptr) EventModify(changes, EVENT_SET);
    if (context.wakeEvent != nullptr) EventModify(context.wakeEvent, EVENT_SET);
    if (m_hThread != nullptr) {
        const bool withinReport = context.listener == GetCurrentThreadId();
        if (!withinReport && WaitForSingleObject(m_hThread, STOP_MILLISECONDS) != WAIT_OBJECT_0)
            TerminateThread(m_hThread, 0);
        CloseHandle(m_hThread);
        m_hThread = nullptr;
    }
    m_pContext = nullptr;
    context.Disarm();
    context.Release();
    return 1;
}

ULONG RegistryMonitor::ListeningProc(void* context) {
    auto* const monitored = static_cast<MonitorContext*>(context);
    if (monitored == nullptr) return 0;
    // Also when the thread is terminated.
    struct Use {
        MonitorContext& context;
        ~Use() {
            context.listener = 0;
            context.Release();
        }
    } use{*monitored};
    monitored->listener = GetCurrentThreadId();
    if (monitored->key == nullptr) return 0;
    monitored->Arm();
    if (!monitored->stopRequested) Listen(*monitored);
    return 0;
}

void RegistryMonitor::Listen(MonitorContext& context) {
    bool reported = false;
    while (context.changeHandle != nullptr) {
        const HANDLE handles[] = {context.wakeEvent, context.changeHandle};
        const DWORD woken = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
        if (woken != WAIT_OBJECT_0 + 1 || context.stopRequested) break;
        const bool everything = !context.valueName || context.expectedHash == 0;
        if (!everything) reported = IsToReport(context, reported);
        if (everything || reported) {
            context.Disarm();
            Report(context);
        } else if (!CeFindNextRegChange(handles[1])) {
            context.Disarm();
            context.Arm();
        }
        if (context.stopRequested) return;
    }
    context.Disarm();
}

// Whether the watched value differs from what was expected, or did so before.
bool RegistryMonitor::IsToReport(const MonitorContext& context, bool reported) {
    DWORD size = 0;
    const WCHAR* const name = context.valueName.get();
    if (RegQueryValueExW(context.key, name, nullptr, nullptr, nullptr, &size) != static_cast<LONG>(ERROR_SUCCESS))
        return true;
    // The data with zeros behind it that complete and end the text; all zeros when it is gone or has grown meanwhile.
    const std::unique_ptr<WCHAR[]> data(new (std::nothrow) WCHAR[size / sizeof(WCHAR) + 2]());
    if (!data) return reported;
    RegQueryValueExW(context.key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(data.get()), &size);
    return reported || ZrHashTable::Hash(data.get(), WHOLE_TEXT) != context.expectedHash;
}

void RegistryMonitor::Report(MonitorContext& context) {
    if (context.hwnd != nullptr && context.message != 0)
        SendMessageW(context.hwnd, context.message, reinterpret_cast<WPARAM>(context.key), 0);
    if (context.callback != nullptr) context.callback(context.key);
}
