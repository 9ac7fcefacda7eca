#include "store/sqlite.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/private_file.h"
#include "base/utf.h"
#include "platform/errors.h"
#include "store/checked_file.h"
#include "store/store_file.h"

namespace zr::platform {
namespace {

constexpr int kBusyMilliseconds = 5000;
constinit std::atomic<bool> sqlite_abandoned{false};

DWORD meaning(int code, int system_error) {
    switch (code & 0xFF) {
        case SQLITE_FULL:
            return ERROR_DISK_FULL;
        case SQLITE_IOERR:
            if (code == SQLITE_IOERR_DATA) return ERROR_FILE_CORRUPT;
            if (system_error == ENOSPC || system_error == EDQUOT || system_error == EFBIG) return ERROR_DISK_FULL;
            return code == SQLITE_IOERR_NOMEM ? ERROR_NOT_ENOUGH_MEMORY : ERROR_IO_DEVICE;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return ERROR_BUSY;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return ERROR_FILE_CORRUPT;
        case SQLITE_NOMEM:
        case SQLITE_TOOBIG:
            return ERROR_NOT_ENOUGH_MEMORY;
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_AUTH:
            return ERROR_ACCESS_DENIED;
        case SQLITE_CANTOPEN:
            return system_error == 0 || system_error == ENOENT ? ERROR_ACCESS_DENIED : store_error(system_error);
        default:
            return ERROR_GEN_FAILURE;
    }
}

// SQLite does not pass on why a commit's write to the journal failed; the journal's file knows.
int last_system_error(sqlite3* db) {
    if (const int error = sqlite3_system_errno(db); error != 0) return error;
    if (sqlite3_extended_errcode(db) != SQLITE_IOERR_WRITE) return 0;
    sqlite3_file* journal = nullptr;
    sqlite3_file_control(db, "main", SQLITE_FCNTL_JOURNAL_POINTER, &journal);
    int error = 0;
    if (journal != nullptr && journal->pMethods != nullptr)
        journal->pMethods->xFileControl(journal, SQLITE_FCNTL_LAST_ERRNO, &error);
    return error;
}

void leave_suspicion(const std::string& path) {
    static_cast<void>(open_private_file(suspicion(path), 0, nullptr));
}

// SQLite takes a byte order mark off the front of text; and what is not valid Unicode is better called bytes.
bool survives_as_text(std::u16string_view text) {
    if (text.empty() || text.front() == 0xFEFF || text.front() == 0xFFFE) return false;
    for (const WCHAR unit : text) {
        if (unit >= 0xD800 && unit <= 0xDFFF) return is_valid_utf16(text);
    }
    return true;
}

}  // namespace

void Statement::bind_blob(int index, const void* bytes, std::size_t size) {
    sqlite3_bind_blob64(statement_, index, size == 0 ? "" : bytes, size, SQLITE_STATIC);
}

void Statement::bind_text(int index, std::u16string_view text) {
    if (text.empty()) {
        bind_null(index);
    } else if (survives_as_text(text)) {
        sqlite3_bind_text64(statement_, index, reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR),
                            SQLITE_STATIC, SQLITE_UTF16);
    } else {
        bind_units(index, text);
    }
}

void abandon_sqlite() noexcept {
    sqlite_abandoned.store(true, std::memory_order_relaxed);
}

bool is_sqlite_abandoned() noexcept {
    return sqlite_abandoned.load(std::memory_order_relaxed);
}

