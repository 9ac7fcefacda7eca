#pragma once

// The file of a store: opening, creating, migrating, setting aside.
//
// May throw std::bad_alloc, nothing else.

#include <span>
#include <string>

#include "platform/types.h"
#include "store/sqlite.h"

namespace zr::platform {

// What kind of store a file is to be.
struct StoreKind {
    const char* name;                    // in sentences: "contact store"
    LONGLONG application_id;             // written into the file by the first step
    std::span<const char* const> steps;  // step i brings a store from version i to version i + 1
    const char* settings;                // statements for every connection; the file's encoding must come first
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
// one.
StoreOpening open_store(const StoreKind& kind, const std::string& path, Connection& connection);

// Opens a further connection to a store that open_store opened; an error is the connection's.
DWORD open_connection(const StoreKind& kind, const std::string& path, Connection& connection);

// The mark that a connection leaves beside a store that turned out to be damaged: the next opening examines it whole.
std::string suspicion(const std::string& path);

// The files' error of the system as a store reports it.
DWORD store_error(int number);

}  // namespace zr::platform
