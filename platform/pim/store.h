#pragma once

// The contact store as one process sees it: a connection that reads, what was read lately, and one that writes.
//
// Freshness. Every read first asks whether anything was committed (commit_watch.h). If not, the cache holds. Otherwise
// the change log says what happened since, and what it names is dropped. The cache is thus never older than a commit
// that came before the read.
//
// Locks. `lock()` guards the reading side. The right to write is one per process (Transaction); it is taken before,
// never while, the reading side is locked.

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "contact_rows.h"
#include "database.h"
#include "fields.h"
#include "keys.h"
#include "signal_file.h"
#include "store/commit_watch.h"
#include "values.h"

namespace zr::platform::pim {

class Notifier;

enum class ChangeKind : LONG { Created = 0, Deleted = 1, Changed = 2, Folder = 3 };

struct Change {
    LONGLONG seq;
    ChangeKind kind;
    LONG oid;
    DWORD origin;
};

// An occurrence that was changed or deleted.
struct ExceptionDay {
    LONG day;
    bool deleted;
};
struct ExceptionFields {
    bool exists = false;
    bool deleted = false;
    Values values;
};

class Store {
public:
    // The process's store for the present ZR_HOME, opened if need be.
    static HRESULT join(std::shared_ptr<Store>& store);
    Store();
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    const std::string& path() const { return path_; }
    DWORD origin() const { return origin_; }
    SignalFile& signal() { return signal_; }
    Notifier& notifier() { return *notifier_; }

    // --- reading; all of these with the lock held ---
    std::unique_lock<std::mutex> lock() { return std::unique_lock(mutex_); }
    // Takes notice of every commit up to now.
    HRESULT refresh();
    LONGLONG seq() const { return seq_; }
    // The changes behind `seq` that are still at hand, in order; false when some are not.
    bool recent(LONGLONG seq, std::vector<Change>& changes) const;
    // From the log itself, at most `limit`.
    HRESULT logged(LONGLONG seq, int limit, std::vector<Change>& changes);
    // The identifiers of a folder in their order, and the change up to which that holds.
    HRESULT oids(INT folder, std::vector<LONG>& oids, LONGLONG& seq);
    // Calls `visit(oid, key)` with the key (keys.h) of a field of every item of a folder that has it.
    template <class Visitor>
    HRESULT each_key(INT folder, CEPROPID id, Visitor visit);
    HRESULT key(LONG oid, CEPROPID id, std::u16string& key);
    HRESULT exists(LONG oid);
    ContactRows& rows() { return rows_; }
    HRESULT value(LONG oid, CEPROPID id, Value& value);
    // All properties of an item, the named fields' only if `named`.
    HRESULT values(LONG oid, bool named, Values& values);
    // A series' changed and deleted occurrences, in the order of their days.
    HRESULT exceptions(LONG oid, std::vector<ExceptionDay>& exceptions);
    // What the exception of a day holds; nothing when there is none.
    HRESULT exception(LONG oid, LONG day, ExceptionFields& exception);
    // Several reads of the store as of one moment, after refresh().
    template <class Reads>
    HRESULT at_once(Reads reads) {
        const HRESULT result = reader_.execute("BEGIN");
        if (FAILED(result)) return result;
        struct End {
            Database& reader;
            ~End() { sqlite3_exec(reader.handle(), "COMMIT", nullptr, nullptr, nullptr); }
        } const end{reader_};
        return reads();
    }

private:
    friend class Transaction;
    HRESULT open(const std::string& path);
    void apply(const Change& change);
    void forget_all(LONGLONG seq);

    HRESULT take_write_right();
    void give_write_right();

    static constexpr std::size_t kRecentChanges = 8192;

    std::string path_;
    DWORD origin_ = 0;
    SignalFile signal_;
    std::unique_ptr<Notifier> notifier_;

    std::mutex mutex_;
    Database reader_;
    CommitWatch commits_;
    CommitWatch::Stamp stamp_;
    bool stamp_known_ = false;
    LONGLONG seq_ = 0;
    std::deque<Change> recent_;
    ContactRows rows_{reader_};

