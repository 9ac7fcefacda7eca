#include "store.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/host_fd.h"
#include "base/state_folder.h"
#include "last_error.h"
#include "schema.h"

namespace zr::platform::registry {
namespace {

constexpr const char* kFile = "registry.db";
constexpr const char* kBellFile = "registry.bell";

DWORD system_failure(const std::string& path, int number) {
    return fail(store_error(number), "The registry " + path + ": " + strerror(number) + ".");
}

int flush_folder(const std::string& path) {
    const int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return errno;
    const int error = fsync(folder) == 0 ? 0 : errno;
    close(folder);
    return error;
}

// A file is only as durable as the entries of the folders on the way to it. The ones that are not ours need not let us.
void flush_folders_above(std::string path) {
    for (std::size_t end = path.rfind('/'); end != std::string::npos && end != 0; end = path.rfind('/')) {
        path.resize(end);
        flush_folder(path);
    }
}

std::string folder_of(const std::string& file) {
    return file.substr(0, file.rfind('/'));
}

}  // namespace

constinit std::atomic<Store*> Store::the_store_{nullptr};

OpenFile::~OpenFile() {
    if (descriptor >= 0) close(descriptor);
}

Store* Store::make() noexcept {
    static constinit std::mutex making;
    const std::lock_guard lock(making);
    if (Store* const made = the_store_.load(std::memory_order_relaxed)) return made;
    try {
        Store* const store = new Store;
        the_store_.store(store, std::memory_order_release);
        pthread_atfork(&Store::before_fork, &Store::after_fork, &Store::after_fork);
        return store;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void Store::before_fork() noexcept {
    Store& store = *instance();
    store.write_mutex_.lock();
    store.mutex_.lock();
    store.commits_.detach();
    store.writer_.close();
    store.close_reader();
}

void Store::after_fork() noexcept {
    Store& store = *instance();
    store.mutex_.unlock();
    store.write_mutex_.unlock();
}

void Store::close_reader() noexcept {
    ready_ = false;
    tree_.detach();
    reader_.close();
    journal_.reset();
    flushed_known_ = false;
    folder_flushed_ = false;
}

DWORD Store::open() {
    close_reader();
    if (path_.empty()) {
        const Folder folder = state_folder();
        if (!folder) return fail(folder.error, folder.message);
        path_ = folder.path + "/" + kFile;
    }
    const int error = bell_.open(folder_of(path_) + "/" + kBellFile);
    if (error != 0) return system_failure(bell_.path(), error);
    LONGLONG replacements = bell_.replacements();
    StoreOpening opening = open_store(kRegistryStore, path_, reader_);
    if (opening.set_aside) {
        announce_set_aside(opening.message);
        bell_.replaced();
        replacements = bell_.replacements();
        opening = open_store(kRegistryStore, path_, reader_);
    }
    if (!opening) return fail(opening.error, opening.message);
    suspect_.store(false, std::memory_order_relaxed);
    // Connections are closed for a fork, which is no time for copying the journal.
    sqlite3_db_config(reader_.handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    if (opening.created) flush_folders_above(folder_of(path_));
    const DWORD journal = open_journal();
    if (journal != ERROR_SUCCESS) return journal;
    ++opening_;
    tree_.attach(std::exchange(replacements_, replacements) != replacements);
    ready_ = true;
    return ERROR_SUCCESS;
}

// The journal is there from the first read on, and stays for as long as a connection is open.
DWORD Store::open_journal() {
    LONGLONG version = 0;
    if (reader_.scalar("SELECT max(seq) FROM change", version) != 0) return fail(reader_);
    const std::string path = path_ + "-wal";
    journal_ = std::make_shared<const OpenFile>(above_standard(::open(path.c_str(), O_RDWR | O_CLOEXEC)));
    return journal_->descriptor >= 0 ? ERROR_SUCCESS : system_failure(path, errno);
}

DWORD Store::prepare_writer() {
    const std::lock_guard lock(mutex_);
    const DWORD error = fresh();
    if (error != ERROR_SUCCESS) return error;
    prepared_known_ = tree_.stamp(prepared_);
    if (writer_.is_open() && writer_opening_ == opening_) return ERROR_SUCCESS;
    commits_.detach();
    writer_.close();
    if (open_connection(kRegistryStore, path_, writer_) != 0) {
        const DWORD failure = fail(writer_);
        writer_.close();
        return failure;
    }
    sqlite3_db_config(writer_.handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    commits_.attach(writer_);
    writer_opening_ = opening_;
    return ERROR_SUCCESS;
}

void Store::take_over(const Tree::OwnChange& change) noexcept {
    CommitWatch::Stamp after;
    if (!commits_.look(after) || !after.is_next_after(prepared_)) return;
    const std::lock_guard lock(mutex_);
    try {
        tree_.take_over(change, prepared_, after);
    } catch (const std::bad_alloc&) {
        tree_.forget();
    }
}

// A commit is in the journal but not on the disk. Syncing the journal's file brings all that any process has committed
// there: either it is in the journal now, or it was copied out of it, and then SQLite had synced the journal before it
// began and the registry's file before the journal was used anew.
DWORD Store::flush() noexcept {
    CommitWatch::Stamp stamp;
    bool known = false;
    bool folder_too = false;
    std::shared_ptr<const OpenFile> file;
    DWORD error = read([&](Tree& tree) -> DWORD {
        known = tree.stamp(stamp);
        if (known && flushed_known_ && stamp == flushed_) return ERROR_SUCCESS;
        folder_too = !folder_flushed_;
        file = journal_;
        return ERROR_SUCCESS;
    });
    if (error != ERROR_SUCCESS || !file) return error;
    error = flush_journal(file->descriptor, folder_too);
    if (error != ERROR_SUCCESS) return error;
    const std::lock_guard lock(mutex_);
    folder_flushed_ = true;
    flushed_ = stamp;
    flushed_known_ = known;
    return ERROR_SUCCESS;
}

DWORD Store::flush_journal(int file, bool folder_too) {
    int number = fdatasync(file) == 0 ? 0 : errno;
    if (number == 0 && folder_too) number = flush_folder(folder_of(path_));
    return number == 0 ? ERROR_SUCCESS : system_failure(path_, number);
}

}  // namespace zr::platform::registry
