// Notifications of changed files as window messages, posted by the host's thread as it hears of the changes.

#include "change_notify.h"

#include <cstddef>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "base/fail.h"
#include "files/change_caller.h"
#include "kernel/host_events.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/file_changes.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/windowing.h"
#include "windowing/post_room.h"

namespace zr::platform {
namespace {

constexpr DWORD kFileEvents = SHCNE_RENAMEITEM | SHCNE_CREATE | SHCNE_DELETE | SHCNE_UPDATEITEM;
constexpr DWORD kFolderEvents = SHCNE_RENAMEFOLDER | SHCNE_MKDIR | SHCNE_RMDIR;
constexpr DWORD kRetryMilliseconds = 20;  // where memory is short

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

    // For a fork.
    std::mutex& lock() { return mutex_; }

private:
    std::mutex mutex_;
    std::map<FILECHANGENOTIFY*, std::unique_ptr<Notify>> all_;
};

// Never destroyed: the host's thread may still run when the process exits.
alignas(Outstanding) unsigned char outstanding_storage[sizeof(Outstanding)];
Outstanding& outstanding = *new (outstanding_storage) Outstanding;

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

class Registration final : public HostSource, public RoomWaiter {
public:
    Registration(HWND window, DWORD mask, std::u16string folder)
        : window_(window), mask_(mask), folder_(std::move(folder)) {
        if (!folder_.empty() && folder_.back() == u'\\') folder_.pop_back();
    }
    ~Registration() override {
        unwatch_host(*this);
        forget_room(*this);
        end();
    }

    bool start(BOOL recursive) {
        if ((mask_ & kFolderEvents) && !watch(Kind::Folder, FILE_NOTIFY_CHANGE_DIR_NAME, recursive)) return false;
        const DWORD writes = mask_ & SHCNE_UPDATEITEM ? FILE_NOTIFY_CHANGE_LAST_WRITE : 0;
        const bool files = (mask_ & kFileEvents) != 0;
        if (files && !watch(Kind::File, FILE_NOTIFY_CHANGE_FILE_NAME | writes, recursive)) return false;
        return go_on();
    }

    // Has the host's thread call this; in a forked child, too.
    bool go_on() noexcept {
        if (const DWORD error = watch_host(*this, -1)) return fail(error, false);
        call_host_source(*this, Deadline::at_once());
        return true;
    }

    // For a fork.
    std::mutex& lock() { return mutex_; }

private:
    void ready() noexcept override {
        const std::lock_guard guard(mutex_);
        try {
            while (is_posted() && (next_record() || read_records())) {
            }
        } catch (const std::bad_alloc&) {
            call_host_source(*this, Deadline::after(kRetryMilliseconds));
        }
    }

    void room() noexcept override { call_host_source(*this, Deadline::at_once()); }

    bool watch(Kind kind, DWORD filter, BOOL recursive) {
        const std::u16string path = folder_.empty() ? u"\\" : folder_;
        HANDLE& handle = changes_[static_cast<int>(kind)];
        handle = FindFirstChangeNotificationW(path.c_str(), recursive, filter | FILE_NOTIFY_CHANGE_CEGETINFO);
        return handle != INVALID_HANDLE_VALUE && call_at_changes(handle, *this);
    }

    void end() noexcept {
        for (HANDLE& each : changes_) {
            if (each != INVALID_HANDLE_VALUE) FindCloseChangeNotification(each);
            each = INVALID_HANDLE_VALUE;
        }
        if (waiting_) outstanding.remove(waiting_);
        waiting_ = nullptr;
        records_.clear();
        at_ = 0;
    }

    // True when nothing waits for room any more.
    bool is_posted() {
        if (!waiting_) return true;
        switch (post_or_wait(window_, WM_FILECHANGEINFO, 0, reinterpret_cast<LPARAM>(waiting_), *this)) {
            case Posted::Yes:
                waiting_ = nullptr;
                return true;
            case Posted::Full:
                return false;
            case Posted::Later:
                call_host_source(*this, Deadline::after(kRetryMilliseconds));
                return false;
            case Posted::Gone:
                break;
        }
        end();
        return false;
    }

    // False: there are none.
    bool read_records() {
        for (const Kind kind : {Kind::Folder, Kind::File}) {
            const HANDLE changes = changes_[static_cast<int>(kind)];
            DWORD size = 0;
            if (changes == INVALID_HANDLE_VALUE) continue;
            if (!CeGetFileNotificationInfo(changes, 0, nullptr, 0, nullptr, &size) || size == 0) continue;
            records_.resize((size + 3) / 4);
            if (!CeGetFileNotificationInfo(changes, 0, records_.data(), size, &size, nullptr)) size = 0;
            kind_ = kind;
            at_ = 0;
            if (size == 0) records_.clear();
            if (size != 0) return true;
        }
        return false;
    }

