#include "share_modes.h"

#include <map>
#include <mutex>
#include <new>
#include <utility>

#include "at_fork.h"
#include "platform/files.h"

namespace zr::platform {
namespace {

// How many open files read, write, and keep readers or writers out.
struct Counts {
    int readers = 0;
    int writers = 0;
    int deny_read = 0;
    int deny_write = 0;

    void add(DWORD access, DWORD share, int change) {
        if (access & GENERIC_READ) readers += change;
        if (access & GENERIC_WRITE) writers += change;
        if (!(share & FILE_SHARE_READ)) deny_read += change;
        if (!(share & FILE_SHARE_WRITE)) deny_write += change;
    }
    bool tolerates(DWORD access, DWORD share) const {
        return !((access & GENERIC_READ) && deny_read) && !((access & GENERIC_WRITE) && deny_write) &&
               !(!(share & FILE_SHARE_READ) && readers) && !(!(share & FILE_SHARE_WRITE) && writers);
    }
    bool empty() const { return readers == 0 && writers == 0 && deny_read == 0 && deny_write == 0; }
};

using FileId = std::pair<std::uint64_t, std::uint64_t>;

struct Table {
    std::mutex mutex;
    std::map<FileId, Counts> files;
};

// Never destroyed: handles may be closed while the process ends.
alignas(Table) unsigned char table_storage[sizeof(Table)];
Table& the_table = *new (table_storage) Table;

Table& table() {
    return the_table;
}

}  // namespace

void lock_share_modes() noexcept {
    table().mutex.lock();
}

void unlock_share_modes() noexcept {
    table().mutex.unlock();
}

bool ShareClaim::take(const struct stat& file, DWORD access, DWORD share) {
    // Who neither reads nor writes is in nobody's way.
    if (!(access & (GENERIC_READ | GENERIC_WRITE))) return true;
    Table& open = table();
    const std::lock_guard lock(open.mutex);
    Counts& counts = open.files[{file.st_dev, file.st_ino}];
    if (!counts.tolerates(access, share)) return false;
    counts.add(access, share, 1);
    device_ = file.st_dev;
    inode_ = file.st_ino;
    access_ = access;
    share_ = share;
    taken_ = true;
    return true;
}

ShareClaim::~ShareClaim() {
    if (!taken_) return;
    Table& open = table();
    const std::lock_guard lock(open.mutex);
    const auto found = open.files.find({device_, inode_});
    found->second.add(access_, share_, -1);
    if (found->second.empty()) open.files.erase(found);
}

}  // namespace zr::platform
