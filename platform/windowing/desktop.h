#pragma once

// All windows, classes and names of the process, under one lock that is never held while foreign code runs.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "atom_table.h"
#include "window.h"

namespace zr::platform {

// The window that is the parent of those without one: no entry of the table has its value.
inline HWND desktop_window() {
    return reinterpret_cast<HWND>(UINT_PTR{0x10000});
}

// Whose the platform's own classes are: found for every instance that has none of that name.
inline HINSTANCE system_instance() {
    return reinterpret_cast<HINSTANCE>(UINT_PTR{1});
}

struct WindowClass {
    WNDCLASSW registered;  // without names
    ATOM atom;
    std::size_t windows;
    std::u16string name;  // as registered
    HICON small_icon = nullptr;
};

// Turns a handle into a window. A handle is the entry's index and its generation, 16 bits each, so that it fits where
// handheld code keeps it, and an old one is told apart from the entry's next window.
class WindowTable {
public:
    static constexpr std::uint32_t kMost = 65'000;

    // Under the exclusive lock. add() sets window.handle; false: no room.
    bool add(Window& window) noexcept;
    void remove(Window& window) noexcept;
    template <class Use>
    void for_each(Use use) const noexcept {
        for (std::uint32_t index = 1; index < used_; ++index) {
            const Entry& entry = chunks_[index / kChunk].load(std::memory_order_relaxed)[index % kChunk];
            if (Window* const window = entry.window.load(std::memory_order_relaxed)) use(*window);
        }
    }
    // Under the lock.
    Window* find(HWND handle) const noexcept;
    // Without the lock: the window if it is one of this queue's thread, which is the caller. Only that thread makes
    // and removes such an entry, so that it stays as it was read.
    Window* find_own(HWND handle, const MessageQueue* queue) const noexcept;

private:
    static constexpr std::uint32_t kChunk = 256;
    static constexpr std::uint32_t kChunks = 256;

    struct Entry {
        std::atomic<const MessageQueue*> owner{nullptr};  // NULL: free
        std::atomic<std::uint32_t> generation{1};
        std::atomic<Window*> window{nullptr};
        std::uint32_t next_free = 0;
    };

    Entry* entry(HWND handle) const noexcept;

    std::atomic<Entry*> chunks_[kChunks] = {};
    std::uint32_t used_ = 1;  // entry 0 stays unused, so that no handle is small
    std::uint32_t count_ = 0;
    std::uint32_t first_free_ = 0;  // the longest free is used first
    std::uint32_t last_free_ = 0;
};

class Desktop {
public:
    static Desktop& get();

    std::shared_mutex lock;
    WindowTable table;
    AtomTable atoms;
    std::map<std::pair<ATOM, HINSTANCE>, WindowClass> classes;
    Window* first_top = nullptr;
    Window* last_top = nullptr;

    bool has_system_classes = false;

    // The module whose classes are meant: NULL is the program.
    static HINSTANCE owner_of_classes(HINSTANCE instance);

    // Under the lock; 0 and NULL: there is none. `name` may be an atom.
    ATOM class_atom(const WCHAR* name, const std::u16string& folded) const;
    WindowClass* find_class(HINSTANCE instance, const WCHAR* name, const std::u16string& folded);
    WindowClass* find_own_class(HINSTANCE instance, const WCHAR* name, const std::u16string& folded);

    // Under the exclusive lock.
    void link(Window& window, Window* parent) noexcept;  // into its parent's children (NULL: the top level)
    void link_behind(Window& window, Window* parent, Window* previous) noexcept;  // NULL: as the first
    void unlink(Window& window) noexcept;
    // A child of another thread than its parent's leaves the tree, and its thread is asked to destroy it.
    void orphan(Window& child) noexcept;
    // Takes the window out of everything. What was sent to it is the caller's to refuse once the lock is given up.
    std::unique_ptr<Window> remove(Window& window, SendList& sent) noexcept;

    // In the child of a fork, with the lock held: the windows of other threads than the calling one go, and the lock is
    // made anew.
    void survive_fork() noexcept;

private:
    void remove_from_tree(Window& window) noexcept;
};

// Whether `window` is below `parent`. Under the lock.
bool is_below(const Window* parent, const Window* window) noexcept;

// The windows of a thread that ends: gone without their procedures being called.
void remove_windows_of(MessageQueue& queue) noexcept;

}  // namespace zr::platform
