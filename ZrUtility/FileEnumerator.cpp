#include "ZrUtility/FileEnumerator.h"

#include <cstddef>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/log_text.h"
#include "platform/base.h"

namespace {

constexpr const char* kSource = ".\\FileEnumerator.cppzrwindowsmobile";
constexpr std::uint32_t kFileSystem = 0x18;
constexpr std::uint32_t kWarning = zrLogCategory(kFileSystem, kZrLogWarning);
constexpr std::uint32_t kWarningBuffer = kWarning | kZrLogBuffer;

// The log's readers know these records by their lines.
constexpr int kLineNothingFound = 68;
constexpr int kLineSearchPath = 70;
constexpr int kLineSystemMessage = 74;
constexpr int kLineMessageText = 76;
constexpr int kLineNotDeleted = 151;
constexpr int kLineFilePath = 153;

constexpr DWORD kUserLanguage = 0x400;
constexpr std::size_t kPathRoom = 2;  // a backslash and the end

void logText(int line, const WCHAR* text) {
    LogText(kSource, line, kWarningBuffer, text);
}

void logNothingFound(DWORD error, const WCHAR* searchPath) {
    WCHAR* message = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, error, kUserLanguage,
                   reinterpret_cast<LPWSTR>(&message), 0, nullptr);
    if (!message) return;
    zrKelDebugBinLog0(kSource, kLineNothingFound, kWarning);
    logText(kLineSearchPath, searchPath);
    zrKelDebugBinLog0(kSource, kLineSystemMessage, kWarning);
    logText(kLineMessageText, message);
    LocalFree(message);
}

void logNotDeleted(const WCHAR* path) {
    zrKelDebugBinLog0(kSource, kLineNotDeleted, kWarning);
    logText(kLineFilePath, path);
}

