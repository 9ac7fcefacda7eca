#include "share_modes.h"

#include <iterator>
#include <map>
#include <mutex>
#include <new>
#include <utility>

#include "at_fork.h"

namespace zr::platform {
namespace {

// One way to use a file, and what lets others use it so.
struct Use {
    DWORD access;
    DWORD share;
};
constexpr Use kUses[] = {
    {GENERIC_READ, FILE_SHARE_READ},
    {GENERIC_WRITE, FILE_SHARE_WRITE},
    {kDeleteAccess, FILE_SHARE_DELETE},
};
constexpr DWORD kAnyUse = GENERIC_READ | GENERIC_WRITE | kDeleteAccess;

// How many use a file, and how many keep such users out; for each use.
struct Counts {
    int all = 0;
    int users[std::size(kUses)] = {};
    int deniers[std::size(kUses)] = {};

    void add(DWORD access, DWORD share, int change) {
        all += change;
        for (std::size_t i = 0; i < std::size(kUses); ++i) {
            if (access & kUses[i].access) users[i] += change;
            if (!(share & kUses[i].share)) deniers[i] += change;
        }
    }
    bool tolerates(DWORD access, DWORD share) const {
        for (std::size_t i = 0; i < std::size(kUses); ++i) {
            if ((access & kUses[i].access) && deniers[i]) return false;
            if (!(share & kUses[i].share) && users[i]) return false;
        }
        return true;
    }
};

struct Users {
    Counts handles;
    Counts calls;

    Counts& of(ShareClaim::Of what) { return what == ShareClaim::Of::Handle ? handles : calls; }
    bool tolerate(DWORD access, DWORD share) const {
        return handles.tolerates(access, share) && calls.tolerates(access, share);
    }
    bool empty() const { return handles.all == 0 && calls.all == 0; }
};

using FileId = std::pair<std::uint64_t, std::uint64_t>;

struct Table {
    std::mutex mutex;
    std::map<FileId, Users> files;
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

// An entry without users may stay: nothing is given back in a child.
void forget_calls_sharing() noexcept {
    for (auto& [file, users] : table().files)
        users.calls = {};
}

bool ShareClaim::take(const struct stat& file, DWORD access, DWORD share) {
    // Who only asks about a file is in nobody's way.
    if (!(access & kAnyUse)) return true;
    Table& open = table();
    const std::lock_guard lock(open.mutex);
    Users& users = open.files[{file.st_dev, file.st_ino}];
    if (!users.tolerate(access, share)) return false;
    users.of(of_).add(access, share, 1);
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
    found->second.of(of_).add(access_, share_, -1);
    if (found->second.empty()) open.files.erase(found);
}

}  // namespace zr::platform
