#pragma once

// This process among those that share named objects.

#include <mutex>
#include <string>
#include <string_view>

#include "base/file_lock.h"
#include "kernel/handle_table.h"
#include "kernel/thread.h"
#include "kernel/worker.h"
#include "named/directory.h"

namespace zr::platform::named {

// The region's file, locked among processes for as long as this lives: while a process joins, and while somebody who
// has no place looks.
class RegionFile {
public:
    RegionFile() noexcept = default;
    RegionFile(const RegionFile&) = delete;
    RegionFile& operator=(const RegionFile&) = delete;

    // Finds the region, makes it if it may be made. False with the error.
    bool open(Region& region, bool create, DWORD& error) noexcept;

private:
    std::string path_;
    FileLock lock_;
};

// This process's place in the region. There from the first use of a named object on, until the process ends; a forked
// child begins anew.
class Session {
public:
    // The session, begun if need be; NULL with the last error set when that fails.
    static Session* begin() noexcept;
    // The session that is under way, if any.
    static Session* current() noexcept;

    Region& region() noexcept { return region_; }
    std::uint32_t place() const noexcept { return place_; }
    std::uint32_t generation() const noexcept { return generation_; }
    std::uint64_t birth() const noexcept { return birth_; }
    std::uint64_t owner(const Thread& thread) const noexcept { return make_owner(place_, generation_, thread.id()); }

private:
    DWORD join() noexcept;
    bool take_place() noexcept;
    bool start_watch() noexcept;
    void watch() noexcept;
    void announce() noexcept;
    std::uint32_t next_place() const noexcept { return named::next_place(region_, place_); }
    static void live(void* session);

    Region region_;
    std::uint32_t place_ = 0;
    std::uint32_t generation_ = 0;
    std::uint64_t birth_ = 0;
    LifeHold lives_;
    Worker life_{"zr-named"};
    std::atomic<std::uint32_t> watching_{0};
};

// The lock of the region, for a thread of this process.
class SessionHold : public Hold {
public:
    explicit SessionHold(Session& session) noexcept;
};

// One local object's part in a named object. The process has the named object open while one of its members is open,
// and uses it while one exists.
class Member {
public:
    Member() noexcept = default;
    ~Member();
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    // The named object is open by this member from now on. With the members' lock and the region's held. The owner is
    // a local object that stands for the named one, and is shared by all who open it here; NULL for one that does not.
    void join(Session& session, std::uint32_t index, zr::platform::Object* owner) noexcept;
    // The last handle of the local object was closed.
    void close(const zr::platform::Object& owner) noexcept;

    // Whether the session is the one that this belongs to: not so in a forked child.
    bool is_valid() const noexcept { return session_ && session_ == Session::current(); }
    Session& session() const noexcept { return *session_; }
    std::uint32_t index() const noexcept { return index_; }
    Object& object() const noexcept { return *object_; }
    std::uint64_t base() const noexcept { return base_; }  // the word of the object when nothing is set in it

    static std::mutex& lock() noexcept;
    // The member whose owner stands for that named object in this process, if there is one; the owner has a new
    // reference. With the lock held.
    static Member* find_local(std::uint32_t index, zr::platform::Object*& owner) noexcept;

private:
    bool is_last(bool open_only) const noexcept;

    Session* session_ = nullptr;
    Object* object_ = nullptr;
    zr::platform::Object* owner_ = nullptr;
    std::uint64_t base_ = 0;
    std::uint32_t index_ = kNone;
    bool open_ = false;
    Member* next_ = nullptr;
};

}  // namespace zr::platform::named
