#pragma once

// SQLite behind three small classes, for the stores. Errors are system error codes.
//
// A connection and its statements are used by one thread at a time. May throw std::bad_alloc, nothing else.

#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

// A prepared statement. Text is bound for the time of the step: it must stay in place.
class ZRPLATFORM_API Statement {
public:
    explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void bind(int index, LONGLONG value) { sqlite3_bind_int64(statement_, index, value); }
    void bind(int index, LONG value) { sqlite3_bind_int64(statement_, index, value); }
    void bind(int index, DWORD value) { sqlite3_bind_int64(statement_, index, value); }
    void bind(int index, double value) { sqlite3_bind_double(statement_, index, value); }
    void bind_null(int index) { sqlite3_bind_null(statement_, index); }
    void bind_blob(int index, const void* bytes, std::size_t size);
    // Text as a blob of its units, which keeps every text as it is, the empty one included.
    void bind_units(int index, std::u16string_view text) { bind_blob(index, text.data(), text.size() * sizeof(WCHAR)); }
    // Empty text is null. Text that SQLite would not give back as it was is kept as a blob of its units.
    void bind_text(int index, std::u16string_view text);
    // UTF-8 without a NUL.
    void bind_utf8(int index, std::string_view text) {
        sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    }

    int step() { return sqlite3_step(statement_); }
    void reset() { sqlite3_reset(statement_); }

    bool is_null(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
    LONGLONG integer(int column) const { return sqlite3_column_int64(statement_, column); }
    double real(int column) const { return sqlite3_column_double(statement_, column); }
    // The units of a blob, or of a text in a store of UTF-16; valid until the next step.
    std::u16string_view text(int column) const {
        // In this order: asking for the bytes first could convert.
        const void* units = sqlite3_column_blob(statement_, column);
        const int size = sqlite3_column_bytes16(statement_, column);
        return {static_cast<const WCHAR*>(units), static_cast<std::size_t>(size) / sizeof(WCHAR)};
    }
    // Text in whatever encoding the store has, as UTF-8; valid until the next step.
    std::string_view utf8(int column) const {
        const unsigned char* characters = sqlite3_column_text(statement_, column);
        const int size = sqlite3_column_bytes(statement_, column);
        return {reinterpret_cast<const char*>(characters), static_cast<std::size_t>(size)};
    }
    // Binds a column of this row to another statement.
    void copy(int column, Statement& to, int index) const {
        sqlite3_bind_value(to.statement_, index, sqlite3_column_value(statement_, column));
    }
    // A column that is looked at once: false when it is null. Bytes are valid until the next step.
    bool read(int column, LONGLONG& number) const {
        sqlite3_value* const value = sqlite3_column_value(statement_, column);
        if (sqlite3_value_type(value) == SQLITE_NULL) return false;
        number = sqlite3_value_int64(value);
        return true;
    }
    bool read(int column, std::string_view& bytes) const {
        sqlite3_value* const value = sqlite3_column_value(statement_, column);
        if (sqlite3_value_type(value) == SQLITE_NULL) return false;
        const void* const data = sqlite3_value_blob(value);
        bytes = {static_cast<const char*>(data), static_cast<std::size_t>(sqlite3_value_bytes16(value))};
        return true;
    }
    std::string_view blob(int column) const {
        const void* bytes = sqlite3_column_blob(statement_, column);
        return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes16(statement_, column))};
    }

private:
    sqlite3_stmt* statement_;
};

// Resets a statement at the end of its use, so that it holds no lock and no bound text.
class ZRPLATFORM_API Use {
public:
    explicit Use(Statement* statement) : statement_(statement) {}
    ~Use() {
        if (statement_ != nullptr) statement_->reset();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    Statement* operator->() const { return statement_; }
    Statement& operator*() const { return *statement_; }
    explicit operator bool() const { return statement_ != nullptr; }

private:
    Statement* statement_;
};

// In a child made by fork beside a thread that may have been inside SQLite: locks that SQLite has for the whole process
// may never be given back. From now on every opening of a connection fails with ERROR_BUSY instead of waiting for them.
void abandon_sqlite() noexcept;
bool is_sqlite_abandoned() noexcept;

class ZRPLATFORM_API Connection {
public:
    Connection() = default;
    ~Connection() { close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    DWORD open(const std::string& path);
    void close();
    // Whether close() copies the journal into the file and removes it, where nobody else has the file open: not when it
    // is closed for a fork, nor when the file is not the store any more or the journal not its own.
    void checkpoint_on_close(bool wanted);
    // Leaves the connection as it is and forgets it: in a child made by fork, whose parent is in the middle of a
    // change. What is called after that fails with ERROR_BUSY.
    void abandon() noexcept;
    DWORD execute(const char* sql);
    // Others are waited for, as a connection does at first, or not at all.
    void wait_when_busy(bool wait) noexcept;
    // The statement for `sql`, a literal, prepared once. Empty on failure, which error() then describes.
    Use use(const char* sql);
    // Runs a statement that returns nothing.
    DWORD run(Use& statement);
    // The first column of the first row of a literal's result; `otherwise` when there is no row.
    DWORD scalar(const char* sql, LONGLONG& value, LONGLONG otherwise = 0);
    // Ends a transaction that is open.
    void roll_back();
    LONGLONG changes() const { return sqlite3_changes64(db_); }
    bool is_open() const { return db_ != nullptr; }
    // Whether an error since open() was damage.
    bool met_damage() const { return met_damage_; }
    // How often a change was larger than the room for it in memory.
    int spills() const;
    bool in_transaction() const { return db_ != nullptr && sqlite3_get_autocommit(db_) == 0; }
    sqlite3* handle() { return db_; }

    // What the last failing call means: ERROR_DISK_FULL, ERROR_BUSY (after five seconds), ERROR_FILE_CORRUPT (a mark is
    // then left for the next opening of the store, see store_file.h), ERROR_ACCESS_DENIED, ERROR_IO_DEVICE,
    // ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY or ERROR_GEN_FAILURE.
    DWORD error();
    // Rows that cannot be so were read: error() then says that the store is damaged.
    void met_wrong_rows() { wrong_rows_ = true; }
    // The same as a sentence about "the contact store" or whatever `store` says; after error().
    std::string sentence(std::string_view store) const;

private:
    sqlite3* db_ = nullptr;
    std::string path_;
    std::string reason_;
    bool met_damage_ = false;
    bool abandoned_ = false;
    bool wrong_tables_ = false;
    bool wrong_rows_ = false;
    std::unordered_map<const char*, std::unique_ptr<Statement>> statements_;
};

}  // namespace zr::platform
