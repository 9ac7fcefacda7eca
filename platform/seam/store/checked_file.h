#pragma once

// The stores' files as SQLite reads and writes them: every page has a checksum, and the file knows what it must hold.
//
// A layer of SQLite's (a VFS, "zr-store") over the host's files. The last eight bytes of each page, which SQLite leaves
// alone when it is told to reserve them, hold a checksum of the page and its number; a page that is not what was
// written is SQLITE_IOERR_DATA when it is read. Pages in the journal have SQLite's own checksums, which it looks at
// only when it recovers the journal; here they are looked at whenever a committed page is read. A file without the
// reserved bytes is read and written unchecked.
//
// Bytes that SQLite's file format reserves in the first page hold two marks, which SQLite never sees:
// - the number of the last change that was committed, and in which boot of the computer. Memory of the host outlives
//   every process, so within that boot the store holds at least this change, or it is damaged. (A power cut may take
//   what was not flushed, and begins another boot.)
// - which journal belongs to the file. It is written before that journal gets its first page, and taken away before the
//   journal is removed. So a file that has this mark and no such journal lacks changes.

#include <cstdint>

#include "platform/types.h"

struct sqlite3;

namespace zr::platform {

// The layer's name, for sqlite3_open_v2; null when memory is short.
const char* checked_vfs() noexcept;

// Has the pages of a new database get checksums, and of what VACUUM INTO makes of an old one. 0 or SQLite's error.
int reserve_checksums(sqlite3* database) noexcept;
// A new file gets pages of that size, in any order, with checksums: for a copy that is made page by page.
int expect_pages(sqlite3* database, int page_size) noexcept;

// What a file's marks say. With the database's file open and read from once.
struct StoreMarks {
    bool checked;           // the file's pages have checksums
    bool legible;           // false: what is there is no mark
    LONGLONG committed;     // the number of a change; 0: none is known, or not of this boot
    std::uint32_t journal;  // the number (salt) of the journal; 0: there is none
};
// 0 or SQLite's error.
int read_marks(sqlite3* database, StoreMarks& marks) noexcept;

// Notes that the change was committed.
int mark_committed(sqlite3* database, LONGLONG seq) noexcept;

// The number of the journal that is there; 0: there is none, or its front is damaged.
std::uint32_t journal_number(sqlite3* database) noexcept;

}  // namespace zr::platform
