#include "store/commit_watch.h"

#include "store/sqlite.h"

namespace zr::platform {

void CommitWatch::attach(Connection& connection) {
    header_ = nullptr;
    sqlite3_file* file = nullptr;
    if (sqlite3_file_control(connection.handle(), "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK) return;
    if (file == nullptr || file->pMethods == nullptr || file->pMethods->iVersion < 2) return;
    constexpr int kRegion = 32768;
    void volatile* region = nullptr;
    if (file->pMethods->xShmMap(file, 0, kRegion, 0, &region) != SQLITE_OK) return;
    header_ = static_cast<const volatile ULONGLONG*>(region);
}

}  // namespace zr::platform
