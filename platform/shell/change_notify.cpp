// Notifications of changed files as window messages: one thread per registered window.

#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "base/fail.h"
#include "base/signal_block.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/file_changes.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/windowing.h"

namespace zr::platform {
namespace {

constexpr DWORD kFileEvents = SHCNE_RENAMEITEM | SHCNE_CREATE | SHCNE_DELETE | SHCNE_UPDATEITEM;
constexpr DWORD kFolderEvents = SHCNE_RENAMEFOLDER | SHCNE_MKDIR | SHCNE_RMDIR;
constexpr DWORD kRetryMilliseconds = 20;  // while the window's queue is full

// A notification with the texts that it points to.
struct Notify {
    FILECHANGENOTIFY notify;
    std::u16string first;
    std::u16string second;
};

// Those that messages carry, until they are given back.
class Outstanding {
public:
    FILECHANGENOTIFY* add(std::unique_ptr<Notify> notify) {
        const std::lock_guard guard(mutex_);
        FILECHANGENOTIFY* const key = &notify->notify;
        all_.emplace(key, std::move(notify));
        return key;
    }
    void remove(FILECHANGENOTIFY* notify) {
        const std::lock_guard guard(mutex_);
        all_.erase(notify);
    }

private:
    std::mutex mutex_;
    std::map<FILECHANGENOTIFY*, std::unique_ptr<Notify>> all_;
};

Outstanding& outstanding() {
    static auto* const all = new Outstanding;  // threads may still run when the process exits
    return *all;
}

// Whether files or folders are told of: the records do not say which a name was.
enum class Kind { File, Folder };

LONG event_of(DWORD action, Kind kind) {
    switch (action) {
        case FILE_ACTION_ADDED:
            return kind == Kind::File ? SHCNE_CREATE : SHCNE_MKDIR;
        case FILE_ACTION_REMOVED:
            return kind == Kind::File ? SHCNE_DELETE : SHCNE_RMDIR;
        case FILE_ACTION_RENAMED_NEW_NAME:
            return kind == Kind::File ? SHCNE_RENAMEITEM : SHCNE_RENAMEFOLDER;
        default:
            return SHCNE_UPDATEITEM;
    }
}

class Registration {
public:
    Registration(HWND window, DWORD mask, std::u16string folder)
        : window_(window), mask_(mask), folder_(std::move(folder)) {
        if (!folder_.empty() && folder_.back() == u'\\') folder_.pop_back();
    }
    ~Registration() {
        if (thread_.joinable()) {
            SetEvent(stop_);
            thread_.join();
        }
        for (const HANDLE each : changes_) {
            if (each != INVALID_HANDLE_VALUE) FindCloseChangeNotification(each);
        }
        if (stop_) CloseHandle(stop_);
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    bool start(BOOL recursive) {
        stop_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (!stop_) return false;
        if ((mask_ & kFolderEvents) && !watch(Kind::Folder, FILE_NOTIFY_CHANGE_DIR_NAME, recursive)) return false;
        const DWORD writes = mask_ & SHCNE_UPDATEITEM ? FILE_NOTIFY_CHANGE_LAST_WRITE : 0;
        const bool files = (mask_ & kFileEvents) != 0;
        if (files && !watch(Kind::File, FILE_NOTIFY_CHANGE_FILE_NAME | writes, recursive)) return false;
        return start_thread();
    }

private:
    bool watch(Kind kind, DWORD filter, BOOL recursive) {
        const std::u16string path = folder_.empty() ? u"\\" : folder_;
        HANDLE& handle = changes_[static_cast<int>(kind)];
        handle = FindFirstChangeNotificationW(path.c_str(), recursive, filter | FILE_NOTIFY_CHANGE_CEGETINFO);
        return handle != INVALID_HANDLE_VALUE;
    }

    bool start_thread() {
        const SignalBlock no_signals;
        try {
            thread_ = std::thread([this] { run(); });
        } catch (const std::system_error&) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        }
        return thread_.joinable();
    }

    // Ends when it is told to, when the window has gone, or when there is nothing left to watch.
    void run() {
        while (true) {
            HANDLE handles[3] = {stop_};
            Kind kinds[3] = {};
            DWORD count = 1;
            for (const Kind kind : {Kind::Folder, Kind::File}) {
                const HANDLE each = changes_[static_cast<int>(kind)];
                if (each == INVALID_HANDLE_VALUE) continue;
                kinds[count] = kind;
                handles[count++] = each;
            }
            const DWORD woken = WaitForMultipleObjects(count, handles, FALSE, INFINITE);
            if (woken == WAIT_OBJECT_0 || woken >= WAIT_OBJECT_0 + count) return;
            try {
                if (!tell(handles[woken], kinds[woken])) return;
            } catch (const std::bad_alloc&) {
                // The records that were taken are lost; there is nobody to tell.
            }
            FindNextChangeNotification(handles[woken]);
        }
    }

