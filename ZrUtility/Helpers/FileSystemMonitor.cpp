#include "ZrUtility/Helpers/FileSystemMonitor.h"

#include <algorithm>
#include <memory>
#include <new>

#include "ZrUtility/Helpers/StringUtilities.h"
#include "ZrUtility/Helpers/file_change_log.h"
#include "ZrUtility/Helpers/file_change_worker.h"
#include "ZrUtility/log_text.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/windowing.h"

namespace {

static_assert(FileSystemMonitor::CHANGE_MESSAGE == WM_FILECHANGEINFO);
static_assert(FileSystemMonitor::COMMIT_MESSAGE == WM_USER + 5);

constexpr int FILTER_CHARACTERS = 3;

bool IsFolderCode(unsigned int code) {
    return code == SHCNE_MKDIR || code == SHCNE_RMDIR || code == SHCNE_UPDATEDIR || code == SHCNE_RENAMEFOLDER;
}

// What happens to an event that follows another one for the same path, the reference.
enum class Merge {
    Leave,        // both stay, and so does the reference
    Drop,         // the event goes
    DropAndTake,  // the event goes, and yet is the reference from now on
    Take,         // the event stays and is the reference from now on
};

Merge AfterRename(unsigned int code) {
    const bool taken =
        code == SHCNE_RENAMEITEM || code == SHCNE_CREATE || code == SHCNE_DELETE || code == SHCNE_UPDATEITEM;
    return taken ? Merge::Take : Merge::Leave;
}

Merge AfterCreate(unsigned int code) {
    const bool taken = code == SHCNE_RENAMEITEM || code == SHCNE_CREATE || code == SHCNE_DELETE;
    return taken ? Merge::DropAndTake : Merge::Drop;
}

Merge AfterUpdate(unsigned int code) {
    if (code == SHCNE_RENAMEITEM || code == SHCNE_DELETE) return Merge::Take;
    return code == SHCNE_CREATE || code == SHCNE_UPDATEITEM ? Merge::Drop : Merge::Leave;
}

// After a folder was made, changed or renamed.
Merge AfterFolder(unsigned int code) {
    if (code == SHCNE_MKDIR) return Merge::Drop;
    return IsFolderCode(code) ? Merge::Take : Merge::Leave;
}

Merge AfterRemovedFolder(unsigned int code) {
    if (code == SHCNE_MKDIR) return Merge::Take;
    return IsFolderCode(code) ? Merge::Drop : Merge::Leave;
}

bool IsKnown(unsigned int code) {
    return IsFolderCode(code) || code == SHCNE_RENAMEITEM || code == SHCNE_CREATE || code == SHCNE_DELETE ||
           code == SHCNE_UPDATEITEM;
}

Merge RuleFor(unsigned int reference, unsigned int code) {
    if (!IsKnown(code)) return Merge::Leave;
    switch (reference) {
        case SHCNE_RENAMEITEM:
            return AfterRename(code);
        case SHCNE_CREATE:
            return AfterCreate(code);
        case SHCNE_DELETE:
            return code == SHCNE_CREATE ? Merge::Take : Merge::Drop;
        case SHCNE_UPDATEITEM:
            return AfterUpdate(code);
        case SHCNE_MKDIR:
        case SHCNE_UPDATEDIR:
        case SHCNE_RENAMEFOLDER:
            return AfterFolder(code);
        case SHCNE_RMDIR:
            return AfterRemovedFolder(code);
        default:
            return Merge::Leave;
    }
}

void LogEvent(int line, const WCHAR* path) {
    zrKelDebugBinLog0(FILE_CHANGE_SOURCE, line, FILE_CHANGE_TRACE);
    LogText(FILE_CHANGE_SOURCE, line + LINES_TO_PATH, FILE_CHANGE_PATH, path);
}

// The shell's notifications are its receiver's to give back; others' are not touched by this.
void GiveBack(LPARAM lparam) {
    SHChangeNotifyFree(reinterpret_cast<FILECHANGENOTIFY*>(lparam));
}

FileSystemMonitor* MonitorOf(HWND window) {
    return reinterpret_cast<FileSystemMonitor*>(GetWindowLongW(window, GWL_USERDATA));
}

}  // namespace

const WCHAR* const FileSystemMonitor::S_pwzClassName = u"kel.app.file.change.notifier";