    std::mutex write_mutex_;
    std::condition_variable write_free_;
    bool writing_ = false;
    std::thread::id writing_thread_;
    std::unique_ptr<Database> writer_;
};

// A write transaction; rolled back unless committed.
class Transaction {
public:
    Transaction() = default;
    ~Transaction() { rollback(); }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    HRESULT begin(Store& store);
    bool open() const { return store_ != nullptr; }
    // Keeps everything, wakes the watchers, reports to this process's windows. On failure nothing is kept.
    HRESULT commit();
    void rollback();

    // A failure other than kGone leaves the transaction good for nothing but a rollback.
    HRESULT insert(INT folder, const Values& values, LONG& oid);
    HRESULT update(LONG oid, const Values& values);
    HRESULT remove(LONG oid);
    HRESULT update_folder(INT folder, const Values& values);
    // An occurrence of a series: its own fields, its removal. kGone: the series does not occur on that day.
    HRESULT save_occurrence(LONG oid, LONG day, const Values& values);
    HRESULT remove_occurrence(LONG oid, LONG day);
    HRESULT drop_exceptions(LONG oid);
    bool failed() const { return failed_; }

private:
    HRESULT checked(HRESULT result);
    HRESULT take_oid(INT folder, LONG& oid);
    HRESULT read_next(INT folder);
    HRESULT write_next();
    HRESULT insert_contact(LONG oid, const Values& values);
    HRESULT update_contact(LONG oid, const Values& values);
    HRESULT write_properties(LONG oid, const Values& values);
    HRESULT check_occurrence(LONG oid, LONG day);
    HRESULT write_exception(LONG oid, LONG day, CEPROPID id, const Value& value);
    HRESULT log(ChangeKind kind, LONG oid);
    HRESULT prune();

    Store* store_ = nullptr;
    Database* db_ = nullptr;
    LONGLONG first_seq_ = 0;
    LONGLONG seq_ = 0;
    INT next_folder_ = 0;  // next_ is this folder's lowest identifier never used; 0: of none
    LONG next_ = 0;
    LONG read_next_ = 0;   // what the store has of it
    INT full_folder_ = 0;  // this folder has no free identifier below the next new one
    bool failed_ = false;
};

// A value as the store keeps it: text and bytes look alike there, the identifier says which it is.
Value read_value(const Statement& row, int column, CEPROPID id);
// On either connection.
HRESULT read_values(Database& database, LONG oid, bool named, Values& values);
HRESULT read_exception(Database& database, LONG oid, LONG day, ExceptionFields& exception);

template <class Visitor>
HRESULT Store::each_key(INT folder, CEPROPID id, Visitor visit) {
    const bool column = is_column(id) && folder == olFolderContacts;
    const std::string sql =
        column ? std::string("SELECT oid, ") + kColumnNames[column_of(id)] + " FROM contact WHERE oid BETWEEN ?1 AND ?2"
               : "SELECT oid, value FROM property WHERE oid BETWEEN ?1 AND ?2 AND id = " + std::to_string(id);
    sqlite3_stmt* prepared = nullptr;
    if (sqlite3_prepare_v2(reader_.handle(), sql.c_str(), -1, &prepared, nullptr) != SQLITE_OK) return reader_.result();
    Statement statement(prepared);
    statement.bind(1, first_oid(folder));
    statement.bind(2, last_oid(folder));
    int code;
    while ((code = statement.step()) == SQLITE_ROW) {
        const auto oid = static_cast<LONG>(statement.integer(0));
        if (type_of(id) == CEVT_LPWSTR) {
            visit(oid, text_key(statement.text(1)));
        } else {
            const Value value = read_value(statement, 1, id);
            visit(oid, key_of(id, &value));
        }
    }
    return code == SQLITE_DONE ? S_OK : reader_.result();
}

}  // namespace zr::platform::pim