    // Makes a notification of the next record, if it is to be one. False: there is no further record.
    bool next_record() {
        if (records_.empty()) return false;
        const char* const bytes = reinterpret_cast<const char*>(records_.data());
        const auto& record = *reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(bytes + at_);
        std::u16string path = folder_ + u'\\' + record.FileName;
        if (record.Action == FILE_ACTION_RENAMED_OLD_NAME)
            old_ = std::move(path);
        else
            make(event_of(record.Action, kind_), std::move(path));
        at_ += record.NextEntryOffset;
        if (record.NextEntryOffset == 0) records_.clear();
        return true;
    }

    void make(LONG event, std::u16string path) {
        if (!(mask_ & static_cast<DWORD>(event))) return;
        auto made = std::make_unique<Notify>();
        FILECHANGEINFO& info = made->notify.fci;
        WIN32_FILE_ATTRIBUTE_DATA data = {};
        if (GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
            info.dwAttributes = data.dwFileAttributes;
            info.ftModified = data.ftLastWriteTime;
            info.nFileSize = data.nFileSizeLow;
        }
        const bool rename = event == SHCNE_RENAMEITEM || event == SHCNE_RENAMEFOLDER;
        if (rename) {
            made->first = old_;
            made->second = std::move(path);
        } else {
            made->first = std::move(path);
        }
        made->notify.dwRefCount = 1;
        info.cbSize = sizeof info;
        info.wEventId = event;
        info.uFlags = SHCNF_PATH;
        info.dwItem1 = reinterpret_cast<DWORD_PTR>(made->first.c_str());
        info.dwItem2 = rename ? reinterpret_cast<DWORD_PTR>(made->second.c_str()) : 0;
        waiting_ = outstanding.add(std::move(made));
    }

    const HWND window_;
    const DWORD mask_;
    std::u16string folder_;

    std::mutex mutex_;  // guards what follows, once it has started
    HANDLE changes_[2] = {INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE};
    FILECHANGENOTIFY* waiting_ = nullptr;  // to be posted, one of the outstanding ones
    std::vector<DWORD> records_;           // those that were read and of which some are still to be told
    std::size_t at_ = 0;
    Kind kind_ = Kind::File;
    std::u16string old_;
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

    // At a fork.
    void lock_all() {
        mutex_.lock();
        for (const auto& [window, each] : all_) {
            each->lock().lock();
        }
        outstanding.lock().lock();
    }
    void unlock_all() {
        outstanding.lock().unlock();
        for (const auto& [window, each] : all_) {
            each->lock().unlock();
        }
        mutex_.unlock();
    }
    void resume() {
        const std::lock_guard guard(mutex_);
        for (const auto& [window, each] : all_) {
            each->go_on();
        }
    }

private:
    std::mutex mutex_;
    std::map<HWND, std::unique_ptr<Registration>> all_;
};

alignas(Registrations) unsigned char registrations_storage[sizeof(Registrations)];
Registrations& registrations = *new (registrations_storage) Registrations;

}  // namespace

void lock_notifications() noexcept {
    registrations.lock_all();
}

void unlock_notifications() noexcept {
    registrations.unlock_all();
}

void resume_notifications() noexcept {
    registrations.resume();
}

}  // namespace zr::platform

using namespace zr::platform;

BOOL SHChangeNotifyRegister(HWND window, SHCHANGENOTIFYENTRY* entry) {
    cancellation_point();
    if (!entry || !(entry->dwEventMask & (kFileEvents | kFolderEvents))) return fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!IsWindow(window)) return fail(ERROR_INVALID_WINDOW_HANDLE, FALSE);
    try {
        registrations.drop_dead();
        auto made =
            std::make_unique<Registration>(window, entry->dwEventMask, entry->pszWatchDir ? entry->pszWatchDir : u"\\");
        if (!made->start(entry->fRecursive)) return FALSE;
        registrations.add(window, std::move(made));
        return TRUE;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
}

BOOL SHChangeNotifyDeregister(HWND window) {
    return registrations.remove(window) ? TRUE : FALSE;
}

void SHChangeNotifyFree(FILECHANGENOTIFY* notify) {
    if (notify) outstanding.remove(notify);
}
