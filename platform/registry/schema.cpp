#include "schema.h"

#include "last_error.h"

namespace zr::platform::registry {
namespace {

constexpr LONGLONG kApplicationId = 0x5A725247;
static_assert(kApplicationId == 1517441607);

// Steps are never changed, only added.
//
// Names are blobs of UTF-16 units, so that every name is kept as it is; `folded` is the name as it is searched for. The
// numbers of keys are never used again (AUTOINCREMENT): a handle to a deleted key must not find another one. `change`
// is the log from which other processes' memory and the notifications learn what happened (changes.h); `parents` are
// the numbers of the keys above, 8 bytes each, so that a change can be placed when its key is gone.
constexpr const char* kSteps[] = {
    "CREATE TABLE key(id INTEGER PRIMARY KEY AUTOINCREMENT, parent INTEGER NOT NULL, folded BLOB NOT NULL,"
    " name BLOB NOT NULL, class BLOB NOT NULL, UNIQUE(parent, folded));"
    "INSERT INTO key VALUES(1, 0, X'01', X'', X''), (2, 0, X'02', X'', X''), (3, 0, X'03', X'', X''),"
    " (4, 0, X'04', X'', X'');"
    "CREATE TABLE value(key INTEGER NOT NULL, folded BLOB NOT NULL, name BLOB NOT NULL, type INTEGER NOT NULL,"
    " data BLOB NOT NULL, PRIMARY KEY(key, folded)) WITHOUT ROWID;"
    "CREATE TABLE change(seq INTEGER PRIMARY KEY, kind INTEGER NOT NULL, key INTEGER NOT NULL,"
    " parents BLOB NOT NULL, name BLOB NOT NULL);"
    "PRAGMA application_id = 1517441607;",
    // The log says which process wrote, and counts on from the time: no number of it is that of another registry.
    "ALTER TABLE change ADD COLUMN origin INTEGER NOT NULL DEFAULT 0;"
    "DELETE FROM change;"
    "INSERT INTO change SELECT " ZR_STORE_FIRST_SEQ ", 2, 1, X'', X'', 0;",
};

}  // namespace

// A commit is not synced: RegFlushKey does that. SQLite itself still syncs where it must to keep the file whole: the
// journal before a checkpoint copies from it, the file before the journal is begun anew, and the journal's new front.
const StoreKind kRegistryStore = {kStoreName, "registry.db", kApplicationId, kSteps,
                                  "PRAGMA page_size = 1024;"
                                  "PRAGMA journal_mode = WAL;"
                                  "PRAGMA synchronous = NORMAL;"
                                  "PRAGMA wal_autocheckpoint = 2000;"
                                  "PRAGMA journal_size_limit = 16777216;"
                                  "PRAGMA cache_size = -4096;",
                                  // A key is made after the one above it.
                                  "SELECT NOT EXISTS(SELECT 1 FROM key AS k WHERE id > 4 AND (parent >= id OR"
                                  " NOT EXISTS(SELECT 1 FROM key WHERE id = k.parent)))"
                                  " AND (SELECT count(*) FROM key WHERE id <= 4 AND parent = 0) = 4",
                                  true};

}  // namespace zr::platform::registry
