#include "ZrUtility/Helpers/file_change_worker.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/Helpers/StringUtilities.h"
#include "ZrUtility/Helpers/file_change_log.h"
#include "platform/base.h"
#include "platform/file_changes.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/windowing.h"

namespace {

constexpr DWORD FILTER = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_SIZE |
                         FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_CEGETINFO;
static_assert(FILTER == 0x8000001B);
constexpr DWORD WAKE_MASK = QS_POSTMESSAGE | QS_SENDMESSAGE;
static_assert(WAKE_MASK == 0x48);

// How long a worker that is busy in a window procedure is waited for when the library goes.
constexpr DWORD GRACE_MILLISECONDS = 1000;

struct DeleteText {
    void operator()(WCHAR* text) const { StringUtilities::DeleteString(text); }
};
using OwnedText = std::unique_ptr<WCHAR, DeleteText>;

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};

// Ends on every way out of a worker, also when the thread is ended from outside.
struct ChangeHandle {
    HANDLE handle;
    ~ChangeHandle() {
        if (handle != INVALID_HANDLE_VALUE) FindCloseChangeNotification(handle);
    }
};

class Worker {
public:
    Worker(const WCHAR* directory, HWND window) : m_window(window), m_handle(nullptr), m_pNext(nullptr) {
        StringCchCopyW(m_directory, MAX_PATH, directory);
    }

    DWORD Start();
    static void EndAll();

private:
    static DWORD Run(LPVOID worker);

    void Watch();
    void ReadChanges(HANDLE changes);
    void Tell(const FILE_NOTIFY_INFORMATION& record, OwnedText& oldPath);
    OwnedText FullPath(const WCHAR* name, DWORD limit) const;
    void Send(LONG event, const WCHAR* first, const WCHAR* second, int line) const;
    void Leave();

    WCHAR m_directory[MAX_PATH];
    HWND m_window;
    HANDLE m_handle;
    Worker* m_pNext;

    static std::mutex S_mutex;
    static Worker* S_pFirst;
};

std::mutex Worker::S_mutex;
Worker* Worker::S_pFirst = nullptr;

// The workers run this library's code, so they end with it.
struct EndAtUnload {
    ~EndAtUnload() { Worker::EndAll(); }
} S_endAtUnload;

DWORD Worker::Start() {
    const std::lock_guard guard(S_mutex);
    DWORD id = 0;
    m_handle = CreateThread(nullptr, 0, Run, this, CREATE_SUSPENDED, &id);
    if (m_handle == nullptr) return 0;
    m_pNext = S_pFirst;
    S_pFirst = this;
    ResumeThread(m_handle);
    return id;
}

void Worker::EndAll() {
    while (true) {
        HANDLE thread = nullptr;
        {
            const std::lock_guard guard(S_mutex);
            if (S_pFirst == nullptr) return;
            Worker* const worker = S_pFirst;
            S_pFirst = worker->m_pNext;
            thread = worker->m_handle;
            worker->m_handle = nullptr;  // from now on it leaves without a look at the list
        }
        TerminateThread(thread, 0);
        WaitForSingleObject(thread, GRACE_MILLISECONDS);
        CloseHandle(thread);
    }
}

DWORD Worker::Run(LPVOID worker) {
    struct Leaver {
        Worker* worker;
        ~Leaver() {
            worker->Leave();
            delete worker;
        }
    } const leaver{static_cast<Worker*>(worker)};
    leaver.worker->Watch();
    return 0;
}

void Worker::Leave() {
    HANDLE thread = nullptr;
    {
        const std::lock_guard guard(S_mutex);
        if (m_handle == nullptr) return;
        Worker** link = &S_pFirst;
        while (*link != this) {
            link = &(*link)->m_pNext;
        }
        *link = m_pNext;
        thread = m_handle;
    }
    CloseHandle(thread);
}

