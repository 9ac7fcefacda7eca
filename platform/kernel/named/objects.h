#pragma once

// Named events and mutexes: making and opening them, and what can be done with them.

#include "named/wait.h"

namespace zr::platform::named {

class NamedEvent final : public Shared {
public:
    static constexpr ObjectKind kKind = ObjectKind::NamedEvent;
    static constexpr Kind kNamedKind = Kind::Event;

    NamedEvent() noexcept : Shared(kKind) {}

    // False in a forked child, for an event of its parent's.
    bool set() noexcept;
    bool reset() noexcept;
    bool pulse() noexcept;

protected:
    ~NamedEvent() override = default;
    Attempt try_acquire(Thread& self) noexcept override;
};

// While a thread of this process owns it, it hangs in the thread's list, and lives: by its handles, or from when the
// last one was closed by a reference that is kept for the owner.
class NamedMutex final : public Shared {
public:
    static constexpr ObjectKind kKind = ObjectKind::NamedMutex;
    static constexpr Kind kNamedKind = Kind::Mutex;

    NamedMutex() noexcept : Shared(kKind) {}

    // Gives up one hold; false when the calling thread is not the owner.
    bool unlock(Thread& self) noexcept;
    static void abandon_all(Thread& self) noexcept;

    void taken_initially(Thread& self) noexcept { acquired(self); }

protected:
    ~NamedMutex() override = default;
    void acquired(Thread& self) noexcept override;
    Attempt try_acquire(Thread& self) noexcept override;
    void last_handle_closed() noexcept override;

private:
    void give_up(Thread& self, std::uint64_t mark) noexcept;
    void keep_for_owner() noexcept;
    void drop_kept(const Thread& self) noexcept;

    // Touched by the owner only.
    DWORD holds_ = 0;
    NamedMutex* previous_ = nullptr;
    NamedMutex* next_ = nullptr;

    std::atomic<bool> without_handle_{false};  // once was; written before the word is looked at
    DWORD kept_for_ = 0;                       // the thread that the reference is for. Guarded by the members' lock.
};

// What CreateEventW and CreateMutexW do with a name; NULL with the last error set.
HANDLE create_event(std::u16string_view name, bool manual_reset, bool signalled) noexcept;
HANDLE create_mutex(std::u16string_view name, bool owned) noexcept;
// What OpenEventW and OpenMutexW do.
HANDLE open_event(LPCWSTR name) noexcept;
HANDLE open_mutex(LPCWSTR name) noexcept;

}  // namespace zr::platform::named
