#include "ZrUtility/Helpers/TimerUtilities.h"

#include "ZrLog/ZrLog.h"
#include "platform/base.h"
#include "platform/windowing.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\TimerUtilities.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x78, kZrLogFailure);

constexpr int GROWTH = 10;

// The calls that wait for their timers.
class PendingCalls {
public:
    struct Call {
        UINT timer;
        void (*function)(void*);
        void* argument;
    };

    constexpr PendingCalls() = default;
    PendingCalls(const PendingCalls&) = delete;
    PendingCalls& operator=(const PendingCalls&) = delete;
    // Without the library there is nothing left that the timers could call.
    ~PendingCalls() {
        for (int i = 0; i < m_iCount; ++i) {
            KillTimer(nullptr, m_pCalls[i].timer);
        }
        if (m_pCalls != nullptr) HeapFree(GetProcessHeap(), 0, m_pCalls);
    }

    // Room for one more.
    bool Reserve() {
        if (m_iCount < m_iCapacity) return true;
        const SIZE_T bytes = (static_cast<SIZE_T>(m_iCapacity) + GROWTH) * sizeof(Call);
        void* const grown = m_pCalls == nullptr ? HeapAlloc(GetProcessHeap(), 0, bytes)
                                                : HeapReAlloc(GetProcessHeap(), 0, m_pCalls, bytes);
        if (grown == nullptr) return false;
        m_pCalls = static_cast<Call*>(grown);
        m_iCapacity += GROWTH;
        return true;
    }

    // After Reserve.
    void Append(const Call& call) { m_pCalls[m_iCount++] = call; }

    // Takes a timer's call out; the last one moves into its place. False when there is none.
    bool Remove(UINT timer, Call& call) {
        for (int i = 0; i < m_iCount; ++i) {
            if (m_pCalls[i].timer != timer) continue;
            call = m_pCalls[i];
            m_pCalls[i] = m_pCalls[--m_iCount];
            return true;
        }
        return false;
    }

private:
    Call* m_pCalls = nullptr;
    int m_iCapacity = 0;
    int m_iCount = 0;
};

PendingCalls S_pendingCalls;

void OnTimer(HWND, UINT, UINT_PTR timer, DWORD) {
    KillTimer(nullptr, timer);
    PendingCalls::Call call = {};
    if (!S_pendingCalls.Remove(static_cast<UINT>(timer), call)) {
        zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_FAILURE, timer);
        return;
    }
    if (call.function != nullptr) call.function(call.argument);
}

}  // namespace

bool TimerUtilities::DelayedCall(void (*function)(void*), void* argument, unsigned int delayMs) {
    if (!S_pendingCalls.Reserve()) {
        zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_FAILURE);
        return false;
    }
    const UINT_PTR timer = SetTimer(nullptr, 0, delayMs, OnTimer);
    if (timer == 0) {
        zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_FAILURE, GetLastError());
        return false;
    }
    S_pendingCalls.Append({static_cast<UINT>(timer), function, argument});
    return true;
}