void Worker::Watch() {
    zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_WORKER_BEGINS, FILE_CHANGE_INFORMATION);
    const ChangeHandle changes{FindFirstChangeNotificationW(m_directory, FALSE, FILTER)};
    if (changes.handle == INVALID_HANDLE_VALUE)
        zrKelDebugBinLog1(FILE_CHANGE_SOURCE, LINE_NOT_WATCHED, FILE_CHANGE_FAILURE, GetLastError());
    while (true) {
        const DWORD woken = MsgWaitForMultipleObjectsEx(1, &changes.handle, INFINITE, WAKE_MASK, 0);
        zrKelDebugBinLog1(FILE_CHANGE_SOURCE, LINE_WORKER_WOKEN, FILE_CHANGE_TRACE, woken);
        if (woken == WAIT_OBJECT_0) {
            zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_CHANGES, FILE_CHANGE_TRACE);
            ReadChanges(changes.handle);
            FindNextChangeNotification(changes.handle);
        } else if (woken == WAIT_FAILED) {
            MSG quit;
            if (!PeekMessageW(&quit, nullptr, WM_QUIT, WM_QUIT, PM_NOREMOVE)) break;
            // The message stays, and the handle does not mend: the loop would go round for ever. So it rests instead.
            Sleep(INFINITE);
        }
    }
    zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_WORKER_ENDS, FILE_CHANGE_INFORMATION);
}

void Worker::ReadChanges(HANDLE changes) {
    DWORD size = 0;
    if (!CeGetFileNotificationInfo(changes, 0, nullptr, 0, nullptr, &size) || size == 0) return;
    const std::unique_ptr<void, FreeBlock> block(std::malloc(size));
    DWORD returned = 0;
    if (!block || !CeGetFileNotificationInfo(changes, 0, block.get(), size, &returned, nullptr) || returned == 0)
        return;
    OwnedText oldPath;
    const char* at = static_cast<const char*>(block.get());
    while (true) {
        const auto& record = *reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(at);
        zrKelDebugBinLog1(FILE_CHANGE_SOURCE, LINE_CHANGE, FILE_CHANGE_TRACE, record.Action);
        Tell(record, oldPath);
        if (record.NextEntryOffset == 0) break;
        at += record.NextEntryOffset;
    }
}

void Worker::Tell(const FILE_NOTIFY_INFORMATION& record, OwnedText& oldPath) {
    const bool known = record.Action >= FILE_ACTION_ADDED && record.Action <= FILE_ACTION_RENAMED_NEW_NAME;
    if (!known) return;
    if (record.Action == FILE_ACTION_RENAMED_NEW_NAME && !oldPath) {
        zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_NO_OLD_NAME, FILE_CHANGE_WARNING);
        return;
    }
    OwnedText path = FullPath(record.FileName, record.FileNameLength);
    if (!path) return;
    switch (record.Action) {
        case FILE_ACTION_ADDED:
            return Send(SHCNE_CREATE, path.get(), nullptr, LINE_ADDED);
        case FILE_ACTION_REMOVED:
            return Send(SHCNE_DELETE, path.get(), nullptr, LINE_REMOVED);
        case FILE_ACTION_MODIFIED:
            return Send(SHCNE_UPDATEITEM, path.get(), nullptr, LINE_MODIFIED);
        case FILE_ACTION_RENAMED_OLD_NAME:
            oldPath = std::move(path);
            return;
        default:
            Send(SHCNE_RENAMEITEM, oldPath.get(), path.get(), LINE_RENAMED);
            oldPath.reset();
    }
}

// The length that a record gives is taken for a number of characters; the name ends with its NUL before that.
OwnedText Worker::FullPath(const WCHAR* name, DWORD limit) const {
    size_t folder = 0;
    size_t length = 0;
    StringCchLengthW(m_directory, MAX_PATH, &folder);
    while (length < limit && name[length] != 0) {
        ++length;
    }
    OwnedText path(StringUtilities::NewString(static_cast<int>(folder + 1 + length + 1)));
    if (!path) return path;
    std::copy_n(m_directory, folder, path.get());
    path.get()[folder] = u'\\';
    std::copy_n(name, length, path.get() + folder + 1);
    path.get()[folder + 1 + length] = 0;
    return path;
}

void Worker::Send(LONG event, const WCHAR* first, const WCHAR* second, int line) const {
    zrKelDebugBinLog0(FILE_CHANGE_SOURCE, line, FILE_CHANGE_INFORMATION);
    FILECHANGENOTIFY notify = {};
    notify.fci.wEventId = event;
    notify.fci.uFlags = SHCNF_PATH;
    notify.fci.dwItem1 = reinterpret_cast<DWORD_PTR>(first);
    notify.fci.dwItem2 = reinterpret_cast<DWORD_PTR>(second);
    SendMessageW(m_window, WM_FILECHANGEINFO, 0, reinterpret_cast<LPARAM>(&notify));
}

}  // namespace

DWORD StartFileChangeWorker(const WCHAR* directory, HWND window) {
    auto* const worker = new (std::nothrow) Worker(directory, window);
    if (worker == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    const DWORD id = worker->Start();
    if (id == 0) delete worker;
    return id;
}
