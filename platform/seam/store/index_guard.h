#pragma once

// What other programs find in NAME-shm while ours have a store open.
//
// SQLite's own layer keeps the journal's index in that file, ours does not (journal_index.h). A program that used it
// there meanwhile would have an index that knows nothing of our changes, and write over them. So a header stands there
// of a version that no SQLite knows: who reads it gives up (SQLITE_CANTOPEN) before he reads or writes anything else.
// It means nothing any more once nobody has the store open: who opens the file then cuts it off first, as ever.

#include <sqlite3.h>

namespace zr::platform {

// Puts it there. `file` is the host's, of the database, which holds the lock that says that the store is open. `first`:
// others may have an index there; waits until none of them writes, and keeps the next ones from beginning. False: one
// of them wrote for five seconds. Where there is no room for it on the disk, or somebody cuts the file off just then,
// it is not there, and that is all.
bool guard_index(sqlite3_file* file, bool first) noexcept;

}  // namespace zr::platform
