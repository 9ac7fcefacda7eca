#pragma once

// Watches up to ten folders and tells a listener which of their files and folders were created, changed, deleted or
// renamed. What happens closely together comes as one batch, with what is redundant for one path merged.
//
// Everything of an object happens on the thread that calls Initialize, which must pump messages: the listener is called
// there, from the window procedure. One worker thread per folder waits for changes and sends them to a hidden window.

#include <atomic>

#include "ZrUtility/Export.h"
#include "ZrUtility/ZrTypedList.h"
#include "platform/types.h"

// Paths are valid during the call. The listener may pump messages and suspend the monitor, but not destroy it.
class ZRUTILITY_API FileSystemListener {
public:
    virtual void OnFileCreated(const WCHAR* path) = 0;
    virtual void OnFileChanged(const WCHAR* path) = 0;
    virtual void OnFileDeleted(const WCHAR* path) = 0;
    virtual void OnFileRenamed(const WCHAR* oldPath, const WCHAR* newPath) = 0;

protected:
    ~FileSystemListener() = default;
};

// Not made to be deleted through a base.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class ZRUTILITY_API FileSystemMonitor {
public:
    static constexpr unsigned int MAX_DIRECTORIES = 10;
    // The class of the notification windows, "kel.app.file.change.notifier".
    static const WCHAR* const S_pwzClassName;
    // Sent or posted to a notification window: LPARAM is a FILECHANGENOTIFY. One of the shell's is given back.
    static constexpr UINT CHANGE_MESSAGE = 0x8101;
    // Posted by the monitor to itself: time to deliver.
    static constexpr UINT COMMIT_MESSAGE = 0x405;

    // An event on its way to the listener. Owns its texts.
    struct FileEvent {
        FileEvent(unsigned int event, const WCHAR* first, const WCHAR* second);
        ~FileEvent();
        FileEvent(const FileEvent&) = delete;
        FileEvent& operator=(const FileEvent&) = delete;

        unsigned int code;  // SHCNE_
        WCHAR* firstPath;
        WCHAR* secondPath;  // a rename's new name, else NULL
    };

    FileSystemMonitor();
    // Shares the windows, threads, list, filter and listener: only one of the copies may be used further and destroyed.
    FileSystemMonitor(const FileSystemMonitor& other);
    FileSystemMonitor& operator=(const FileSystemMonitor& other);
    // On the thread that called Initialize. Leaves WM_QUIT with the worker threads and does not wait for them. A worker
    // takes that message for no end: it lives on, without effect but in the log, until the library is unloaded, also
    // when its wait fails (it rests then). Only a worker whose wait failed before the message came has ended.
    ~FileSystemMonitor();

    // Starts to watch. 1; 0 for a NULL listener, more than ten directories, or when the window class cannot be
    // registered. NULL entries of `directories` are skipped, and so are those that cannot be watched: the log tells. A
    // path of 260 characters or more cannot be. Without directories a worker is started that watches nothing: the
    // windows are there for changes that others send. `extension` (at most three characters of it count) limits files
    // to those that have it, "" to those without any, NULL to none. `value` is kept and not used. What an earlier call
    // began is ended first, as the destructor would.
    int Initialize(FileSystemListener* listener, WCHAR** directories, unsigned int count, const WCHAR* extension,
                   ULONG value);

    // While suspended, changes are dropped; those already queued are delivered.
    void Suspend();
    void Resume();

    // The window for the directory with this index, for those who send it changes themselves; NULL for none.
    HWND GetNotificationHandler(int index);

    static LRESULT WndProcNotify(HWND window, UINT message, WPARAM wparam, LPARAM lparam);

protected:
    virtual int RegisterThisClass();
    virtual bool IsValidExtension(const WCHAR* path);
    virtual void PushMessageQueue(unsigned int code, const WCHAR* first, const WCHAR* second);
    virtual void FilterFileEventsOnFileType();
    virtual void OptimizeFileEvents();
    virtual void ProcessFileEvents();
    virtual void OnCommitActions();
    virtual void OnFileChangeInfo(HWND window, unsigned int wparam, LPARAM lparam);

    ZrTypedList<FileEvent>* m_pEvents;

private:
    struct WatchRecord {
        WCHAR directory[MAX_PATH];
        ULONG value;
        HWND window;
    };

    void StartWorkers(WCHAR** directories, unsigned int count, ULONG value);
    void StartWorker(unsigned int index, const WCHAR* directory, ULONG value);
    HWND WindowFor(unsigned int index);
    void SetFilter(const WCHAR* extension);
    bool Requeue(FileEvent* event);
    void Deliver(const FileEvent& event);
    void End();
    void DeleteEvents();

    HWND m_windows[MAX_DIRECTORIES];
    DWORD m_threads[MAX_DIRECTORIES];
    WatchRecord m_watches[MAX_DIRECTORIES];
    WCHAR* m_pExtension;
    FileSystemListener* m_pListener;
    std::atomic<int> m_active;
};

#pragma GCC diagnostic pop
