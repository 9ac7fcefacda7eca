#include "schema.h"

#include <string>
#include <vector>

#include "last_error.h"
#include "names.h"

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
    // Letters without a capital of their own (final sigma, the micro sign) are only equal to themselves.
    ("UPDATE key SET folded = folded_name(name) WHERE id > 4 AND folded <> folded_name(name);"
     "UPDATE value SET folded = folded_name(name) WHERE folded <> folded_name(name);"),
    // The log has a kind of change that earlier versions do not know. There is nothing to do.
    "SELECT 1;",
};

void folded_name(sqlite3_context* context, int, sqlite3_value** arguments) {
    const auto* const units = static_cast<const WCHAR*>(sqlite3_value_blob(arguments[0]));
    const auto length = static_cast<std::size_t>(sqlite3_value_bytes(arguments[0])) / sizeof(WCHAR);
    const FoldedName folded(std::u16string_view(units, units ? length : 0));
    const std::u16string_view text = folded ? folded.view() : std::u16string_view();
    sqlite3_result_blob(context, text.empty() ? "" : static_cast<const void*>(text.data()),
                        static_cast<int>(text.size() * sizeof(WCHAR)), SQLITE_TRANSIENT);
}

DWORD add_functions(Connection& connection) {
    constexpr int kKind = SQLITE_UTF8 | SQLITE_DETERMINISTIC;
    const int code = sqlite3_create_function_v2(connection.handle(), "folded_name", 1, kKind, nullptr, &folded_name,
                                                nullptr, nullptr, nullptr);
    return code == SQLITE_OK ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

constexpr StoreTable kTables[] = {{"key", "id"}, {"value", "key"}};

void bind_name(Use& statement, int index, std::u16string_view name) {
    statement->bind_blob(index, name.data(), name.size() * sizeof(WCHAR));
}

DWORD add_key(Connection& connection, LONGLONG id, LONGLONG parent, std::u16string_view name) {
    const FoldedName folded(name);
    Use statement = connection.use("INSERT OR IGNORE INTO key VALUES(?1, ?2, ?3, ?4, X'')");
    if (!statement) return connection.error();
    statement->bind(1, id);
    statement->bind(2, parent);
    bind_name(statement, 3, folded.view());
    bind_name(statement, 4, name);
    return connection.run(statement);
}

// What lay in a key that was lost gets one in its place, named by its number.
DWORD mend(Connection& connection) {
    constexpr LONGLONG kCurrentUser = kFirstRoot + 1;
    constexpr LONGLONG kRecovered = kFirstRoot + kRoots;
    LONGLONG present = 0;
    if (connection.scalar("SELECT count(*) FROM key WHERE id = 5", present) != ERROR_SUCCESS) return connection.error();
    std::vector<LONGLONG> lost;
    {
        const Use rows = connection.use(
            "SELECT parent FROM key WHERE id > 4 UNION SELECT key FROM value EXCEPT SELECT id FROM key ORDER BY 1");
        if (!rows) return connection.error();
        int code;
        while ((code = rows->step()) == SQLITE_ROW) {
            lost.push_back(rows->integer(0));
        }
        if (code != SQLITE_DONE) return connection.error();
    }
    if (lost.empty()) return ERROR_SUCCESS;
    // The fifth key is the oldest one that is no root, so whatever comes below it is younger.
    LONGLONG home = kCurrentUser;
    if (present == 0) {
        if (const DWORD error = add_key(connection, kRecovered, kCurrentUser, u"Recovered"); error != ERROR_SUCCESS)
            return error;
        home = kRecovered;
    }
    for (const LONGLONG id : lost) {
        if (id <= home) continue;
        const std::string number = "Recovered " + std::to_string(id);
        const DWORD error = add_key(connection, id, home, std::u16string(number.begin(), number.end()));
        if (error != ERROR_SUCCESS) return error;
    }
    return connection.execute(
        "DELETE FROM key WHERE id > 4 AND parent >= id;"
        "DELETE FROM value WHERE key NOT IN (SELECT id FROM key);");
}

}  // namespace

// A commit is not synced: RegFlushKey does that. SQLite itself still syncs where it must to keep the file whole: the
// journal before a checkpoint copies from it, the file before the journal is begun anew, and the journal's new front.
// What one transaction changes stays in memory up to some 50 MB, and is written once.
const StoreKind kRegistryStore = {"registry", kStoreName, "registry.db", kApplicationId, kSteps,
                                  "PRAGMA page_size = 1024;"
                                  "PRAGMA journal_mode = WAL;"
                                  "PRAGMA synchronous = NORMAL;"
                                  "PRAGMA wal_autocheckpoint = 2000;"
                                  "PRAGMA journal_size_limit = 16777216;"
                                  "PRAGMA cache_size = -4096;"
                                  "PRAGMA cache_spill = 40000;",
                                  // A key is made after the one above it.
                                  "SELECT NOT EXISTS(SELECT 1 FROM key AS k WHERE id > 4 AND (parent >= id OR"
                                  " NOT EXISTS(SELECT 1 FROM key WHERE id = k.parent)))"
                                  " AND (SELECT count(*) FROM key WHERE id <= 4 AND parent = 0) = 4",
                                  kTables, &mend, true, &add_functions};

namespace {

const KnownStore known(kRegistryStore);

}  // namespace

}  // namespace zr::platform::registry
