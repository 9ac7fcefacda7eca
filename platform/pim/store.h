#pragma once

// The contact store as one process sees it: what was read lately is kept in a cache, behind the store's reading lock,
// and what the change log names is dropped from it. The cache is thus never older than a commit that came before the
// read.

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "contact_rows.h"
#include "database.h"
#include "fields.h"
#include "keys.h"
#include "own_commits.h"
#include "store/shared_store.h"
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

class Store final : public StoreFamily {
public:
    // The process's store for the present ZR_HOME, opened if need be.
    static HRESULT join(std::shared_ptr<Store>& store);
    explicit Store(std::string path);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    SharedStore& shared() { return shared_; }
    Notifier& notifier() { return *notifier_; }

    // --- reading; all of these with the lock held ---
    std::unique_lock<std::mutex> lock() { return shared_.lock(); }
    // Takes notice of every commit up to now.
    HRESULT refresh() { return store_result(shared_.refresh()); }
    LONGLONG seq() const { return shared_.position(); }
    // Counts the files that were the store; what is known of another one's items holds no longer.
    LONG generation() const { return generation_.load(std::memory_order_relaxed); }
    // Takes notice of changes that follow the last one that it knows.
    void apply(const std::vector<Change>& changes);
    // The changes behind `seq` that are still at hand, in order; false when some are not.
    bool recent(LONGLONG seq, std::vector<Change>& changes) const;
    // Whether an item was deleted behind `seq`, as far as the changes are at hand. The identifier may be in use again.
    bool deleted_since(LONGLONG seq, LONG oid) const;
    // From the log itself, at most `limit`.
    HRESULT logged(LONGLONG seq, int limit, std::vector<Change>& changes);
    OwnCommits& own_commits() { return own_commits_; }
    // The identifiers of a folder in their order, and the change up to which that holds.
    HRESULT oids(INT folder, std::vector<LONG>& oids, LONGLONG& seq);
    // Calls `visit(oid, key)` with the key (keys.h) of a field of every item of a folder that has it.
    template <class Visitor>
    HRESULT each_key(INT folder, CEPROPID id, Visitor visit);
    HRESULT key(LONG oid, CEPROPID id, std::u16string& key);
    HRESULT exists(LONG oid);
    // The first item behind `after` with this lasting identifier, or without any where it is empty; 0: none.
    HRESULT with_uid(INT folder, std::u16string_view uid, LONG after, LONG& oid);
    // The first contact behind `after` with this address, ignoring case as _wcsicmp does; 0: none.
    HRESULT with_email(std::u16string_view address, LONG after, LONG& oid);
    // The change in which the item was made.
    HRESULT born(LONG oid, LONGLONG& seq);
    ContactRows& rows() { return rows_; }
    HRESULT value(LONG oid, CEPROPID id, Value& value);
    // All properties of an item, the named fields' only if `named`.
    HRESULT values(LONG oid, bool named, Values& values);
    // A series' changed and deleted occurrences, in the order of their days.
    HRESULT exceptions(LONG oid, std::vector<ExceptionDay>& exceptions);
    // What the exception of a day holds; nothing when there is none.
    HRESULT exception(LONG oid, LONG day, ExceptionFields& exception);
    // Several reads of the store as of one moment, after refresh(). May be nested.
    template <class Reads>
    HRESULT at_once(Reads reads) {
        if (reader_.in_transaction()) return reads();
        Use begin = reader_.use("BEGIN");
        if (const HRESULT result = reader_.run(begin); FAILED(result)) return result;
        struct End {
            Database& reader;
            ~End() { sqlite3_exec(reader.handle(), "COMMIT", nullptr, nullptr, nullptr); }
        } const end{reader_};
        return reads();
    }

    void opened(bool another) override;
    DWORD follow(LONGLONG position) override;
    void forget() noexcept override;
    void failed(std::string_view sentence) noexcept override;
    void was_set_aside(std::string_view sentence) noexcept override { failed(sentence); }

private:
    static constexpr std::size_t kRecentChanges = 8192;

    SharedStore shared_;
    Database reader_{shared_.reader()};
    std::atomic<LONG> generation_{0};
    std::unique_ptr<Notifier> notifier_;

    // Guarded by the reading lock.
    std::deque<Change> recent_;
    OwnCommits own_commits_;
    ContactRows rows_{reader_};
};

// A write transaction; rolled back unless committed.
class Transaction {
public:
    Transaction() = default;
    ~Transaction() { rollback(); }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    HRESULT begin(Store& store);
    bool open() const { return writing_.is_open(); }
    // Keeps everything, wakes the watchers, reports to this process's windows. On failure nothing is kept.
    HRESULT commit();
    void rollback() { writing_.roll_back(); }

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
    HRESULT insert_contact(LONG oid, const Values& values, LONGLONG born);
    HRESULT update_contact(LONG oid, const Values& values);
    HRESULT write_properties(LONG oid, const Values& values);
    HRESULT check_occurrence(LONG oid, LONG day);
    HRESULT write_exception(LONG oid, LONG day, CEPROPID id, const Value& value);
    HRESULT next_seq(LONGLONG& seq);
    HRESULT log(ChangeKind kind, LONG oid);
    HRESULT log(ChangeKind kind, LONG oid, LONGLONG seq);

    Store* store_ = nullptr;
    StoreWriting writing_;
    std::optional<Database> db_;
    INT next_folder_ = 0;  // next_ is this folder's lowest identifier never used; 0: of none
    LONG next_ = 0;
    LONG read_next_ = 0;           // what the store has of it
    std::vector<Change> changes_;  // that were logged
    INT full_folder_ = 0;          // this folder has no free identifier below the next new one
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
