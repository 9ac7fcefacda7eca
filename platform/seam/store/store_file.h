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

// What kind of store a file is to be.
struct StoreKind {
    const char* name;                    // in sentences: "contact store"
    const char* file;                    // its name below the state folder
    LONGLONG application_id;             // written into the file by the first step
    std::span<const char* const> steps;  // step i brings a store from version i to version i + 1
    const char* settings;                // statements for every connection; the file's encoding must come first
    const char* sound;                   // a query: 1 when the rows fit each other; asked where damage is suspected
    bool begins_anew;                    // the call that sets a damaged store aside goes on with an empty one
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

// The mark that a connection leaves beside a store that turned out to be damaged: the next opening examines it whole.
std::string suspicion(const std::string& path);

// The files' error of the system as a store reports it.
DWORD store_error(int number);

}  // namespace zr::platform