FileSystemMonitor::FileEvent::FileEvent(unsigned int event, const WCHAR* first, const WCHAR* second)
    : code(event),
      firstPath(StringUtilities::NewAndCopyString(first)),
      secondPath(StringUtilities::NewAndCopyString(second)) {}

FileSystemMonitor::FileEvent::~FileEvent() {
    StringUtilities::DeleteString(firstPath);
    StringUtilities::DeleteString(secondPath);
}

FileSystemMonitor::FileSystemMonitor()
    : m_pEvents(nullptr),
      m_windows(),
      m_threads(),
      m_watches(),
      m_pExtension(nullptr),
      m_pListener(nullptr),
      m_active(0) {}

FileSystemMonitor::FileSystemMonitor(const FileSystemMonitor& other) {
    *this = other;
}

FileSystemMonitor& FileSystemMonitor::operator=(const FileSystemMonitor& other) {
    if (this == &other) return *this;
    m_pEvents = other.m_pEvents;
    std::copy_n(other.m_windows, MAX_DIRECTORIES, m_windows);
    std::copy_n(other.m_threads, MAX_DIRECTORIES, m_threads);
    std::copy_n(other.m_watches, MAX_DIRECTORIES, m_watches);
    m_pExtension = other.m_pExtension;
    m_pListener = other.m_pListener;
    m_active = other.m_active.load();
    return *this;
}

FileSystemMonitor::~FileSystemMonitor() {
    End();
    zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_MONITOR_ENDED, FILE_CHANGE_INFORMATION);
    DeleteEvents();
    StringUtilities::DeleteString(m_pExtension);
}

int FileSystemMonitor::Initialize(FileSystemListener* listener, WCHAR** directories, unsigned int count,
                                  const WCHAR* extension, ULONG value) {
    if (listener == nullptr) {
        zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_NO_LISTENER, FILE_CHANGE_FAILURE);
        return 0;
    }
    if (count > MAX_DIRECTORIES) {
        zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_TOO_MANY_FOLDERS, FILE_CHANGE_FAILURE);
        return 0;
    }
    End();
    m_pListener = listener;
    if (RegisterThisClass() == 0) return 0;
    m_windows[0] = CreateWindowExW(0, S_pwzClassName, nullptr, 0, CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT,
                                   CW_USEDEFAULT, nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
    if (m_windows[0] == nullptr)
        zrKelDebugBinLog1(FILE_CHANGE_SOURCE, LINE_NO_WINDOW, FILE_CHANGE_FAILURE, GetLastError());
    else
        StartWorkers(directories, count, value);
    DeleteEvents();
    m_pEvents = new (std::nothrow) ZrTypedList<FileEvent>;
    SetFilter(extension);
    m_active = 1;
    return 1;
}

void FileSystemMonitor::StartWorkers(WCHAR** directories, unsigned int count, ULONG value) {
    if (directories == nullptr || count == 0) return StartWorker(0, u"", value);
    for (unsigned int i = 0; i < count; ++i) {
        if (directories[i] != nullptr) StartWorker(i, directories[i], value);
    }
}

void FileSystemMonitor::StartWorker(unsigned int index, const WCHAR* directory, ULONG value) {
    const HWND window = WindowFor(index);
    if (window == nullptr) return;
    SetWindowLongW(window, GWL_USERDATA, reinterpret_cast<LONG_PTR>(this));
    WatchRecord& record = m_watches[index];
    record.value = value;
    record.window = window;
    // A path that does not fit names no folder, rather than another one.
    if (FAILED(StringCchCopyW(record.directory, MAX_PATH, directory))) record.directory[0] = 0;
    m_threads[index] = StartFileChangeWorker(record.directory, window);
}

HWND FileSystemMonitor::WindowFor(unsigned int index) {
    if (m_windows[index] != nullptr) return m_windows[index];
    m_windows[index] =
        CreateWindowExW(0, S_pwzClassName, nullptr, WS_CHILD, CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT,
                        CW_USEDEFAULT, m_windows[0], nullptr, GetModuleHandleW(nullptr), nullptr);
    if (m_windows[index] == nullptr)
        zrKelDebugBinLog1(FILE_CHANGE_SOURCE, LINE_NO_CHILD_WINDOW, FILE_CHANGE_FAILURE, GetLastError());
    return m_windows[index];
}

