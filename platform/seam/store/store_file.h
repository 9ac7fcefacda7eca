#pragma once

// The file of a store: opening, creating, migrating, setting aside.
//
// May throw std::bad_alloc, nothing else.

#include <span>
#include <string>

#include "platform/types.h"
#include "store/sqlite.h"

namespace zr::platform {

class Bell;

// In SQL, where the numbers of a new store's log of changes begin: the microseconds since 1970. No store makes a change
// in each of them, so they never meet the numbers of an earlier store of the same name.
#define ZR_STORE_FIRST_SEQ "CAST((julianday('now') - 2440587.5) * 86400000000 AS INTEGER)"

// A table whose rows are brought back one by one, by a column of numbers that orders it.
struct StoreTable {
    const char* name;
    const char* key;
};

// At most as many kinds as a process can have.
inline constexpr std::size_t kMostStoreKinds = 8;

// What kind of store a file is to be.
struct StoreKind {
    const char* id;                      // for people: "contacts"
    const char* name;                    // in sentences: "contact store"
    const char* file;                    // its name below the state folder
    LONGLONG application_id;             // written into the file by the first step
    std::span<const char* const> steps;  // step i brings a store from version i to version i + 1
    const char* settings;                // statements for every connection; the file's encoding must come first
    const char* sound;                   // a query: 1 when the rows fit each other; asked where damage is suspected
    std::span<const StoreTable> tables;  // all but the log of changes
    DWORD (*mend)(Connection&);          // makes rows fit each other of which some were lost
    bool begins_anew;                    // the call that sets a damaged store aside goes on with an empty one
    DWORD (*functions)(Connection&) = nullptr;  // makes known to a connection what the steps call
};

// All kinds, for what looks after every store. A static object of its family.
struct KnownStore {
    explicit KnownStore(const StoreKind& kind) noexcept;
};

struct StoreOpening {
    DWORD error = 0;
    std::string message;     // a sentence that names the file; empty on success
    bool set_aside = false;  // the file was damaged and has another name now
    bool created = false;    // the file was empty before

    explicit operator bool() const { return error == 0; }
};

// Opens the store at `path`, making it what this version needs. ERROR_REVISION_MISMATCH when a newer version wrote it
// (it is left alone); ERROR_FILE_CORRUPT when it is damaged: it has been set aside, and the next opening makes a new
// one; ERROR_ACCESS_DENIED when it is not the user's own; ERROR_BUSY when another process has examined or changed it
// for more than five seconds. Whoever has a store open that is set aside finds the header of its journal's index
// changed.
StoreOpening open_store(const StoreKind& kind, const std::string& path, const Bell& bell, Connection& connection);

// Opens a further connection to a store that open_store opened; an error is the connection's.
DWORD open_connection(const StoreKind& kind, const std::string& path, Connection& connection);

// Opens a file that is to be the kind's store, brings it to this version, reads all of it and closes it, without a
// journal. An error says why it cannot be the store; nothing is set aside.
StoreOpening examine_store(const StoreKind& kind, const std::string& path);

// The tables of the kind, in an empty file; a system error code.
DWORD make_tables(const StoreKind& kind, Connection& connection);

// Renames the store as NAME.REASON-DATE, with its journal, and puts `by` in its place unless that is empty. Everybody
// who has the store open notices. With the store's lock held; nobody is in the middle of a change meanwhile. 0 or the
// host's error number; `name` is the new one.
int replace_store(const std::string& path, const char* reason, const std::string& by, const Bell& bell,
                  std::string& name);

// The mark that a connection leaves beside a store that turned out to be damaged: the next opening examines it whole.
std::string suspicion(const std::string& path);

// The files' error of the system as a store reports it.
DWORD store_error(int number);

}  // namespace zr::platform