    bool tell(HANDLE changes, Kind kind) {
        DWORD size = 0;
        if (!CeGetFileNotificationInfo(changes, 0, nullptr, 0, nullptr, &size) || size == 0) return true;
        std::vector<DWORD> buffer((size + 3) / 4);
        if (!CeGetFileNotificationInfo(changes, 0, buffer.data(), size, &size, nullptr) || size == 0) return true;
        const char* at = reinterpret_cast<const char*>(buffer.data());
        std::u16string old;
        while (true) {
            const auto& record = *reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(at);
            std::u16string path = folder_ + u'\\' + record.FileName;
            if (record.Action == FILE_ACTION_RENAMED_OLD_NAME)
                old = std::move(path);
            else if (!post(event_of(record.Action, kind), std::move(path), std::move(old)))
                return false;
            if (record.NextEntryOffset == 0) return true;
            at += record.NextEntryOffset;
        }
    }

    // False when no more is to be posted.
    bool post(LONG event, std::u16string path, std::u16string old) {
        if (!(mask_ & static_cast<DWORD>(event))) return true;
        auto made = std::make_unique<Notify>();
        FILECHANGEINFO& info = made->notify.fci;
        WIN32_FILE_ATTRIBUTE_DATA data = {};
        if (GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
            info.dwAttributes = data.dwFileAttributes;
            info.ftModified = data.ftLastWriteTime;
            info.nFileSize = data.nFileSizeLow;
        }
        const bool rename = event == SHCNE_RENAMEITEM || event == SHCNE_RENAMEFOLDER;
        made->first = rename ? std::move(old) : std::move(path);
        if (rename) made->second = std::move(path);
        made->notify.dwRefCount = 1;
        info.cbSize = sizeof info;
        info.wEventId = event;
        info.uFlags = SHCNF_PATH;
        info.dwItem1 = reinterpret_cast<DWORD_PTR>(made->first.c_str());
        info.dwItem2 = rename ? reinterpret_cast<DWORD_PTR>(made->second.c_str()) : 0;
        FILECHANGENOTIFY* const notify = outstanding().add(std::move(made));
        while (!PostMessageW(window_, WM_FILECHANGEINFO, 0, reinterpret_cast<LPARAM>(notify))) {
            const bool full = GetLastError() == ERROR_NOT_ENOUGH_QUOTA;
            if (full && WaitForSingleObject(stop_, kRetryMilliseconds) == WAIT_TIMEOUT) continue;
            outstanding().remove(notify);
            return false;
        }
        return true;
    }

    const HWND window_;
    const DWORD mask_;
    std::u16string folder_;
    HANDLE stop_ = nullptr;
    HANDLE changes_[2] = {INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE};
    std::thread thread_;
};

class Registrations {
public:
    void add(HWND window, std::unique_ptr<Registration> registration) {
        {
            const std::lock_guard guard(mutex_);
            std::swap(all_[window], registration);
        }
        // What it replaces ends here, without the lock.
    }
    std::unique_ptr<Registration> remove(HWND window) {
        const std::lock_guard guard(mutex_);
        const auto at = all_.find(window);
        if (at == all_.end()) return nullptr;
        std::unique_ptr<Registration> registration = std::move(at->second);
        all_.erase(at);
        return registration;
    }
    // Windows that went without deregistering.
    void drop_dead() {
        std::vector<std::unique_ptr<Registration>> dead;
        const std::lock_guard guard(mutex_);
        for (auto each = all_.begin(); each != all_.end();) {
            const auto next = std::next(each);
            if (!IsWindow(each->first)) {
                dead.push_back(std::move(each->second));
                all_.erase(each);
            }
            each = next;
        }
    }

private:
    std::mutex mutex_;
    std::map<HWND, std::unique_ptr<Registration>> all_;
};

Registrations& registrations() {
    static auto* const all = new Registrations;
    return *all;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

BOOL SHChangeNotifyRegister(HWND window, SHCHANGENOTIFYENTRY* entry) {
    cancellation_point();
    if (!entry || !(entry->dwEventMask & (kFileEvents | kFolderEvents))) return fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!IsWindow(window)) return fail(ERROR_INVALID_WINDOW_HANDLE, FALSE);
    try {
        registrations().drop_dead();
        auto made =
            std::make_unique<Registration>(window, entry->dwEventMask, entry->pszWatchDir ? entry->pszWatchDir : u"\\");
        if (!made->start(entry->fRecursive)) return FALSE;
        registrations().add(window, std::move(made));
        return TRUE;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
}

BOOL SHChangeNotifyDeregister(HWND window) {
    return registrations().remove(window) ? TRUE : FALSE;
}

void SHChangeNotifyFree(FILECHANGENOTIFY* notify) {
    if (notify) outstanding().remove(notify);
}