void FileSystemMonitor::SetFilter(const WCHAR* extension) {
    StringUtilities::DeleteString(m_pExtension);
    if (extension == nullptr) return;
    m_pExtension = StringUtilities::NewString(FILTER_CHARACTERS + 1);
    if (m_pExtension == nullptr) return;
    int length = 0;
    while (length < FILTER_CHARACTERS && extension[length] != 0) {
        m_pExtension[length] = extension[length];
        ++length;
    }
    std::fill(m_pExtension + length, m_pExtension + FILTER_CHARACTERS + 1, u'\0');
}

void FileSystemMonitor::Suspend() {
    m_active = 0;
}

void FileSystemMonitor::Resume() {
    m_active = 1;
}

HWND FileSystemMonitor::GetNotificationHandler(int index) {
    const auto slot = static_cast<unsigned int>(index);
    return slot < MAX_DIRECTORIES ? m_windows[slot] : nullptr;
}

int FileSystemMonitor::RegisterThisClass() {
    const HINSTANCE module = GetModuleHandleW(nullptr);
    WNDCLASSW known;
    if (GetClassInfoW(module, S_pwzClassName, &known) && !UnregisterClassW(S_pwzClassName, module)) {
        // Another monitor's windows hold it; it does for this one as well.
        zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_CLASS_IN_USE, FILE_CHANGE_WARNING);
        return 1;
    }
    WNDCLASSW own = {};
    own.lpfnWndProc = WndProcNotify;
    own.hInstance = module;
    own.lpszClassName = S_pwzClassName;
    return RegisterClassW(&own) != 0 ? 1 : 0;
}

LRESULT FileSystemMonitor::WndProcNotify(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    FileSystemMonitor* const monitor = MonitorOf(window);
    if (message == WM_DESTROY || message == WM_CLOSE) {
        if (monitor != nullptr) {
            std::replace(monitor->m_windows, monitor->m_windows + MAX_DIRECTORIES, window, HWND{});
            zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_WINDOW_ENDED, FILE_CHANGE_TRACE);
        }
        SHChangeNotifyDeregister(window);
    } else if (message == COMMIT_MESSAGE && monitor != nullptr) {
        zrKelDebugBinLog0(FILE_CHANGE_SOURCE, LINE_COMMIT, FILE_CHANGE_TRACE);
        monitor->OnCommitActions();
    } else if (message == CHANGE_MESSAGE && monitor != nullptr) {
        monitor->OnFileChangeInfo(window, static_cast<unsigned int>(wparam), lparam);
        GiveBack(lparam);
    }
    return DefWindowProcW(window, message, wparam, lparam);
}

void FileSystemMonitor::OnFileChangeInfo(HWND window, unsigned int, LPARAM lparam) {
    const auto push = [this](LPARAM from) {
        const FILECHANGEINFO& info = reinterpret_cast<const FILECHANGENOTIFY*>(from)->fci;
        PushMessageQueue(static_cast<unsigned int>(info.wEventId), reinterpret_cast<const WCHAR*>(info.dwItem1),
                         reinterpret_cast<const WCHAR*>(info.dwItem2));
    };
    const auto* const notify = reinterpret_cast<const FILECHANGENOTIFY*>(lparam);
    if (m_active == 0 || notify == nullptr || (notify->fci.uFlags & SHCNF_PATH) == 0) return;
    push(lparam);
    MSG message;
    while (PeekMessageW(&message, window, CHANGE_MESSAGE, CHANGE_MESSAGE, PM_REMOVE)) {
        if (message.lParam != 0) push(message.lParam);
        GiveBack(message.lParam);
    }
    PostMessageW(window, COMMIT_MESSAGE, 0, 0);
}

void FileSystemMonitor::PushMessageQueue(unsigned int code, const WCHAR* first, const WCHAR* second) {
    if (m_pEvents == nullptr) return;
    auto* const event = new (std::nothrow) FileEvent(code, first, second);
    if (event == nullptr) return;
    // Without memory for its paths it would tell of another file, or of none.
    const bool whole =
        (first == nullptr) == (event->firstPath == nullptr) && (second == nullptr) == (event->secondPath == nullptr);
    if (whole)
        Requeue(event);
    else
        delete event;
}

// False when there was no memory for it: the event is gone then.
bool FileSystemMonitor::Requeue(FileEvent* event) {
    const int before = m_pEvents->getNumberOfElement();
    m_pEvents->appendElement(event);
    if (m_pEvents->getNumberOfElement() > before) return true;
    delete event;
    return false;
}

