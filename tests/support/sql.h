#pragma once

// Looks into a store's file behind the store's back.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <string>

#include "platform/stores.h"

namespace zr::test {

inline int open_as_the_stores_do(const std::filesystem::path& path, sqlite3** db) {
    return sqlite3_open_v2(path.c_str(), db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, ZrStoreLayer());
}

// Runs statements on a file; the first column of the last row.
inline std::string query(const std::filesystem::path& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::string result;
    EXPECT_EQ(open_as_the_stores_do(path, &db), SQLITE_OK);
    sqlite3_busy_timeout(db, 5000);
    const auto take = [](void* to, int columns, char** values, char**) {
        if (columns > 0 && values[0] != nullptr) *static_cast<std::string*>(to) = values[0];
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), take, &result, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return result;
}

}  // namespace zr::test