// What cannot be looked at has every attribute: it is taken for a folder, and finding nothing in it does no harm.
bool isFolder(const WCHAR* path) {
    return (GetFileAttributesW(path) & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// The first `length` characters as a text of their own; false when no path can be that long.
bool copyPrefix(WCHAR (&out)[MAX_PATH], const WCHAR* path, std::size_t length) {
    if (length >= MAX_PATH) return false;
    wmemcpy(out, path, length);
    out[length] = 0;
    return true;
}

}  // namespace

const int PIECacheFileEnumeratorFilter::NUM_DEFAULT_FILES_IN_CACHE = 1;

int PIECacheFileEnumeratorFilter::filter(WCHAR*, WIN32_FIND_DATAW* entry) {
    if (entry->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return 1;
    return (entry->dwFileAttributes & FILE_ATTRIBUTE_HIDDEN) ? 0 : 1;
}

FileEnumerator::FileEnumerator() : m_hFind(INVALID_HANDLE_VALUE), m_wzDirectory{}, m_wzPath{}, m_pFilter(nullptr) {}

FileEnumerator::~FileEnumerator() {
    uninit();
}

void FileEnumerator::uninit() {
    if (m_hFind != INVALID_HANDLE_VALUE) {
        FindClose(m_hFind);
        m_hFind = INVALID_HANDLE_VALUE;
    }
    m_wzPath[0] = 0;
    m_wzDirectory[0] = 0;
}

void FileEnumerator::setFilter(FileEnumeratorFilter* filter) {
    m_pFilter = filter;
}

int FileEnumerator::accepts(WIN32_FIND_DATAW& entry) {
    return !m_pFilter || m_pFilter->filter(m_wzDirectory, &entry);
}

int FileEnumerator::setCurrent(const WIN32_FIND_DATAW& entry) {
    return MakeFullPath(m_wzPath, MAX_PATH, m_wzDirectory, entry.cFileName);
}

// Opens a walk on its first entry, which is not current yet. The result is that of start; without an entry the walk is
// closed.
int FileEnumerator::findFirst(const WCHAR* directory, const WCHAR* pattern, FINDEX_INFO_LEVELS level,
                              WIN32_FIND_DATAW& entry) {
    uninit();
    if (!directory || !pattern) return -1;
    if (wcslen(directory) + wcslen(pattern) + kPathRoom >= MAX_PATH) return 1;
    wcscpy(m_wzDirectory, directory);

    WCHAR searchPath[MAX_PATH];
    MakeFullPath(searchPath, MAX_PATH, directory, pattern);
    m_hFind = FindFirstFileExW(searchPath, level, &entry, FindExSearchNameMatch, nullptr, 0);
    if (m_hFind == INVALID_HANDLE_VALUE) {
        logNothingFound(GetLastError(), searchPath);
        uninit();
    }
    return 0;
}

int FileEnumerator::start(const WCHAR* directory, const WCHAR* pattern) {
    WIN32_FIND_DATAW entry;
    const int result = findFirst(directory, pattern, FindExInfoStandard, entry);
    if (m_hFind == INVALID_HANDLE_VALUE) return result;
    if (accepts(entry))
        setCurrent(entry);
    else
        advance();
    return result;
}

void FileEnumerator::advance() {
    WIN32_FIND_DATAW entry;
    while (FindNextFileW(m_hFind, &entry)) {
        if (!accepts(entry)) continue;
        setCurrent(entry);
        return;
    }
    uninit();
}

int FileEnumerator::isValid() {
    return m_wzPath[0] != 0;
}

WCHAR* FileEnumerator::value() {
    return m_wzPath;
}

int FileEnumerator::MakeFullPath(WCHAR* out, unsigned int capacity, const WCHAR* directory, const WCHAR* name) {
    if (!out || !directory || !name || capacity == 0) return 0;
    const std::size_t directoryLength = wcslen(directory);
    const std::size_t nameLength = wcslen(name);
    if (capacity <= directoryLength + nameLength + 1) return 0;
    WCHAR* end = out + directoryLength;
    wmemmove(out, directory, directoryLength);
    if (directoryLength == 0 || end[-1] != u'\\') *end++ = u'\\';
    wmemcpy(end, name, nameLength + 1);
    return 1;
}

int FileEnumerator::CountFilesInFolder(const WCHAR* directory, FileEnumeratorFilter* filter, int depth, int limit) {
    int count = 0;
    if (!directory || depth < 0) return count;
    if (!filter) return countEverything(directory, depth, limit);
    FileEnumerator walk;
    walk.setFilter(filter);
    for (walk.start(directory, u"*"); walk.isValid(); walk.advance()) {
        if (isFolder(walk.value()))
            count += CountFilesInFolder(walk.value(), filter, depth - 1, limit ? limit - count : 0);
        else
            ++count;
        if (limit && count >= limit) break;
    }
    return count;
}

// Without a filter nobody looks at the entries but this loop, and all it asks is which of them are folders. The search
// knows that, so no file needs to be looked at by its path again.
int FileEnumerator::countEverything(const WCHAR* directory, int depth, int limit) {
    int count = 0;
    FileEnumerator walk;
    WIN32_FIND_DATAW entry;
    walk.findFirst(directory, u"*", ZrFindExInfoKind, entry);
    if (walk.m_hFind == INVALID_HANDLE_VALUE) return count;
    bool folder = false;
    do {
        // An entry without room leaves the one before it current, and what that is.
        if (walk.setCurrent(entry)) folder = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (!walk.isValid()) break;
        if (folder)
            count += CountFilesInFolder(walk.value(), nullptr, depth - 1, limit ? limit - count : 0);
        else
            ++count;
        if (limit && count >= limit) break;
    } while (FindNextFileW(walk.m_hFind, &entry));
    return count;
}

int FileEnumerator::DeleteFilesFolders(WCHAR* directory, const WCHAR* pattern, int depth) {
    if (!directory || depth < 0) return 0;
    FileEnumerator walk;
    for (walk.start(directory, pattern); walk.isValid(); walk.advance()) {
        WCHAR* path = walk.value();
        if (!isFolder(path)) {
            if (!DeleteFileW(path)) logNotDeleted(path);
        } else if (!RemoveDirectoryW(path) && GetLastError() == ERROR_DIR_NOT_EMPTY) {
            DeleteFilesFolders(path, pattern, depth - 1);
            RemoveDirectoryW(path);
        }
    }
    return 1;
}

int FileEnumerator::DeleteAllFilesFolders(WCHAR* directory, int depth) {
    return DeleteFilesFolders(directory, u"*", depth);
}

void CreateDirectoryRecurse(WCHAR* path, SECURITY_ATTRIBUTES* attributes) {
    if (!path || !path[0]) return;
    WCHAR prefix[MAX_PATH];
    for (std::size_t i = 1; path[i]; ++i)
        if (path[i] == u'\\' && copyPrefix(prefix, path, i)) CreateDirectoryW(prefix, attributes);
}

void RemoveDirectoryRecurse(WCHAR* path) {
    if (!path || !path[0]) return;
    WCHAR prefix[MAX_PATH];
    std::size_t length = wcslen(path);
    for (std::size_t cut = length; cut-- > 0;) {
        if (path[cut] != u'\\') continue;
        if (copyPrefix(prefix, path, length)) RemoveDirectoryW(prefix);
        length = cut;
    }
}
