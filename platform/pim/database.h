#pragma once

// A connection to the contact store. Results are HRESULTs with their sentence already kept (last_error.h).

#include <string>

#include "store/sqlite.h"

namespace zr::platform::pim {

inline constexpr const char* kStoreName = "contact store";

class Database : public Connection {
public:
    HRESULT execute(const char* sql) { return result(Connection::execute(sql)); }
    HRESULT run(Use& statement) { return result(Connection::run(statement)); }
    HRESULT scalar(const char* sql, LONGLONG& value, LONGLONG otherwise = 0) {
        return result(Connection::scalar(sql, value, otherwise));
    }
    // What the last failing call means.
    HRESULT result() { return result(error()); }

private:
    HRESULT result(DWORD error) const;
};

// The result that stands for a store's error.
HRESULT store_result(DWORD error);

}  // namespace zr::platform::pim
