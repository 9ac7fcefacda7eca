#include "store/shared_store.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "base/forks.h"
#include "base/private_file.h"
#include "base/size_limit.h"
#include "base/state_folder.h"
#include "store/checked_file.h"

namespace zr::platform {

// All stores of the process, for what concerns the whole process: forks and its end.
class StoreForks {
public:
    static void add(SharedStore& store) {
        const std::lock_guard lock(mutex());
        all().push_back(&store);
        static const int registered = std::atexit(&StoreForks::at_exit);
        static_cast<void>(registered);
    }
    static void remove(SharedStore& store) {
        const std::lock_guard lock(mutex());
        std::erase(all(), &store);
    }

    static void before() noexcept {
        mutex().lock();
        for (SharedStore* store : all()) {
            store->before_fork();
        }
        lock_store_listener();
    }
    static void in_parent() noexcept {
        unlock_store_listener();
        for (SharedStore* store : all()) {
            store->after_fork();
        }
        mutex().unlock();
    }
    static void in_child() noexcept {
        unlock_store_listener_in_child();
        for (SharedStore* store : all()) {
            store->after_fork_in_child();
        }
        mutex().unlock();
    }

private:
    static std::mutex& mutex() noexcept {
        static constinit std::mutex all_mutex;
        return all_mutex;
    }
    // Never destroyed: stores may end in a static object's destructor.
    static std::vector<SharedStore*>& all() noexcept {
        alignas(std::vector<SharedStore*>) static char place[sizeof(std::vector<SharedStore*>)];
        static auto* const stores = new (place) std::vector<SharedStore*>;
        return *stores;
    }
    static void at_exit() {
        const std::unique_lock lock(mutex(), std::try_to_lock);
        if (!lock.owns_lock()) return;
        for (SharedStore* store : all()) {
            store->rest();
        }
    }
};

namespace {

const AtFork at_fork{ForkRank::Store,
                     {&StoreForks::before, &StoreForks::in_parent, &StoreForks::in_child, &resume_store_listener}};

constexpr std::chrono::seconds kPatience{5};
// The log keeps at least this many changes, so that who reads them seldom has to start over.
constexpr LONGLONG kKeptChanges = 8192;
constexpr LONGLONG kPruneEvery = 1024;

// So many free pages are kept for what comes, however small the store is.
constexpr LONGLONG kFreePages = 256;
// What is left is written anew while others wait to write, so that it must not be much.
constexpr LONGLONG kMostPagesMoved = 8192;

int flush_folder(const std::string& path) {
    const HostFd folder = open_host(path.c_str(), O_RDONLY | O_DIRECTORY);
    return folder && fsync(folder.get()) == 0 ? 0 : errno;
}

// A file is only as durable as the entries of the folders on the way to it. The ones that are not ours need not let us.
void flush_folders_above(std::string path) {
    for (std::size_t end = path.rfind('/'); end != std::string::npos && end != 0; end = path.rfind('/')) {
        path.resize(end);
        flush_folder(path);
    }
}

// Kinds of which this process, a child made by fork, has connections that are its parent's: SQLite's own tables of
// locks are wrong for their files, for good.
constinit std::array<std::atomic<const StoreKind*>, kMostStoreKinds> orphaned_kinds{};

bool is_orphaned(const StoreKind& kind) {
    return is_sqlite_abandoned() || std::any_of(orphaned_kinds.begin(), orphaned_kinds.end(), [&](const auto& orphan) {
               return orphan.load(std::memory_order_relaxed) == &kind;
           });
}

void orphan(const StoreKind& kind) noexcept {
    if (is_orphaned(kind)) return;
    for (auto& place : orphaned_kinds) {
        const StoreKind* none = nullptr;
        if (place.compare_exchange_strong(none, &kind)) return;
    }
}

std::string folder_of(const std::string& file) {
    return file.substr(0, file.rfind('/'));
}

DWORD new_origin() noexcept {
    DWORD origin = 0;
    if (getrandom(&origin, sizeof origin, 0) != sizeof origin) origin = static_cast<DWORD>(getpid());
    return origin & 0x7FFFFFFF;
}

// Whether the file that the connection has open has lost its name.
bool has_moved(Connection& connection) {
    int moved = 0;
    return sqlite3_file_control(connection.handle(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved != 0;
}

// While it lives everything is read as it was at one moment: what one commit changed is seen whole.
class Snapshot {
public:
    explicit Snapshot(Connection& reader) : reader_(reader) {
        Use begin = reader_.use("BEGIN");
        begun_ = reader_.run(begin) == ERROR_SUCCESS;
    }
    ~Snapshot() { reader_.roll_back(); }
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;
    explicit operator bool() const { return begun_; }

private:
    Connection& reader_;
    bool begun_;
};

}  // namespace

DWORD SharedStore::path_of(const StoreKind& kind, std::string& path, std::string& trouble) {
    const Folder folder = state_folder();
    if (folder) {
        path = folder.path + "/" + kind.file;
    } else {
        trouble = folder.message;
    }
    return folder.error;
}

SharedStore::SharedStore(const StoreKind& kind, StoreFamily& family, std::string path)
    : kind_(kind), family_(family), path_(std::move(path)), origin_(new_origin()) {
    StoreForks::add(*this);
}

SharedStore::~SharedStore() {
    rest();
    StoreForks::remove(*this);
}

DWORD SharedStore::fail(DWORD error, std::string_view sentence) {
    family_.failed(sentence);
    return error;
}

DWORD SharedStore::fail(Connection& connection) {
    const DWORD error = connection.error();
    return fail(error, connection.sentence(kind_.name));
}

DWORD SharedStore::host_failure(const std::string& path, int number) {
    return fail(store_error(number),
                std::string("The ") + kind_.name + " " + path + ": " + file_trouble(path, number) + ".");
}

SharedStore::File SharedStore::file_at(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? File{status.st_dev, status.st_ino} : File{};
}

bool SharedStore::is_replaced() const {
    return !(file_at(path_) == file_);
}

// Nobody closes a store that somebody else has open.
bool SharedStore::is_overwritten() {
    StoreMarks marks = {};
    return read_marks(reader_.handle(), marks) == SQLITE_OK && marks.legible && marks.journal == JournalState::Closed &&
           marks.name != 0 && !(closed_before_ && marks.name == closed_name_);
}

// --- reading ---

DWORD SharedStore::join() {
    const auto reading = lock();
    if (access(suspicion(path_).c_str(), F_OK) == 0) suspect_.store(true, std::memory_order_relaxed);
    return refresh();
}

DWORD SharedStore::catch_up() {
    stamp_known_ = false;
    if (!ready_ || is_suspect() || is_replaced() || is_overwritten()) {
        if (const DWORD error = open(); error != ERROR_SUCCESS) return error;
    }
    CommitWatch::Stamp now;
    const bool known = commits_.look(now);
    DWORD error = ERROR_NOT_ENOUGH_MEMORY;
    try {
        error = follow();
    } catch (const std::bad_alloc&) {
    }
    if (error != ERROR_SUCCESS) {
        family_.forget();
        followed_ = false;
        return error;
    }
    // The stamp from before the reading: what came after it will show next time.
    stamp_ = now;
    stamp_known_ = known;
    return ERROR_SUCCESS;
}

DWORD SharedStore::follow() {
    const Snapshot snapshot(reader_);
    if (!snapshot) return fail(reader_);
    LONGLONG last = 0;
    if (reader_.scalar("SELECT max(seq) FROM change", last) != ERROR_SUCCESS) return fail(reader_);
    if (followed_ && last == position_) return ERROR_SUCCESS;
    LONGLONG first = 0;
    if (reader_.scalar("SELECT min(seq) FROM change", first) != ERROR_SUCCESS) return fail(reader_);
    const bool at_hand = followed_ && position_ < last && first <= position_ + 1 && last - position_ <= kKeptChanges;
    if (at_hand) {
        if (const DWORD error = family_.follow(position_); error != ERROR_SUCCESS) return error;
    } else {
        family_.forget();
    }
    position_ = last;
    followed_ = true;
    return ERROR_SUCCESS;
}

void SharedStore::close_reader() noexcept {
    ready_ = false;
    stamp_known_ = false;
    commits_.detach();
    reader_.close();
    journal_.reset();
    flushed_known_ = false;
    folder_flushed_ = false;
}

DWORD SharedStore::open() {
    if (is_orphaned(kind_))
        return fail(ERROR_BUSY,
                    std::string("The ") + kind_.name + " " + path_ +
                        (is_sqlite_abandoned() ? ": another thread was changing a store" : ": it was being changed") +
                        " when this process was forked.");
    close_reader();
    if (path_.empty()) {
        std::string trouble;
        if (const DWORD error = path_of(kind_, path_, trouble); error != ERROR_SUCCESS) return fail(error, trouble);
    }
    if (const int error = bell_.make(path_); error != 0) return host_failure(bell_.path(), error);
    StoreOpening opening;
    if (const DWORD error = open_file(opening); error != ERROR_SUCCESS) return error;
    suspect_.store(false, std::memory_order_relaxed);
    reader_.checkpoint_on_close(false);
    if (opening.created) flush_folders_above(folder_of(path_));
    return begin_reading(opening.created);
}

DWORD SharedStore::open_file(StoreOpening& opening) {
    opening = open_store(kind_, path_, bell_, reader_);
    if (opening.set_aside) {
        family_.was_set_aside(opening.message);
        if (kind_.begins_anew) opening = open_store(kind_, path_, bell_, reader_);
    }
    return opening ? ERROR_SUCCESS : fail(opening.error, opening.message);
}

// The journal is there from the first read on, and stays for as long as a connection is open.
DWORD SharedStore::begin_reading(bool created) {
    LONGLONG last = 0;
    if (reader_.scalar("SELECT max(seq) FROM change", last) != ERROR_SUCCESS) return fail(reader_);
    const std::string journal = path_ + "-wal";
    journal_ = std::make_shared<const HostFd>(open_host(journal.c_str(), O_RDWR));
    if (!*journal_) return host_failure(journal, errno);
    commits_.attach(reader_);
    StoreMarks marks = {};
    if (read_marks(reader_.handle(), marks) != SQLITE_OK) return fail(reader_);
    closed_before_ = marks.legible && marks.journal == JournalState::Closed;
    closed_name_ = marks.name;
    const File before = std::exchange(file_, has_moved(reader_) ? File{} : file_at(path_));
    const bool another = created || !(before == file_);
    followed_ = followed_ && !another;
    ++opening_;
    ready_ = true;
    family_.opened(another);
    return ERROR_SUCCESS;
}

void SharedStore::close_both() noexcept {
    writer_commits_.detach();
    writer_.close();
    close_reader();
}

void SharedStore::rest() noexcept {
    if (orphaned_.load(std::memory_order_relaxed) || !take_right(Clock::duration::zero())) return;
    if (const std::unique_lock lock(mutex_, std::try_to_lock); lock.owns_lock()) {
        Bell::Pull pull;
        if (ready_ && !is_suspect() && pull.take(bell_) == 0 && !is_replaced()) {
            writer_.checkpoint_on_close(true);
            reader_.checkpoint_on_close(true);
        }
        close_both();
    }
    give_right();
}

// --- the disk ---

// A commit is in the journal but not on the disk. Syncing the journal's file brings all that any process has committed
// there: either it is in the journal now, or it was copied out of it, and then SQLite had synced the journal before it
// began and the store's file before the journal was used anew.
DWORD SharedStore::flush() noexcept {
    try {
        CommitWatch::Stamp stamp;
        bool known = false;
        bool folder_too = false;
        std::shared_ptr<const HostFd> file;
        {
            const auto reading = lock();
            if (const DWORD error = refresh(); error != ERROR_SUCCESS) return error;
            stamp = stamp_;
            known = stamp_known_;
            if (known && flushed_known_ && stamp == flushed_) return ERROR_SUCCESS;
            folder_too = !folder_flushed_;
            file = journal_;
        }
        if (const DWORD error = flush_journal(file->get(), folder_too); error != ERROR_SUCCESS) return error;
        const auto reading = lock();
        if (journal_ != file) return ERROR_SUCCESS;
        folder_flushed_ = true;
        flushed_ = stamp;
        flushed_known_ = known;
        return ERROR_SUCCESS;
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

DWORD SharedStore::flush_journal(int file, bool folder_too) {
    int number = fdatasync(file) == 0 ? 0 : errno;
    if (number == 0 && folder_too) number = flush_folder(folder_of(path_));
    return number == 0 ? ERROR_SUCCESS : host_failure(path_, number);
}

// --- watching ---

DWORD SharedStore::watch(StoreWatcher& watcher) {
    std::string bell;
    {
        const auto reading = lock();
        if (const DWORD error = refresh(); error != ERROR_SUCCESS) return error;
        bell = bell_.path();
    }
    const int number = add_store_watcher(bell, watcher);
    return number == 0 ? ERROR_SUCCESS : host_failure(bell, number);
}

DWORD SharedStore::keep_changes(LONGLONG seq) {
    const auto reading = lock();
    const int number = bell_.set_position(seq);
    if (number == ENOLCK)
        return fail(ERROR_NOT_ENOUGH_MEMORY, std::string("Too many programs watch the ") + kind_.name + ".");
    return number == 0 ? ERROR_SUCCESS : host_failure(bell_.path(), number);
}

void SharedStore::keep_no_changes() {
    const auto reading = lock();
    bell_.give_up();
}

void SharedStore::look_again() {
    const auto reading = lock();
    if (ready_ && is_replaced()) stamp_known_ = false;
}

// --- the right to write ---

bool SharedStore::take_right(Clock::duration patience) {
    std::unique_lock lock(right_mutex_);
    if (has_right_ && right_holder_ == std::this_thread::get_id()) return false;
    if (has_right_ && !right_free_.wait_for(lock, patience, [this] { return !has_right_; })) return false;
    has_right_ = true;
    right_holder_ = std::this_thread::get_id();
    return true;
}

void SharedStore::give_right() {
    {
        const std::lock_guard lock(right_mutex_);
        has_right_ = false;
    }
    right_free_.notify_one();
}

bool SharedStore::has_writer() const noexcept {
    return writer_.is_open() && writer_opening_ == opening_;
}

DWORD SharedStore::open_writer() {
    if (has_writer()) return ERROR_SUCCESS;
    writer_commits_.detach();
    writer_.close();
    if (open_connection(kind_, path_, writer_) != ERROR_SUCCESS) {
        const DWORD failure = fail(writer_);
        writer_.close();
        return failure;
    }
    writer_.checkpoint_on_close(false);
    writer_commits_.attach(writer_);
    writer_opening_ = opening_;
    return ERROR_SUCCESS;
}

// --- forks ---

// A connection cannot be carried into another process, nor stay behind in this one: SQLite's knowledge of which locks
// are held would be wrong in the child.
void SharedStore::before_fork() noexcept {
    fork_has_right_ = take_right(kPatience);
    right_mutex_.lock();
    mutex_.lock();
    beside_writer_ = !fork_has_right_ && right_holder_ != std::this_thread::get_id();
    if (fork_has_right_) close_both();
}

void SharedStore::after_fork() noexcept {
    const bool gives_right = fork_has_right_;
    if (gives_right) has_right_ = false;
    mutex_.unlock();
    right_mutex_.unlock();
    if (gives_right) right_free_.notify_one();
}

void SharedStore::after_fork_in_child() noexcept {
    if (!fork_has_right_) {
        // Left as they are: even closing them would touch what the parent's change has written.
        orphaned_.store(true, std::memory_order_relaxed);
        orphan(kind_);
        if (beside_writer_) abandon_sqlite();
        writer_commits_.detach();
        commits_.detach();
        writer_.abandon();
        reader_.abandon();
        ready_ = false;
        stamp_known_ = false;
        pull_.let_go();
    }
    bell_.forget_in_child();
    origin_.store(new_origin(), std::memory_order_relaxed);
    has_right_ = false;
    new (&right_free_) std::condition_variable;  // those who waited are not here
    mutex_.unlock();
    right_mutex_.unlock();
}

// --- writing ---

DWORD StoreWriting::begin(SharedStore& store) {
    if (!store.take_right(kPatience))
        return store.fail(ERROR_BUSY, std::string("The ") + store.kind_.name + " " + store.path_ +
                                          ": another change of this program keeps it locked.");
    store_ = &store;
    DWORD error = ERROR_NOT_ENOUGH_MEMORY;
    try {
        error = prepare();
        if (error == ERROR_SUCCESS) error = start();
    } catch (...) {
        end();
        throw;
    }
    if (error != ERROR_SUCCESS) end();
    return error;
}

// Opens what is needed and sees to it that the store's file stays where it is until the end.
DWORD StoreWriting::prepare() {
    constexpr int kTries = 3;
    for (int i = 0; i < kTries; ++i) {
        bool is_new = false;
        {
            const auto reading = store_->lock();
            if (!store_->ready_ || store_->is_suspect() || store_->is_overwritten()) {
                if (const DWORD error = store_->open(); error != ERROR_SUCCESS) return error;
            }
            is_new = !store_->has_writer();
            if (const DWORD error = store_->open_writer(); error != ERROR_SUCCESS) return error;
        }
        const int number = store_->pull_.take(store_->bell_);
        if (number != 0) return store_->host_failure(store_->bell_.path(), number);
        // A connection of before has the file that is read; one that was opened now may have another.
        const auto is_elsewhere = [&] {
            const auto reading = store_->lock();
            return store_->is_replaced();
        };
        if (!has_moved(connection()) && !(is_new && is_elsewhere())) return ERROR_SUCCESS;
        store_->pull_.let_go();
        const auto reading = store_->lock();
        store_->close_reader();
    }
    return store_->fail(
        ERROR_BUSY, std::string("The ") + store_->kind_.name + " " + store_->path_ + " is replaced again and again.");
}

DWORD StoreWriting::start() {
    numbered_ = false;
    first_seq_ = seq_ = 0;
    Use begin = connection().use("BEGIN IMMEDIATE");
    if (connection().run(begin) != ERROR_SUCCESS) return store_->fail(connection());
    spills_ = connection().spills();
    // While the transaction is open nobody else commits.
    before_known_ = store_->writer_commits_.look(before_);
    const auto reading = store_->lock();
    before_seq_ = before_known_ && store_->is_known(before_) && store_->followed_ ? store_->position_ : 0;
    return ERROR_SUCCESS;
}

DWORD StoreWriting::next_seq(LONGLONG& seq) {
    if (!numbered_) {
        // What is in memory is the newest there is: the last change is known.
        if (before_seq_ != 0) {
            first_seq_ = before_seq_;
        } else if (connection().scalar("SELECT max(seq) FROM change", first_seq_) != ERROR_SUCCESS) {
            return store_->fail(connection());
        }
        seq_ = first_seq_;
        numbered_ = true;
    }
    seq = ++seq_;
    return ERROR_SUCCESS;
}

DWORD StoreWriting::begin_part() {
    part_seq_ = numbered_ ? seq_ : 0;
    Use begin = connection().use("SAVEPOINT part");
    return connection().run(begin) == ERROR_SUCCESS ? ERROR_SUCCESS : store_->fail(connection());
}

DWORD StoreWriting::end_part(bool keep) {
    if (!keep) {
        seq_ = part_seq_ != 0 ? part_seq_ : first_seq_;
        Use back = connection().use("ROLLBACK TO part");
        if (connection().run(back) != ERROR_SUCCESS) return store_->fail(connection());
        // Before 3.41 SQLite would go on with a wrong checksum of the journal where the part had written pages anew
        // that were there already; what it then commits is damage to the next reader.
        if (connection().spills() != spills_) {
            return store_->fail(ERROR_NOT_ENOUGH_MEMORY, std::string("A part of a batch of changes of the ") +
                                                             store_->kind_.name +
                                                             " that is larger than the memory for it was taken back.");
        }
    }
    Use end = connection().use("RELEASE part");
    return connection().run(end) == ERROR_SUCCESS ? ERROR_SUCCESS : store_->fail(connection());
}

DWORD StoreWriting::prune() {
    if (seq_ / kPruneEvery == first_seq_ / kPruneEvery) return ERROR_SUCCESS;
    Use statement = connection().use("DELETE FROM change WHERE seq <= ?1");
    if (statement) statement->bind(1, std::min(seq_ - kKeptChanges, store_->bell_.oldest_position(seq_)));
    return connection().run(statement) == ERROR_SUCCESS ? ERROR_SUCCESS : store_->fail(connection());
}

// Whether large deletions left room that the host could have back.
bool StoreWriting::has_much_free() {
    LONGLONG free = 0;
    LONGLONG pages = 0;
    return !store_->keeps_room_ && connection().scalar("PRAGMA freelist_count", free) == ERROR_SUCCESS &&
           free > kFreePages && connection().scalar("PRAGMA page_count", pages) == ERROR_SUCCESS && free > pages / 2 &&
           pages - free <= kMostPagesMoved;
}

// Whether the disk has room for what is written anew: beside the file, in the journal, in the file.
bool StoreWriting::has_room_to_move() {
    LONGLONG free = 0;
    LONGLONG pages = 0;
    LONGLONG size = 0;
    struct statvfs disk = {};
    if (connection().scalar("PRAGMA freelist_count", free) != ERROR_SUCCESS ||
        connection().scalar("PRAGMA page_count", pages) != ERROR_SUCCESS ||
        connection().scalar("PRAGMA page_size", size) != ERROR_SUCCESS || statvfs(store_->path_.c_str(), &disk) != 0) {
        return false;
    }
    return static_cast<ULONGLONG>(disk.f_bavail) * disk.f_frsize / 3 > static_cast<ULONGLONG>((pages - free) * size);
}

// Writes the store anew, which is a change of its own. Nothing that anybody knows changes by it; where it fails the
// room stays for what comes. It is not worth waiting for another writer.
void StoreWriting::give_back() {
    Connection& writer = connection();
    if (store_->pull_.take(store_->bell_) != 0) return;
    if (!has_moved(writer) && has_room_to_move()) {
        writer.wait_when_busy(false);
        const FilesBeside here(store_->path_.c_str());
        const DWORD error = writer.execute("VACUUM");
        store_->keeps_room_ = error != ERROR_SUCCESS && error != ERROR_BUSY;
        // The file is cut off when all of the journal is in it; what failed leaves a long journal.
        static_cast<void>(writer.execute(error == ERROR_SUCCESS ? "PRAGMA wal_checkpoint(PASSIVE)"
                                                                : "PRAGMA wal_checkpoint(TRUNCATE)"));
        writer.wait_when_busy(true);
    }
    store_->pull_.let_go();
}

// Commits and rings; true when this is known to be the only commit since before_.
bool StoreWriting::keep(CommitWatch::Stamp& after, DWORD& error) {
    if (!has_changes()) return false;
    const WithinSizeLimit no_signal;  // for all that a commit writes
    error = prune();
    if (error != ERROR_SUCCESS) return false;
    const bool much_free = has_much_free();
    {
        Use commit = connection().use("COMMIT");
        if (connection().run(commit) != ERROR_SUCCESS) {
            error = store_->fail(connection());
            return false;
        }
    }
    mark_committed(connection().handle(), seq_);
    const bool alone = before_known_ && store_->writer_commits_.look(after) && after.is_next_after(before_);
    store_->pull_.let_go();
    if (much_free) give_back();
    return alone;
}

void StoreWriting::taken_over(const CommitWatch::Stamp& after) {
    store_->position_ = seq_;
    store_->stamp_ = after;
}

void StoreWriting::forget() noexcept {
    store_->family_.forget();
    store_->followed_ = false;
    store_->stamp_known_ = false;
}

void StoreWriting::end() noexcept {
    SharedStore& store = *std::exchange(store_, nullptr);
    store.writer_.roll_back();
    if (store.writer_.met_damage()) store.suspect_.store(true, std::memory_order_relaxed);
    store.pull_.let_go();
    store.give_right();
}

void StoreWriting::roll_back() {
    if (store_ != nullptr) end();
}

}  // namespace zr::platform
