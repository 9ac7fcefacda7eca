#pragma once

// A connection to the contact store. Results are HRESULTs with their sentence already kept (last_error.h).

#include "store/sqlite.h"

namespace zr::platform::pim {

inline constexpr const char* kStoreName = "contact store";

class Database {
public:
    explicit Database(Connection& connection) : connection_(connection) {}

    Use use(const char* sql) { return connection_.use(sql); }
    HRESULT run(Use& statement) { return result(connection_.run(statement)); }
    // What the last failing call means.
    HRESULT result() { return result(connection_.error()); }
    bool in_transaction() const { return connection_.in_transaction(); }
    LONGLONG changes() const { return connection_.changes(); }
    sqlite3* handle() { return connection_.handle(); }

private:
    HRESULT result(DWORD error) const;

    Connection& connection_;
};

// The result that stands for a store's error, whose sentence is kept already.
HRESULT store_result(DWORD error);

}  // namespace zr::platform::pim
