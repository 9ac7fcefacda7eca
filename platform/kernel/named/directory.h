#pragma once

// The objects of the region by name, and which processes have them. All with the region's lock held, unless said.

#include <optional>
#include <string_view>

#include "named/region.h"
#include "platform/types.h"

namespace zr::platform::named {

std::uint32_t hash_of(std::u16string_view name) noexcept;

// The object of that name, kNone when there is none.
std::uint32_t find(const Region& region, std::u16string_view name, std::uint32_t hash) noexcept;

struct NewObject {
    Kind kind;
    bool manual_reset = false;
    std::uint64_t word = 0;  // without the generation
    std::uint64_t size = 0;
    std::uint32_t protection = 0;
    std::uint64_t contents = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
};

// A new object that the process at `place` has open. The name is free. kNone with an error number when there is no
// room.
std::uint32_t make(Region& region, const NewObject& wanted, std::u16string_view name, std::uint32_t hash,
                   std::uint32_t place, int& error) noexcept;

// The process at that place has a handle to the object from now on; has none any more; does not use it at all.
void join(Region& region, std::uint32_t index, std::uint32_t place) noexcept;
void close_by(Region& region, std::uint32_t index, std::uint32_t place) noexcept;
void leave(Region& region, std::uint32_t index, std::uint32_t place) noexcept;

// Takes everything from a process that has ended: its handles, what it owned, its waits; then its place is free.
// Nothing happens while it lives.
void clear_place(Region& region, std::uint32_t place) noexcept;
void clear_dead(Region& region) noexcept;

// find, once whoever has ended is out of the object: one that only killed processes had open is gone, also when nobody
// has come round to clear up after them yet.
std::uint32_t find_living(Region& region, std::u16string_view name, std::uint32_t hash) noexcept;

// The thread of the process at that place that signals timers (session.h) looks at them again, whether it is about to
// sleep or sleeps. Any time.
void call_timer_watch(Region& region, std::uint32_t place) noexcept;
// Those of all these processes.
void call_timer_watches(Region& region, const ProcessSet& open) noexcept;

// The next process in the circle of all; `place` itself when it is alone. Any time.
std::uint32_t next_place(const Region& region, std::uint32_t place) noexcept;

// Makes all that is derived anew and ends what a killed holder of the lock had begun.
void repair(Region& region) noexcept;

// The name, into `out` of name_length units.
void copy_name(const Region& region, const Object& object, char16_t* out) noexcept;

// --- Files. Any time.

inline constexpr char kContentsPrefix[] = "mapping.";  // and a number
inline constexpr char kUnfinishedPrefix[] = "new.";  // and place, generation and a number of the process that makes it

bool is_contents(const char* file_name) noexcept;
bool is_unfinished(const char* file_name) noexcept;

// Deletes those files of the folder that `select` picks by name.
void remove_files_if(const std::string& folder, bool (*select)(const char* name, void* context),
                     void* context) noexcept;
template <class Select>
void remove_files(const std::string& folder, Select select) noexcept {
    remove_files_if(
        folder, [](const char* name, void* context) { return (*static_cast<Select*>(context))(name); }, &select);
}

}  // namespace zr::platform::named
