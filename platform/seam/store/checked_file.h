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
// - which journal belongs to the file. Before a journal gets its first page the mark names it, and before it is removed
//   the mark says that the file was closed and where the journal ended, each time on the disk. So a file that names a
//   journal that is not there lacks changes; and what lies beside a closed file is the very journal that it was closed
//   with, or another one's.

#include <cstdint>

#include "platform/types.h"

struct sqlite3;

namespace zr::platform {

// The layer's name, for sqlite3_open_v2; null when memory is short.
const char* checked_vfs() noexcept;

// Has the pages of a new database get checksums, and of what VACUUM INTO makes of an old one. 0 or SQLite's error.
int reserve_checksums(sqlite3* database) noexcept;

// While it lives, what SQLite sets aside on the disk for this thread lies beside the file of that name, without a name
// of its own: in the same folder, and on the same disk. The text is kept for as long.
class FilesBeside {
public:
    explicit FilesBeside(const char* path) noexcept;
    ~FilesBeside();
    FilesBeside(const FilesBeside&) = delete;
    FilesBeside& operator=(const FilesBeside&) = delete;
};

// A new file gets pages of that size, in any order, with checksums: for a copy that is made page by page.
int expect_pages(sqlite3* database, int page_size) noexcept;

enum class JournalState : unsigned char {
    Never,   // the file never had a journal
    Open,    // the file and its journal are the store
    Closed,  // the file is the store
};

// What a file's marks say. With the database's file open and read from once.
struct StoreMarks {
    bool checked;        // the file's pages have checksums
    bool legible;        // false: what is there is no mark
    LONGLONG committed;  // the number of a change; 0: none is known, or not of this boot
    JournalState journal;
    // Open: the journal's number (salt). Closed: a digest of its end; 0 where there was nothing in it, as is before a
    // journal is begun anew, also while others have the file open.
    std::uint32_t name;
};
// 0 or SQLite's error.
int read_marks(sqlite3* database, StoreMarks& marks) noexcept;

// Notes that the change was committed.
int mark_committed(sqlite3* database, LONGLONG seq) noexcept;

// Whether what is in the journal that is there belongs to the file, and nothing of it is missing that the mark knows
// of. With the database open and read from once. May be false for a moment while others begin a journal. 0 or SQLite's
// error.
int journal_fits(sqlite3* database, bool& fits) noexcept;

}  // namespace zr::platform
