#pragma once

// Walks over the entries of a folder, and what stands on such walks: counting, deleting, making and removing folders.
//
// Nothing here throws. An object belongs to one thread at a time; the static and free functions use the caller's stack
// and recurse on the caller's thread.

#include "ZrUtility/Enumerator.h"
#include "ZrUtility/Export.h"
#include "platform/files.h"
#include "platform/types.h"

// Decides which entries of a folder a walk yields.
class ZRUTILITY_API FileEnumeratorFilter {
public:
    virtual ~FileEnumeratorFilter() = default;

protected:
    friend class FileEnumerator;
    // `directory` is the walked folder as it was given to start. Non-zero accepts the entry.
    virtual int filter(WCHAR* directory, WIN32_FIND_DATAW* entry) = 0;
};

// For the browser's cache: every folder, and the files that are not hidden.
class ZRUTILITY_API PIECacheFileEnumeratorFilter : public FileEnumeratorFilter {
public:
    static const int NUM_DEFAULT_FILES_IN_CACHE;  // 1

protected:
    int filter(WCHAR* directory, WIN32_FIND_DATAW* entry) override;
};

// Yields the full path of each entry of one folder that matches a wildcard pattern and passes the filter.
//
// An entry whose full path would have 260 characters or more leaves the current path as it was: empty at the start of a
// walk, later the entry before it once more.
//
// A copy shares the search handle with its original: both move the same walk, and the first to end it ends it for the
// other, whose next advance finds its handle closed and ends too.
class ZRUTILITY_API FileEnumerator : public Enumerator<WCHAR*> {
public:
    FileEnumerator();
    FileEnumerator(const FileEnumerator&) = default;
    FileEnumerator& operator=(const FileEnumerator&) = default;
    ~FileEnumerator() override;

    void advance() override;
    int isValid() override;
    // The current path, empty at the end. The enumerator's own: good until the next advance, start or destruction.
    WCHAR* value() override;

    // Not owned; it must outlive the walks that use it. NULL accepts everything.
    void setFilter(FileEnumeratorFilter* filter);

    // Ends the walk under way and starts one. -1 if an argument is NULL; 1 if the two and two characters more come to
    // 260 or more; else 0, whether or not there is an entry: isValid() tells. When nothing was found the system's
    // message goes to the log. Texts of this object itself (value()) are gone before they are read.
    int start(const WCHAR* directory, const WCHAR* pattern);

    // The files in a folder and in the folders below it down to `depth` levels (0: this folder only), as far as the
    // filter (NULL: all) accepts them; of folders, only those it accepts are entered. Folders are not counted. Stops at
    // `limit` unless that is 0. 0 if `directory` is NULL or `depth` negative.
    static int CountFilesInFolder(const WCHAR* directory, FileEnumeratorFilter* filter, int depth, int limit);

    // Deletes the files that match and the folders that match, each with what matches in it, down to `depth` levels. A
    // folder that is not empty then stays, as `directory` always does. 0 if `directory` is NULL or `depth` negative,
    // else 1, also when something could not be deleted: the log names files.
    static int DeleteFilesFolders(WCHAR* directory, const WCHAR* pattern, int depth);
    static int DeleteAllFilesFolders(WCHAR* directory, int depth);

protected:
    // Joins folder and name with one backslash. 1; 0, and nothing written, if a pointer is NULL or the `capacity`
    // characters of `out` do not hold the result with one more than its separator and its end need.
    static int MakeFullPath(WCHAR* out, unsigned int capacity, const WCHAR* directory, const WCHAR* name);

private:
    static int countEverything(const WCHAR* directory, int depth, int limit);

    void uninit();
    int findFirst(const WCHAR* directory, const WCHAR* pattern, FINDEX_INFO_LEVELS level, WIN32_FIND_DATAW& entry);
    int setCurrent(const WIN32_FIND_DATAW& entry);
    int accepts(WIN32_FIND_DATAW& entry);

    HANDLE m_hFind;
    WCHAR m_wzDirectory[MAX_PATH];
    WCHAR m_wzPath[MAX_PATH];
    FileEnumeratorFilter* m_pFilter;
};

// Creates each folder that a backslash of the path ends, from the top; what stands behind the last backslash is not
// created. Failures are passed over. `path` is not changed; NULL or empty: nothing happens.
ZRUTILITY_API void CreateDirectoryRecurse(WCHAR* path, SECURITY_ATTRIBUTES* attributes);

// Removes the folder of this path and then those above it, as far as they are empty; a first name without a backslash
// before it stays. Failures are passed over. `path` is not changed; NULL or empty: nothing happens.
ZRUTILITY_API void RemoveDirectoryRecurse(WCHAR* path);