void FileSystemMonitor::OnCommitActions() {
    FilterFileEventsOnFileType();
    OptimizeFileEvents();
    ProcessFileEvents();
}

bool FileSystemMonitor::IsValidExtension(const WCHAR* path) {
    if (path == nullptr) return false;
    if (m_pExtension == nullptr) return true;
    const WCHAR* const dot = wcsrchr(path, u'.');
    if (m_pExtension[0] == 0) return dot == nullptr;
    return dot != nullptr && dot[1] != 0 && _wcsicmp(dot + 1, m_pExtension) == 0;
}

// The events go round once: each is taken from the front, and what stays is put back at the end.
void FileSystemMonitor::FilterFileEventsOnFileType() {
    if (m_pEvents == nullptr) return;
    for (int left = m_pEvents->getNumberOfElement(); left > 0; --left) {
        FileEvent* const event = m_pEvents->removeElement(0);
        if (IsFolderCode(event->code) || IsValidExtension(event->firstPath) || IsValidExtension(event->secondPath))
            Requeue(event);
        else
            delete event;
    }
}

void FileSystemMonitor::OptimizeFileEvents() {
    if (m_pEvents == nullptr) return;
    // The path is that of an event that stays; what is dropped later has the same one.
    unsigned int reference = 0;
    const WCHAR* path = nullptr;
    for (int left = m_pEvents->getNumberOfElement(); left > 0; --left) {
        FileEvent* const event = m_pEvents->removeElement(0);
        const bool same = path != nullptr && event->firstPath != nullptr && _wcsicmp(path, event->firstPath) == 0;
        const Merge merge = same ? RuleFor(reference, event->code) : Merge::Take;
        if (merge == Merge::Take || merge == Merge::DropAndTake) reference = event->code;
        if (merge == Merge::Drop || merge == Merge::DropAndTake) {
            delete event;
            continue;
        }
        if (merge == Merge::Take) path = event->firstPath;
        if (!Requeue(event) && merge == Merge::Take) path = nullptr;
    }
}

void FileSystemMonitor::ProcessFileEvents() {
    if (m_pEvents == nullptr) return;
    while (const std::unique_ptr<FileEvent> event{m_pEvents->removeElement(0)}) {
        Deliver(*event);
    }
}

void FileSystemMonitor::Deliver(const FileEvent& event) {
    switch (event.code) {
        case SHCNE_CREATE:
        case SHCNE_MKDIR:
            LogEvent(LINE_CREATED_TOLD, event.firstPath);
            return m_pListener->OnFileCreated(event.firstPath);
        case SHCNE_UPDATEDIR:
        case SHCNE_UPDATEITEM:
            LogEvent(LINE_CHANGED_TOLD, event.firstPath);
            return m_pListener->OnFileChanged(event.firstPath);
        case SHCNE_DELETE:
            LogEvent(LINE_DELETED_TOLD, event.firstPath);
            return m_pListener->OnFileDeleted(event.firstPath);
        case SHCNE_RMDIR:
            LogEvent(LINE_FOLDER_DELETED_TOLD, event.firstPath);
            return m_pListener->OnFileDeleted(event.firstPath);
        case SHCNE_RENAMEITEM:
        case SHCNE_RENAMEFOLDER:
            LogEvent(LINE_RENAMED_TOLD, event.firstPath);
            return m_pListener->OnFileRenamed(event.firstPath, event.secondPath);
        default:
            return;
    }
}

// Ends the windows and tells the workers.
void FileSystemMonitor::End() {
    for (int i = MAX_DIRECTORIES - 1; i >= 0; --i) {
        const HWND window = m_windows[i];
        if (window == nullptr) continue;
        // Another thread's window stays, but must not lead here any more.
        if (!DestroyWindow(window)) SetWindowLongW(window, GWL_USERDATA, 0);
        m_windows[i] = nullptr;
    }
    for (DWORD& thread : m_threads) {
        if (thread != 0) PostThreadMessageW(thread, WM_QUIT, 0, 0);
        thread = 0;
    }
}

void FileSystemMonitor::DeleteEvents() {
    if (m_pEvents == nullptr) return;
    while (FileEvent* const event = m_pEvents->removeElement(0)) {
        delete event;
    }
    delete m_pEvents;
    m_pEvents = nullptr;
}
