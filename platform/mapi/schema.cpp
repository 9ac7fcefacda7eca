#include "schema.h"

#include "platform/mapi.h"

namespace zr::platform::mapi {
namespace {

constexpr LONGLONG kApplicationId = 0x5A724D41;
static_assert(kApplicationId == 1517440321);
static_assert(owner_of(MAPI_STORE, 1) == 9 && owner_of(MAPI_FOLDER, 1) == 11 && owner_of(MAPI_MESSAGE, 1) == 13);

// Steps are never changed, only added.
//
// Text is kept as a blob of UTF-16 units, so that every text stays as it is; `folded` is a name as it is compared.
// Numbers are never used again (AUTOINCREMENT): an entry identifier must not find another object. What lists show of a
// message are columns; everything else is a property. The first accounts are made by the program (store.cpp).
// `words` holds what word_index finds, which keeps no text itself. `change` is the log.
constexpr const char* kSteps[] = {
    "CREATE TABLE account(id INTEGER PRIMARY KEY AUTOINCREMENT, uid BLOB NOT NULL UNIQUE, name BLOB NOT NULL,"
    " folded BLOB NOT NULL UNIQUE, created INTEGER NOT NULL);"
    "CREATE TABLE folder(id INTEGER PRIMARY KEY AUTOINCREMENT, account INTEGER NOT NULL, parent INTEGER NOT NULL,"
    " role INTEGER NOT NULL, name BLOB NOT NULL, folded BLOB NOT NULL, created INTEGER NOT NULL,"
    " modified INTEGER NOT NULL, UNIQUE(parent, folded));"
    "CREATE TABLE message(id INTEGER PRIMARY KEY AUTOINCREMENT, folder INTEGER NOT NULL, delivered INTEGER NOT NULL,"
    " submitted INTEGER, flags INTEGER NOT NULL, size INTEGER NOT NULL, version INTEGER NOT NULL,"
    " created INTEGER NOT NULL, modified INTEGER NOT NULL, next_attachment INTEGER NOT NULL, class BLOB, subject BLOB,"
    " sender_name BLOB, sender_address BLOB, display_to BLOB, display_cc BLOB, display_bcc BLOB, message_id BLOB);"
    "CREATE INDEX message_by_date ON message(folder, delivered);"
    "CREATE INDEX message_unread ON message(folder) WHERE flags & 1 = 0;"
    "CREATE INDEX message_by_id ON message(message_id) WHERE message_id IS NOT NULL;"
    "CREATE TABLE property(owner INTEGER NOT NULL, part INTEGER NOT NULL, id INTEGER NOT NULL, type INTEGER NOT NULL,"
    " value, blob INTEGER, PRIMARY KEY(owner, part, id)) WITHOUT ROWID;"
    "CREATE TABLE blob(id INTEGER PRIMARY KEY AUTOINCREMENT, size INTEGER NOT NULL);"
    "CREATE TABLE chunk(id INTEGER PRIMARY KEY, bytes BLOB NOT NULL);"
    "CREATE TABLE words(message INTEGER PRIMARY KEY, subject TEXT, addresses TEXT, text TEXT);"
    "CREATE VIRTUAL TABLE word_index USING fts5(subject, addresses, text, content='words', content_rowid='message',"
    " tokenize='unicode61 remove_diacritics 2');"
    "CREATE TABLE change(seq INTEGER PRIMARY KEY, origin INTEGER NOT NULL, kind INTEGER NOT NULL,"
    " type INTEGER NOT NULL, account INTEGER NOT NULL, id INTEGER NOT NULL, parent INTEGER NOT NULL,"
    " old_account INTEGER NOT NULL, old_id INTEGER NOT NULL, old_parent INTEGER NOT NULL, class BLOB,"
    " flags INTEGER NOT NULL);"
    "INSERT INTO change SELECT " ZR_STORE_FIRST_SEQ
    ", 0, 0, 0, 0, 0, 0, 0, 0, 0, NULL, 0;"
    "PRAGMA application_id = 1517440321;",
    // One index for the order, what is read and what is unread: moving a message is two entries of it.
    "DROP INDEX message_unread;"
    "DROP INDEX message_by_date;"
    "CREATE INDEX message_by_date ON message(folder, delivered, id, flags);",
    // Chunks may be narrow from here on (chunk.h), which earlier versions do not know. The words of a whole batch are
    // sorted before they are written, and pieces of the index are put together less often.
    ("INSERT INTO word_index(word_index, rank) VALUES('hashsize', 8388608);"
     "INSERT INTO word_index(word_index, rank) VALUES('automerge', 8);"),
};

constexpr StoreTable kTables[] = {
    {"account", "id"}, {"folder", "id"}, {"message", "id"},    {"property", "owner"},
    {"blob", "id"},    {"chunk", "id"},  {"words", "message"},
};

// Folders of lost accounts, and messages and folders of lost folders, get a home in an account "Recovered". A long
// value of which a part was lost is left out.
DWORD mend(Connection& connection) {
    return connection.execute(
        "CREATE TEMP TABLE lost AS SELECT DISTINCT folder AS id FROM message WHERE folder NOT IN (SELECT id FROM "
        "folder)"
        " UNION SELECT parent FROM folder WHERE parent > 0 AND parent NOT IN (SELECT id FROM folder);"
        "INSERT INTO account(uid, name, folded, created) SELECT randomblob(16), "
        "X'5200650063006F0076006500720065006400',"
        " X'7200650063006F0076006500720065006400', 0 WHERE EXISTS(SELECT 1 FROM lost) OR"
        " EXISTS(SELECT 1 FROM folder WHERE account NOT IN (SELECT id FROM account));"
        "CREATE TEMP TABLE home AS SELECT max(id) AS account FROM account;"
        "INSERT OR IGNORE INTO folder SELECT id, (SELECT account FROM home), -(SELECT account FROM home), 0,"
        " CAST(id AS BLOB), CAST(id AS BLOB), 0, 0 FROM lost;"
        "UPDATE folder SET account = (SELECT account FROM home) WHERE account NOT IN (SELECT id FROM account);"
        "INSERT INTO folder(account, parent, role, name, folded, created, modified) SELECT id, -id, 1, name, X'00', 0, "
        "0"
        " FROM account WHERE id NOT IN (SELECT account FROM folder WHERE role = 1);"
        "UPDATE folder SET parent = (SELECT f.id FROM folder AS f WHERE f.account = folder.account AND f.role = 1)"
        " WHERE role <> 1 AND parent < 0;"
        "DROP TABLE lost; DROP TABLE home;"
        "DELETE FROM property WHERE blob IS NOT NULL AND (SELECT coalesce(sum(length(bytes) *"
        " CASE WHEN length(bytes) * 2 = min(32768, size - (chunk.id & 16777215) * 32768) THEN 2 ELSE 1 END), -1)"
        " FROM blob JOIN chunk ON chunk.id BETWEEN blob.id << 24 AND (blob.id << 24 | 16777215)"
        " WHERE blob.id = property.blob) IS NOT (SELECT size FROM blob WHERE id = property.blob);"
        "DELETE FROM property WHERE owner & 7 = 5 AND owner >> 3 NOT IN (SELECT id FROM message);"
        "DELETE FROM property WHERE owner & 7 = 3 AND owner >> 3 NOT IN (SELECT id FROM folder);"
        "DELETE FROM blob WHERE id NOT IN (SELECT blob FROM property WHERE blob IS NOT NULL);"
        "DELETE FROM chunk WHERE id >> 24 NOT IN (SELECT id FROM blob);"
        "DELETE FROM words WHERE message NOT IN (SELECT id FROM message);"
        "UPDATE sqlite_sequence SET seq = seq + 1048576;"
        "INSERT INTO word_index(word_index) VALUES('rebuild');");
}

}  // namespace

// A commit is not synced; SQLite itself still syncs where it must to keep the file whole.
const StoreKind kMailStore = {"mail",
                              "message store",
                              "mail.db",
                              kApplicationId,
                              kSteps,
                              "PRAGMA encoding = 'UTF-8';"
                              "PRAGMA journal_mode = WAL;"
                              "PRAGMA synchronous = NORMAL;"
                              "PRAGMA wal_autocheckpoint = 4000;"
                              "PRAGMA journal_size_limit = 67108864;"
                              "PRAGMA cache_size = -8192;",
                              "SELECT NOT EXISTS(SELECT 1 FROM message WHERE folder NOT IN (SELECT id FROM folder))"
                              " AND NOT EXISTS(SELECT 1 FROM folder WHERE account NOT IN (SELECT id FROM account))"
                              " AND NOT EXISTS(SELECT 1 FROM property WHERE blob IS NOT NULL AND blob NOT IN"
                              " (SELECT id FROM blob))"
                              " AND NOT EXISTS(SELECT 1 FROM property WHERE owner & 7 = 5 AND owner >> 3 NOT IN"
                              " (SELECT id FROM message))",
                              kTables,
                              &mend,
                              false};

namespace {

const KnownStore known(kMailStore);

}  // namespace

}  // namespace zr::platform::mapi
