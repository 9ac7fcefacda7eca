#pragma once

// Watches one key of the registry, or one of its values, and tells its owner once that it has changed: by a window
// message, by calling a function, or both. It then rests until it is told to go on.
//
//     RegistryMonitor monitor;
//     monitor.StartMonitor(HKEY_CURRENT_USER, path, nullptr, nullptr, FALSE, REG_NOTIFY_CHANGE_LAST_SET,
//                          {window, WM_USER + 1, nullptr}, true, 0);
//     ...
//     case WM_USER + 1: monitor.ContinueMonitor(); Reload(); return 0;
//
// What changes between a report and ContinueMonitor is not reported: so go on first, and read what changed then.
//
// Reports come on a thread of the monitor's. StartMonitor, StopMonitor and destruction are the owner's, on one thread;
// ContinueMonitor is called during a report, or by the owner after one.

#include <atomic>

#include "ZrUtility/Export.h"
#include "platform/registry.h"
#include "platform/types.h"

// Not made to be deleted through a base.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class ZRUTILITY_API RegistryMonitor {
public:
    // Whom to tell.
    struct CallbackInfo {
        HWND hwnd;               // gets `message` by SendMessageW, WPARAM is the watched key; NULL for none
        UINT message;            // 0 for none
        void (*callback)(HKEY);  // gets the watched key, valid during the call; NULL for none
    };

    RegistryMonitor();
    // Shares the thread and what it watches: only one of the copies may be stopped or destroyed.
    RegistryMonitor(const RegistryMonitor& other) = default;
    RegistryMonitor& operator=(const RegistryMonitor& other) = default;
    // Stops.
    ~RegistryMonitor();

    // Begins to watch root\subKey, in place of what was watched before. 1; 0 when the key can neither be opened nor,
    // with `createIfMissing`, be made, without memory, or when the host gives no thread (then StopMonitor still has
    // something to release). Changes are reported from a moment shortly after the call's return on.
    //
    // `notifyFilter` and `watchSubtree` say which changes of the key count, as for CeFindFirstRegChange. With a value's
    // name (at most 259 characters, or it is ignored) and `expectedData`, a change counts when the value's data then
    // differs from these; once there has been a report every further change counts. The data is compared by hash as a
    // text that ends with the first zero unit, so data that differs behind that, and texts of the same hash, pass for
    // the same. The expected data is a zero-terminated WCHAR text, aligned as such, or with `expectedIsDword` 1 the
    // four bytes of a DWORD (a text of at most two units; an empty one, of the hash 0, stands for
    // nothing expected). All texts are copied.
    virtual int StartMonitor(HKEY root, WCHAR* subKey, WCHAR* valueName, const char* expectedData, int watchSubtree,
                             ULONG notifyFilter, CallbackInfo info, bool createIfMissing, int expectedIsDword);

    // Goes on after a report: 1, or 0 when nothing was started or the key can no longer be watched. After the thread
    // has ended it arms a notification that nobody waits for; one that is armed already is given up without being
    // closed.
    virtual int ContinueMonitor();

    // Ends the thread and releases everything: 1, or 0 when nothing was started. Waits for a report that is under way,
    // but no longer than a second: then the thread is terminated at its next call of the platform. Within a report it
    // does not wait; the thread ends when the report has returned.
    int StopMonitor();

protected:
    // The thread's body; `context` is a MonitorContext.
    static ULONG ListeningProc(void* context);

private:
    struct MonitorContext;

    static bool IsToReport(const MonitorContext& context, bool reported);
    static void Report(MonitorContext& context);
    static void Listen(MonitorContext& context);

    HANDLE m_hThread;
    MonitorContext* m_pContext;
};

#pragma GCC diagnostic pop
