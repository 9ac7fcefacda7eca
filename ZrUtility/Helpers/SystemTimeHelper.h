#pragma once

#include <atomic>

#include "ZrUtility/Export.h"
#include "platform/types.h"

// Tells the client of every change of the device's time: the clock was set, or the time zone changed.
//
// There is one listener in the process. It is made, used and released by one thread at a time; there is no lock. The
// callback runs on a thread of the listener's own. Two changes of which the second comes before the callback for the
// first has returned may be reported as one. The event behind it is a named one, "ZrNotificationListener", that all
// listening processes of the user share: when one of them stops listening, the others may get a call without a change.
class ZRUTILITY_API SystemTimeHelper {
public:
    // The listener, made at the first call and not listening then; NULL when there is no memory for it.
    static SystemTimeHelper* GetInstance();
    // Stops listening and destroys the listener. Harmless without one. What nobody released goes with the library.
    static void Release();

    // Calls `callback` on every change from now on, instead of the callback before. 0, or E_FAIL: for NULL, which
    // leaves a listener as it is, and when listening cannot be started, which leaves it stopped. When only the event
    // could not be made, the platform goes on signalling that event until the next StopListening.
    LONG StartListening(void (*callback)());
    // Ends the listening thread, whatever it is doing; always 0. A callback under way ends at its next call of the
    // platform, and this call waits for that, but not for more than a second. Called by the callback itself it does
    // not return: it ends the thread, and with it the callback, and has done its work by then.
    LONG StopListening();

    static SystemTimeHelper* m_Instance;

private:
    SystemTimeHelper();
    ~SystemTimeHelper() = default;

    static DWORD ListenerThread(LPVOID instance);

    bool Stop();
    bool EndThread();

    void (*m_pCallback)();
    std::atomic<HANDLE> m_hThread;
    std::atomic<HANDLE> m_hEvent;
    std::atomic<int> m_iStop;
};
