// Examining stores, backing them up, bringing them back (platform/stores.h).

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <list>
#include <new>
#include <string>
#include <vector>

#include "base/file_lock.h"
#include "base/host_fd.h"
#include "base/private_file.h"
#include "base/size_limit.h"
#include "base/state_folder.h"
#include "platform/errors.h"
#include "platform/stores.h"
#include "store/bell.h"
#include "store/checked_file.h"
#include "store/store_file.h"

namespace zr::platform {
namespace {

constinit std::array<const StoreKind*, kMostStoreKinds> kinds = {};

constinit thread_local char text[1024] = {};

DWORD say(DWORD error, const std::string& sentence) {
    const std::size_t length = std::min(sentence.size(), sizeof text - 1);
    std::memcpy(text, sentence.data(), length);
    text[length] = 0;
    return error;
}

DWORD host_failure(const std::string& path, int error) {
    return say(store_error(error), path + ": " + file_trouble(path, error) + ".");
}

DWORD failure(Connection& connection, const StoreKind& kind) {
    const DWORD error = connection.error();
    return say(error, connection.sentence(kind.name));
}

const StoreKind* find_kind(LPCSTR id) {
    for (const StoreKind* kind : kinds) {
        if (kind != nullptr && id != nullptr && std::strcmp(kind->id, id) == 0) return kind;
    }
    say(ERROR_INVALID_NAME, std::string("There is no store of the name ") + (id == nullptr ? "" : id) + ".");
    return nullptr;
}

// The kind that a file's header names, or its own name where the header is damaged.
const StoreKind* kind_of(const std::string& path) {
    unsigned char header[100] = {};
    const HostFd file = open_host(path.c_str(), O_RDONLY);
    if (!file || pread(file.get(), header, sizeof header, 0) <= 0) return nullptr;
    const LONGLONG number = static_cast<LONGLONG>(header[68]) << 24 | header[69] << 16 | header[70] << 8 | header[71];
    const std::string name = path.substr(path.rfind('/') + 1);
    for (const StoreKind* kind : kinds) {
        if (kind != nullptr && kind->application_id == number) return kind;
    }
    for (const StoreKind* kind : kinds) {
        if (kind != nullptr && name.starts_with(kind->file)) return kind;
    }
    return nullptr;
}

// Removes files when it ends: what was begun and not finished.
class Leftovers {
public:
    ~Leftovers() {
        for (const std::string& path : paths_) {
            for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
                unlink((path + suffix).c_str());
            }
        }
    }
    Leftovers() = default;
    Leftovers(const Leftovers&) = delete;
    Leftovers& operator=(const Leftovers&) = delete;
    void add(const std::string& path) { paths_.push_back(path); }

private:
    std::vector<std::string> paths_;
};

// A store that is in its place, whole.
DWORD open_in_place(const StoreKind& kind, std::string& path, Bell& bell, Connection& connection) {
    const Folder folder = state_folder();
    if (!folder) return say(folder.error, folder.message);
    path = folder.path + "/" + kind.file;
    if (access(path.c_str(), F_OK) != 0) return say(ERROR_FILE_NOT_FOUND, path + ": " + std::strerror(errno) + ".");
    if (const int error = bell.make(path); error != 0) return host_failure(bell.path(), error);
    const StoreOpening opening = open_store(kind, path, bell, connection);
    return opening ? ERROR_SUCCESS : say(opening.error, opening.message);
}

// Makes a file, ours alone, that is not there yet.
DWORD make_new(const std::string& path) {
    const HostFd file = open_host(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    return file ? ERROR_SUCCESS : host_failure(path, errno);
}

// What was written at `part` gets its name, on the disk, if that is still free.
DWORD finish(const std::string& part, const std::string& path) {
    const HostFd file = open_host(part.c_str(), O_RDWR | O_NOFOLLOW);
    if (!file || fsync(file.get()) != 0) return host_failure(part, errno);
    if (renameat2(AT_FDCWD, part.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) return ERROR_SUCCESS;
    if (errno == EEXIST) return say(ERROR_FILE_EXISTS, path + " is there already.");
    return host_failure(path, errno);
}

// All pages as of one moment. The reader's and the copy's pages are of one size.
DWORD copy_pages(const StoreKind& kind, Connection& from, const std::string& path) {
    LONGLONG page_size = 0;
    if (from.scalar("PRAGMA page_size", page_size) != ERROR_SUCCESS) return failure(from, kind);
    Connection to;
    if (to.open(path) != ERROR_SUCCESS) return failure(to, kind);
    if (expect_pages(to.handle(), static_cast<int>(page_size)) != SQLITE_OK) return failure(to, kind);
    sqlite3_backup* const copy = sqlite3_backup_init(to.handle(), "main", from.handle(), "main");
    if (copy == nullptr) return failure(to, kind);
    sqlite3_backup_step(copy, -1);
    // The result is kept by the copy's connection, also where it was the other one that failed to read.
    if (sqlite3_backup_finish(copy) != SQLITE_OK) return failure(to, kind);
    return ERROR_SUCCESS;
}

DWORD back_up(const StoreKind& kind, const std::string& to) {
    if (access(to.c_str(), F_OK) == 0) return say(ERROR_FILE_EXISTS, to + " is there already.");
    std::string path;
    Bell bell;
    Connection connection;
    if (const DWORD error = open_in_place(kind, path, bell, connection); error != ERROR_SUCCESS) return error;
    Leftovers leftovers;
    const std::string part = to + ".part";
    if (const DWORD error = make_new(part); error != ERROR_SUCCESS) return error;
    leftovers.add(part);
    if (const DWORD error = copy_pages(kind, connection, part); error != ERROR_SUCCESS) return error;
    return finish(part, to);
}

// The file's bytes; 0 when it cannot be asked.
ULONGLONG length_of(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? static_cast<ULONGLONG>(status.st_size) : 0;
}

DWORD compact(const StoreKind& kind, ULONGLONG& freed) {
    std::string path;
    Bell bell;
    Connection connection;
    if (const DWORD error = open_in_place(kind, path, bell, connection); error != ERROR_SUCCESS) return error;
    // As every writer, so that nobody renames the store meanwhile.
    Bell::Pull pull;
    if (const int error = pull.take(bell); error != 0) return host_failure(bell.path(), error);
    int moved = 0;
    sqlite3_file_control(connection.handle(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    if (moved != 0) return say(ERROR_BUSY, path + " was replaced just now.");
    const WithinSizeLimit no_signal;
    // What is in the journal belongs to the file.
    static_cast<void>(connection.execute("PRAGMA wal_checkpoint(PASSIVE)"));
    const ULONGLONG before = length_of(path);
    const FilesBeside here(path.c_str());
    if (connection.execute("VACUUM") != ERROR_SUCCESS) return failure(connection, kind);
    static_cast<void>(connection.execute("PRAGMA wal_checkpoint(PASSIVE)"));
    const ULONGLONG after = length_of(path);
    freed = before > after ? before - after : 0;
    return ERROR_SUCCESS;
}

// --- bringing back ---

DWORD copy_file(const std::string& from, const std::string& to) {
    const HostFd source = open_host(from.c_str(), O_RDONLY);
    if (!source) return host_failure(from, errno);
    const HostFd target = open_host(to.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (!target) return host_failure(to, errno);
    std::vector<char> buffer(std::size_t{1} << 20);
    const WithinSizeLimit no_signal;
    for (ssize_t got = 0; (got = ::read(source.get(), buffer.data(), buffer.size())) != 0;) {
        if (got < 0) return host_failure(from, errno);
        for (ssize_t done = 0; done < got;) {
            const ssize_t written = ::write(target.get(), buffer.data() + done, static_cast<std::size_t>(got - done));
            if (written < 0) return host_failure(to, errno);
            done += written;
        }
    }
    return ERROR_SUCCESS;
}

// Reads a table in the order of its key, and goes on behind what cannot be read.
class Salvage {
public:
    // The statements' texts are kept in `texts`: a connection knows a statement by where its text stands.
    Salvage(Connection& from, Connection& to, const StoreTable& table, std::list<std::string>& texts)
        : from_(from), to_(to), table_(table), select_(texts.emplace_back()), insert_(texts.emplace_back()) {}

    // ERROR_SUCCESS, also when nothing was readable; or why nothing can be written.
    DWORD run(ULONGLONG& rows) {
        if (!prepare()) {
            is_whole_ = is_of_later_version();
            return ERROR_SUCCESS;
        }
        LONGLONG next = kFirst;
        while (next != kNoMore) {
            if (const DWORD error = take_from(next, next); error != ERROR_SUCCESS) return error;
        }
        rows += rows_;
        return ERROR_SUCCESS;
    }

    // Which rows of the table could not be read; empty when all could.
    std::string left_out() const {
        if (is_whole_) return {};
        return std::string(table_.name) + (rows_ == 0 ? "" : " (in part)");
    }

private:
    static constexpr LONGLONG kFirst = -(LONGLONG{1} << 62);
    static constexpr LONGLONG kNoMore = LONGLONG{1} << 62;

    std::vector<std::string> columns_of(Connection& connection) const {
        std::vector<std::string> columns;
        sqlite3_stmt* info = nullptr;
        const std::string sql = std::string("SELECT name FROM pragma_table_info('") + table_.name + "')";
        if (sqlite3_prepare_v2(connection.handle(), sql.c_str(), -1, &info, nullptr) != SQLITE_OK) return columns;
        while (sqlite3_step(info) == SQLITE_ROW) {
            columns.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(info, 0)));
        }
        sqlite3_finalize(info);
        return columns;
    }

    // The file's tables can be read, and this is none of them.
    bool is_of_later_version() {
        LONGLONG tables = 0;
        LONGLONG same = 0;
        const std::string& count = select_ =
            std::string("SELECT count(*) FROM sqlite_master WHERE name = '") + table_.name + "'";
        return from_.scalar("SELECT count(*) FROM sqlite_master", tables) == ERROR_SUCCESS && tables > 0 &&
               from_.scalar(count.c_str(), same) == ERROR_SUCCESS && same == 0;
    }

    // The columns that the table has in both: an older version's has fewer.
    bool prepare() {
        std::string columns;
        std::string places;
        const std::vector<std::string> there = columns_of(from_);
        for (const std::string& column : columns_of(to_)) {
            if (std::find(there.begin(), there.end(), column) == there.end()) continue;
            columns += (columns.empty() ? "" : ", ") + column;
            places += places.empty() ? "?" : ", ?";
            ++columns_;
        }
        select_ = std::string("SELECT ") + columns + ", " + table_.key + " FROM " + table_.name + " WHERE " +
                  table_.key + " >= ?1 ORDER BY " + table_.key;
        insert_ = std::string("INSERT OR IGNORE INTO ") + table_.name + "(" + columns + ") VALUES(" + places + ")";
        return columns_ > 0 && from_.use(select_.c_str());
    }

    // Takes rows from a key on until one cannot be read; `next` is where others are.
    DWORD take_from(LONGLONG first, LONGLONG& next) {
        LONGLONG last = first - 1;
        {
            const Use rows = from_.use(select_.c_str());
            rows->bind(1, first);
            int code;
            while ((code = rows->step()) == SQLITE_ROW) {
                last = rows->integer(columns_);
                if (const DWORD error = put(rows); error != ERROR_SUCCESS) return error;
            }
            if (code == SQLITE_DONE) {
                next = kNoMore;
                return ERROR_SUCCESS;
            }
        }
        is_whole_ = false;
        next = behind(std::max(last, first));
        return ERROR_SUCCESS;
    }

    bool is_readable(LONGLONG key) {
        const Use rows = from_.use(select_.c_str());
        if (!rows) return false;
        rows->bind(1, key);
        const int code = rows->step();
        return code == SQLITE_ROW || code == SQLITE_DONE;
    }

    // The first key behind `bad` from which rows can be read.
    LONGLONG behind(LONGLONG bad) {
        LONGLONG good = kNoMore;
        for (LONGLONG stride = 1; stride < kNoMore && bad < kNoMore - stride; stride *= 2) {
            if (is_readable(bad + stride)) {
                good = bad + stride;
                break;
            }
            bad += stride;
        }
        while (good != kNoMore && good - bad > 1) {
            const LONGLONG middle = bad + (good - bad) / 2;
            (is_readable(middle) ? good : bad) = middle;
        }
        return good;
    }

    DWORD put(const Use& row) {
        Use statement = to_.use(insert_.c_str());
        if (!statement) return to_.error();
        for (int i = 0; i < columns_; ++i) {
            row->copy(i, *statement, i + 1);
        }
        const DWORD error = to_.run(statement);
        if (error == ERROR_SUCCESS) ++rows_;
        return error;
    }

    Connection& from_;
    Connection& to_;
    const StoreTable& table_;
    std::string& select_;
    std::string& insert_;
    int columns_ = 0;
    ULONGLONG rows_ = 0;
    bool is_whole_ = true;
};

// What is in the journal of another file, or of another moment of this one, does not fit what the file has.
bool has_foreign_journal(Connection& connection) {
    LONGLONG tables = 0;
    bool fits = true;
    StoreMarks marks = {};
    static_cast<void>(connection.scalar("SELECT count(*) FROM sqlite_master", tables));
    return read_marks(connection.handle(), marks) == SQLITE_OK && marks.legible &&
           journal_fits(connection.handle(), fits) == SQLITE_OK && !fits;
}

// `path` is a copy.
DWORD open_damaged(const StoreKind& kind, const std::string& path, Connection& connection) {
    if (connection.open(path) != ERROR_SUCCESS) return failure(connection, kind);
    connection.checkpoint_on_close(false);
    if (!has_foreign_journal(connection)) return ERROR_SUCCESS;
    connection.close();
    unlink((path + "-wal").c_str());
    return connection.open(path) == ERROR_SUCCESS ? ERROR_SUCCESS : failure(connection, kind);
}

DWORD salvage(const StoreKind& kind, const std::string& from, const std::string& to, ULONGLONG& rows) {
    Connection source;
    Connection target;
    if (const DWORD error = open_damaged(kind, from, source); error != ERROR_SUCCESS) return error;
    if (target.open(to) != ERROR_SUCCESS) return failure(target, kind);
    DWORD error = make_tables(kind, target);
    if (error == ERROR_SUCCESS) error = target.execute("BEGIN IMMEDIATE");
    rows = 0;
    std::list<std::string> texts;
    std::string left_out;
    for (const StoreTable& table : kind.tables) {
        Salvage one(source, target, table, texts);
        if (error == ERROR_SUCCESS) error = one.run(rows);
        if (const std::string some = one.left_out(); !some.empty()) left_out += (left_out.empty() ? "" : ", ") + some;
    }
    if (error == ERROR_SUCCESS) error = kind.mend(target);
    if (error == ERROR_SUCCESS) error = target.execute("COMMIT");
    if (error != ERROR_SUCCESS) return say(error, target.sentence(kind.name));
    if (rows == 0) return say(ERROR_FILE_CORRUPT, from + ": nothing of it can be read.");
    return left_out.empty() ? ERROR_SUCCESS : say(ERROR_SUCCESS, "Tables that could not be read: " + left_out + ".");
}

// A store in its place is not opened as a file: closing it would end the locks that this process has on it.
bool is_in_place(const std::string& path) {
    const Folder folder = state_folder();
    struct stat wanted = {};
    if (!folder || stat(path.c_str(), &wanted) != 0) return false;
    for (const StoreKind* kind : kinds) {
        struct stat there = {};
        if (kind == nullptr || stat((folder.path + "/" + kind->file).c_str(), &there) != 0) continue;
        if (there.st_dev == wanted.st_dev && there.st_ino == wanted.st_ino) return true;
    }
    return false;
}

DWORD refuse_in_place(const std::string& path) {
    return say(ERROR_SHARING_VIOLATION, path + " is the store that programs use: examine it, or back it up.");
}

DWORD recover(const std::string& from, const std::string& to, ULONGLONG& rows) {
    if (access(from.c_str(), R_OK) != 0) return host_failure(from, errno);
    if (is_in_place(from)) return refuse_in_place(from);
    const StoreKind* const kind = kind_of(from);
    if (kind == nullptr) return say(ERROR_BAD_FORMAT, from + " is no store's file.");
    if (access(to.c_str(), F_OK) == 0) return say(ERROR_FILE_EXISTS, to + " is there already.");
    // SQLite recovers the journal of what it opens: so of a copy.
    Leftovers leftovers;
    const std::string copy = to + ".copy";
    const std::string part = to + ".part";
    leftovers.add(copy);
    DWORD error = copy_file(from, copy);
    if (error == ERROR_SUCCESS && access((from + "-wal").c_str(), R_OK) == 0)
        error = copy_file(from + "-wal", copy + "-wal");
    if (error == ERROR_SUCCESS) error = make_new(part);
    if (error != ERROR_SUCCESS) return error;
    leftovers.add(part);
    error = salvage(*kind, copy, part, rows);
    unlink(suspicion(copy).c_str());
    return error == ERROR_SUCCESS ? finish(part, to) : error;
}

// The store's lock is held: nobody else opens or renames it.
DWORD put_in_place(const StoreKind& kind, const std::string& fresh, const std::string& path) {
    Bell bell;
    if (const int error = bell.make(path); error != 0) return host_failure(bell.path(), error);
    FileLock lock;
    const std::string lock_path = path + ".lock";
    if (const int error = lock.take(lock_path.c_str(), FileLock::Missing::IsMade); error != 0)
        return host_failure(lock_path, error == ETIMEDOUT ? EBUSY : error);
    std::string name;
    if (const int error = replace_store(path, "replaced", fresh, bell, name); error != 0)
        return host_failure(path, error);
    if (access(name.c_str(), F_OK) == 0)
        say(ERROR_SUCCESS, std::string("The ") + kind.name + " so far is now " + name + ".");
    return ERROR_SUCCESS;
}

// The log of the store that comes goes on where none of this name has been, so that everybody begins anew with it.
DWORD number_anew(const StoreKind& kind, const std::string& path) {
    Connection connection;
    if (connection.open(path) != ERROR_SUCCESS) return failure(connection, kind);
    const DWORD error = connection.execute(
        "BEGIN IMMEDIATE;"
        "DELETE FROM change WHERE seq < (SELECT max(seq) FROM change);"
        "UPDATE change SET seq = " ZR_STORE_FIRST_SEQ
        ";"
        "COMMIT");
    if (error != ERROR_SUCCESS) return failure(connection, kind);
    connection.close();
    const HostFd file = open_host(path.c_str(), O_RDWR | O_NOFOLLOW);
    return file && fsync(file.get()) == 0 ? ERROR_SUCCESS : host_failure(path, errno);
}

DWORD restore(const std::string& from) {
    if (access(from.c_str(), R_OK) != 0) return host_failure(from, errno);
    if (is_in_place(from)) return refuse_in_place(from);
    const StoreKind* const kind = kind_of(from);
    if (kind == nullptr) return say(ERROR_BAD_FORMAT, from + " is no store's file.");
    const Folder folder = state_folder();
    if (!folder) return say(folder.error, folder.message);
    const std::string path = folder.path + "/" + kind->file;
    const std::string fresh = path + ".new";
    Leftovers leftovers;
    leftovers.add(fresh);
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        unlink((fresh + suffix).c_str());  // of one who was killed
    }
    DWORD error = copy_file(from, fresh);
    if (error == ERROR_SUCCESS && access((from + "-wal").c_str(), R_OK) == 0)
        error = copy_file(from + "-wal", fresh + "-wal");
    if (error != ERROR_SUCCESS) return error;
    const StoreOpening opening = examine_store(*kind, fresh);
    if (!opening) return say(opening.error, opening.message);
    error = number_anew(*kind, fresh);
    return error == ERROR_SUCCESS ? put_in_place(*kind, fresh, path) : error;
}

// Runs a call; memory that runs out is a result.
LONG guarded(const std::function<DWORD()>& body) noexcept {
    text[0] = 0;
    try {
        return static_cast<LONG>(body());
    } catch (const std::bad_alloc&) {
        return static_cast<LONG>(ERROR_NOT_ENOUGH_MEMORY);
    }
}

}  // namespace

KnownStore::KnownStore(const StoreKind& kind) noexcept {
    *std::find(kinds.begin(), kinds.end() - 1, nullptr) = &kind;
}

}  // namespace zr::platform

using namespace zr::platform;

LPCSTR ZrStoreName(DWORD index) {
    return index < kMostStoreKinds && kinds[index] != nullptr ? kinds[index]->id : nullptr;
}

LONG ZrStoreCheck(LPCSTR store) {
    return guarded([&]() -> DWORD {
        const StoreKind* const kind = find_kind(store);
        if (kind == nullptr) return ERROR_INVALID_NAME;
        const Folder folder = state_folder();
        const std::string file = folder.path + "/" + kind->file;
        // The mark of damage that somebody has met: the opening then reads everything.
        if (folder && access(file.c_str(), F_OK) == 0)
            static_cast<void>(open_private_file(suspicion(file), 0, nullptr));
        std::string path;
        Bell bell;
        Connection connection;
        return open_in_place(*kind, path, bell, connection);
    });
}

LONG ZrStoreBackUp(LPCSTR store, LPCSTR to) {
    return guarded([&]() -> DWORD {
        const StoreKind* const kind = find_kind(store);
        if (kind == nullptr) return ERROR_INVALID_NAME;
        return to == nullptr ? ERROR_INVALID_PARAMETER : back_up(*kind, to);
    });
}

LONG ZrStoreCompact(LPCSTR store, ULONGLONG* freed) {
    return guarded([&]() -> DWORD {
        const StoreKind* const kind = find_kind(store);
        if (kind == nullptr) return ERROR_INVALID_NAME;
        ULONGLONG bytes = 0;
        const DWORD error = compact(*kind, bytes);
        if (freed != nullptr) *freed = bytes;
        return error;
    });
}

LONG ZrStoreRecover(LPCSTR from, LPCSTR to, ULONGLONG* items) {
    return guarded([&]() -> DWORD {
        if (from == nullptr || to == nullptr) return ERROR_INVALID_PARAMETER;
        ULONGLONG rows = 0;
        const DWORD error = recover(from, to, rows);
        if (items != nullptr) *items = rows;
        return error;
    });
}

LONG ZrStoreRestore(LPCSTR from) {
    return guarded([&]() -> DWORD { return from == nullptr ? ERROR_INVALID_PARAMETER : restore(from); });
}

LONG ZrStoreIdentity(LPCSTR store, ULONGLONG* identity) {
    return guarded([&]() -> DWORD {
        const StoreKind* const kind = find_kind(store);
        if (kind == nullptr) return ERROR_INVALID_NAME;
        if (identity == nullptr) return ERROR_INVALID_PARAMETER;
        const Folder folder = state_folder();
        if (!folder) return say(folder.error, folder.message);
        const std::string path = folder.path + "/" + kind->file;
        struct stat status = {};
        if (stat(path.c_str(), &status) != 0) return host_failure(path, errno);
        *identity = status.st_ino;
        return ERROR_SUCCESS;
    });
}

LPCSTR ZrStoreLastErrorText() {
    return text;
}