DWORD Connection::open(const std::string& path) {
    path_ = path;
    met_damage_ = false;
    abandoned_ = is_sqlite_abandoned();
    if (abandoned_) return error();
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const char* const layer = checked_vfs();
    if (layer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (sqlite3_open_v2(path.c_str(), &db_, flags, layer) != SQLITE_OK || reserve_checksums(db_) != SQLITE_OK)
        return error();
    sqlite3_extended_result_codes(db_, 1);
    wait_when_busy(true);
    return ERROR_SUCCESS;
}

void Connection::wait_when_busy(bool wait) noexcept {
    sqlite3_busy_timeout(db_, wait ? kBusyMilliseconds : 0);
}

void Connection::close() {
    if (abandoned_) {
        // What they point into was left to another process.
        for (auto& [sql, statement] : statements_) {
            static_cast<void>(statement.release());
        }
    }
    statements_.clear();
    sqlite3_close(db_);
    db_ = nullptr;
    met_damage_ = false;
}

void Connection::checkpoint_on_close(bool wanted) {
    if (is_open()) sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, wanted ? 0 : 1, nullptr);
}

void Connection::abandon() noexcept {
    db_ = nullptr;
    abandoned_ = true;
}

DWORD Connection::execute(const char* sql) {
    if (db_ == nullptr) return error();
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK ? ERROR_SUCCESS : error();
}

Use Connection::use(const char* sql) {
    if (db_ == nullptr) return Use(nullptr);
    auto& statement = statements_[sql];
    if (!statement) {
        sqlite3_stmt* prepared = nullptr;
        if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) != SQLITE_OK) {
            // Our own literals are right: where they do not fit the tables, these are not what was made.
            wrong_tables_ = sqlite3_errcode(db_) == SQLITE_ERROR;
            return Use(nullptr);
        }
        std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> held(prepared, &sqlite3_finalize);
        statement = std::make_unique<Statement>(prepared);
        static_cast<void>(held.release());
    }
    return Use(statement.get());
}

DWORD Connection::run(Use& statement) {
    if (!statement) return error();
    return statement->step() == SQLITE_DONE ? ERROR_SUCCESS : error();
}

DWORD Connection::scalar(const char* sql, LONGLONG& value, LONGLONG otherwise) {
    value = otherwise;
    const Use statement = use(sql);
    if (!statement) return error();
    const int code = statement->step();
    if (code == SQLITE_DONE) return ERROR_SUCCESS;
    if (code != SQLITE_ROW) return error();
    if (!statement->is_null(0)) value = statement->integer(0);
    return ERROR_SUCCESS;
}

void Connection::roll_back() {
    if (in_transaction()) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

int Connection::spills() const {
    int count = 0;
    int highest = 0;
    return sqlite3_db_status(db_, SQLITE_DBSTATUS_CACHE_SPILL, &count, &highest, 0) == SQLITE_OK ? count : 0;
}

DWORD Connection::error() {
    reason_.clear();
    if (abandoned_) {
        reason_ = "it was being changed when this process was forked";
        return ERROR_BUSY;
    }
    if (db_ == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    const int system_error = last_system_error(db_);
    const bool wrong_tables = std::exchange(wrong_tables_, false);
    const bool wrong_rows = std::exchange(wrong_rows_, false);
    const DWORD error =
        wrong_tables || wrong_rows ? ERROR_FILE_CORRUPT : meaning(sqlite3_extended_errcode(db_), system_error);
    if (error == ERROR_DISK_FULL) {
        reason_ = "the disk is full";
    } else if (error == ERROR_BUSY) {
        reason_ = "another program keeps it locked";
    } else {
        const bool changed = sqlite3_extended_errcode(db_) == SQLITE_IOERR_DATA;
        reason_ = wrong_rows ? "it is damaged, what is in it does not fit together"
                  : changed  ? "it is damaged, bytes of it are not what was written"
                             : sqlite3_errmsg(db_);
        if (system_error != 0 && !changed && !wrong_rows) reason_ += std::string(" (") + strerror(system_error) + ")";
        if (error == ERROR_FILE_CORRUPT) {
            met_damage_ = true;
            leave_suspicion(path_);
        }
    }
    return error;
}

std::string Connection::sentence(std::string_view store) const {
    return "The " + std::string(store) + " " + path_ + ": " + (reason_.empty() ? "memory is short" : reason_) + ".";
}

}  // namespace zr::platform
