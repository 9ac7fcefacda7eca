#include "schema.h"

#include "database.h"
#include "platform/pim.h"

namespace zr::platform::pim {
namespace {

constexpr int kApplicationId = 0x5A72504D;
static_assert(kApplicationId == 1517441101);
static_assert(ZR_PROPID_CARD_UID == 2097479711 && ZR_PROPID_EVENT_UID == 2097348639);

// Steps are never changed, only added.
//
// A contact's searched fields are columns, as lists, searches and the index read these and nothing else; everything
// else an item has is a property. folder.next is the lowest identifier never used; the ones below it are in use or in
// free_oid. change is the log from which caches and notifications learn what happened, in order.
constexpr const char* kSteps[] = {
    "CREATE TABLE folder(id INTEGER PRIMARY KEY, next INTEGER NOT NULL);"
    "INSERT INTO folder VALUES(9, 9 << 24 | 1), (10, 1), (13, 13 << 24 | 1);"
    "CREATE TABLE free_oid(oid INTEGER PRIMARY KEY);"
    "CREATE TABLE contact(oid INTEGER PRIMARY KEY, file_as TEXT, title TEXT, first_name TEXT, middle_name TEXT,"
    " last_name TEXT, suffix TEXT, company TEXT, email1 TEXT, email2 TEXT, email3 TEXT, job_title TEXT,"
    " own_file_as INTEGER NOT NULL);"
    "CREATE TABLE entry(oid INTEGER PRIMARY KEY);"
    "CREATE TABLE property(oid INTEGER NOT NULL, id INTEGER NOT NULL, value, PRIMARY KEY(oid, id)) WITHOUT ROWID;"
    "CREATE TABLE change(seq INTEGER PRIMARY KEY, kind INTEGER NOT NULL, oid INTEGER NOT NULL,"
    " origin INTEGER NOT NULL);"
    "INSERT INTO change VALUES(1, 3, 0, 0);"
    "PRAGMA application_id = 1517441101;",
    // The occurrences of a series that were changed or deleted. A row with the id 0 says that there is one on that day
    // of the pattern, its value whether it was deleted; the other rows are the fields that were put into it.
    "CREATE TABLE exception(oid INTEGER NOT NULL, day INTEGER NOT NULL, id INTEGER NOT NULL, value,"
    " PRIMARY KEY(oid, day, id)) WITHOUT ROWID;",
    // The log counts on from the time: no number of it is that of another store.
    "DELETE FROM change;"
    "INSERT INTO change SELECT " ZR_STORE_FIRST_SEQ ", 3, 0, 0;",
    // Items are found by the identifier that lasts (ZR_PROPID_CARD_UID, ZR_PROPID_EVENT_UID), and know in which change
    // they were made: 0 is before this version.
    "CREATE INDEX card_uid ON property(value) WHERE id = 2097479711;"
    "CREATE INDEX event_uid ON property(value) WHERE id = 2097348639;"
    "ALTER TABLE contact ADD COLUMN born INTEGER NOT NULL DEFAULT 0;"
    "ALTER TABLE entry ADD COLUMN born INTEGER NOT NULL DEFAULT 0;",
    // A program of before that column may still have the store open, and makes items. Its next row in the log is
    // theirs.
    "CREATE TRIGGER contact_born AFTER INSERT ON contact WHEN new.born = 0 BEGIN"
    " UPDATE contact SET born = (SELECT max(seq) + 1 FROM change) WHERE oid = new.oid; END;"
    "CREATE TRIGGER entry_born AFTER INSERT ON entry WHEN new.born = 0 BEGIN"
    " UPDATE entry SET born = (SELECT max(seq) + 1 FROM change) WHERE oid = new.oid; END;",
    // Contacts are found by an address (Store::with_email). lower() knows the letters of ASCII only; the few contacts
    // with an address of other letters have an index of their own.
    "CREATE INDEX contact_email1 ON contact(lower(email1)) WHERE email1 <> '';"
    "CREATE INDEX contact_email2 ON contact(lower(email2)) WHERE email2 <> '';"
    "CREATE INDEX contact_email3 ON contact(lower(email3)) WHERE email3 <> '';"
    "CREATE INDEX contact_other_email ON contact(oid) WHERE email1 GLOB '*[^ -~]*' OR email2 GLOB '*[^ -~]*'"
    " OR email3 GLOB '*[^ -~]*';",
};

constexpr StoreTable kTables[] = {
    {"contact", "oid"},
    {"entry", "oid"},
    {"property", "oid"},
    {"exception", "oid"},
};

// Identifiers below a folder's next one are in use or free. Items of before the column have got the number of the
// change to come, as if they were made now.
DWORD mend(Connection& connection) {
    return connection.execute(
        "UPDATE contact SET born = 0 WHERE born = (SELECT max(seq) + 1 FROM change);"
        "UPDATE entry SET born = 0 WHERE born = (SELECT max(seq) + 1 FROM change);"
        "DELETE FROM property WHERE oid > 16777216 AND oid >> 24 IN (9, 13)"
        " AND oid NOT IN (SELECT oid FROM entry);"
        "DELETE FROM property WHERE oid < 16777216 AND oid NOT IN (SELECT oid FROM contact);"
        "DELETE FROM exception WHERE oid NOT IN (SELECT oid FROM entry);"
        "UPDATE folder SET next = 1 + coalesce((SELECT max(oid) FROM contact), 0) WHERE id = 10;"
        "UPDATE folder SET next = 1 + coalesce((SELECT max(oid) FROM entry WHERE oid >> 24 = folder.id), id << 24)"
        " WHERE id IN (9, 13);"
        "DELETE FROM free_oid;"
        "WITH RECURSIVE below(oid, stop) AS (SELECT 1, next FROM folder WHERE id = 10 UNION ALL"
        " SELECT oid + 1, stop FROM below WHERE oid + 1 < stop)"
        " INSERT INTO free_oid SELECT oid FROM below WHERE oid < stop AND oid NOT IN (SELECT oid FROM contact);"
        "WITH RECURSIVE below(oid, stop) AS (SELECT id << 24 | 1, next FROM folder WHERE id IN (9, 13) UNION ALL"
        " SELECT oid + 1, stop FROM below WHERE oid + 1 < stop)"
        " INSERT INTO free_oid SELECT oid FROM below WHERE oid < stop AND oid NOT IN (SELECT oid FROM entry);");
}

}  // namespace

const StoreKind kContactStore = {"contacts",
                                 kStoreName,
                                 "pim.db",
                                 kApplicationId,
                                 kSteps,
                                 "PRAGMA encoding = 'UTF-16';"
                                 "PRAGMA journal_mode = WAL;"
                                 "PRAGMA synchronous = NORMAL;"
                                 "PRAGMA wal_autocheckpoint = 4000;"
                                 "PRAGMA journal_size_limit = 67108864;"
                                 "PRAGMA cache_size = -8192;",
                                 "SELECT NOT EXISTS(SELECT 1 FROM contact JOIN free_oid USING(oid))"
                                 " AND NOT EXISTS(SELECT 1 FROM entry JOIN free_oid USING(oid))"
                                 " AND (SELECT count(*) FROM folder) = 3",
                                 kTables,
                                 &mend,
                                 false};

namespace {

const KnownStore known(kContactStore);

}  // namespace

}  // namespace zr::platform::pim
