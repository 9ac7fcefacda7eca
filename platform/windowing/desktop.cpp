#include "desktop.h"

#include <algorithm>
#include <new>

#include "base/live_count.h"
#include "platform/kernel.h"

namespace zr::platform {

bool WindowTable::add(Window& window) noexcept {
    if (count_ == kMost) return false;
    std::uint32_t index = first_free_;
    // An entry rests for a while before it is used again, so that its generations last.
    constexpr std::uint32_t kResting = 1024;
    if (index == 0 || (used_ - 1 - count_ < kResting && used_ <= kMost)) {
        std::atomic<Entry*>& chunk = chunks_[used_ / kChunk];
        if (!chunk.load(std::memory_order_relaxed)) {
            auto* made = new (std::nothrow) Entry[kChunk];
            if (!made) return false;
            chunk.store(made, std::memory_order_release);
        }
        index = used_++;
    } else {
        first_free_ = chunks_[index / kChunk].load(std::memory_order_relaxed)[index % kChunk].next_free;
    }
    Entry& entry = chunks_[index / kChunk].load(std::memory_order_relaxed)[index % kChunk];
    const std::uint32_t generation = entry.generation.load(std::memory_order_relaxed);
    window.handle = reinterpret_cast<HWND>(static_cast<UINT_PTR>(generation << 16 | index));
    entry.window.store(&window, std::memory_order_relaxed);
    entry.owner.store(window.queue.get(), std::memory_order_release);
    ++count_;
    return true;
}

void WindowTable::remove(Window& window) noexcept {
    const auto index = static_cast<std::uint32_t>(reinterpret_cast<UINT_PTR>(window.handle) & 0xFFFF);
    Entry& entry = chunks_[index / kChunk].load(std::memory_order_relaxed)[index % kChunk];
    const std::uint32_t generation = entry.generation.load(std::memory_order_relaxed);
    entry.owner.store(nullptr, std::memory_order_relaxed);
    entry.window.store(nullptr, std::memory_order_relaxed);
    entry.generation.store(generation == 0xFFFF ? 1 : generation + 1, std::memory_order_relaxed);
    entry.next_free = 0;
    if (first_free_ == 0) {
        first_free_ = index;
    } else {
        chunks_[last_free_ / kChunk].load(std::memory_order_relaxed)[last_free_ % kChunk].next_free = index;
    }
    last_free_ = index;
    --count_;
}

WindowTable::Entry* WindowTable::entry(HWND handle) const noexcept {
    const auto value = reinterpret_cast<UINT_PTR>(handle);
    const UINT_PTR index = value & 0xFFFF;
    if (index == 0 || value > 0xFFFFFFFFu) return nullptr;
    Entry* chunk = chunks_[index / kChunk].load(std::memory_order_acquire);
    if (!chunk) return nullptr;
    Entry& entry = chunk[index % kChunk];
    return entry.generation.load(std::memory_order_relaxed) == value >> 16 ? &entry : nullptr;
}

Window* WindowTable::find(HWND handle) const noexcept {
    const Entry* found = entry(handle);
    return found ? found->window.load(std::memory_order_relaxed) : nullptr;
}

Window* WindowTable::find_own(HWND handle, const MessageQueue* queue) const noexcept {
    const Entry* found = entry(handle);
    if (!found || !queue || found->owner.load(std::memory_order_acquire) != queue) return nullptr;
    return found->window.load(std::memory_order_relaxed);
}

namespace {

// Never destroyed: threads may end after static objects have.
alignas(Desktop) unsigned char storage[sizeof(Desktop)];
Desktop& the_desktop = *new (storage) Desktop;

}  // namespace

Desktop& Desktop::get() {
    return the_desktop;
}

ATOM Desktop::class_atom(const WCHAR* name, const std::u16string& folded) const {
    return is_atom(name) ? static_cast<ATOM>(reinterpret_cast<UINT_PTR>(name)) : atoms.find(folded);
}

HINSTANCE Desktop::owner_of_classes(HINSTANCE instance) {
    return instance ? instance : GetModuleHandleW(nullptr);
}

WindowClass* Desktop::find_own_class(HINSTANCE instance, const WCHAR* name, const std::u16string& folded) {
    const auto found = classes.find({class_atom(name, folded), owner_of_classes(instance)});
    return found == classes.end() ? nullptr : &found->second;
}

WindowClass* Desktop::find_class(HINSTANCE instance, const WCHAR* name, const std::u16string& folded) {
    WindowClass* const own = find_own_class(instance, name, folded);
    return own ? own : find_own_class(system_instance(), name, folded);
}

void Desktop::link(Window& window, Window* parent) noexcept {
    link_behind(window, parent, parent ? parent->last_child : last_top);
}

void Desktop::link_behind(Window& window, Window* parent, Window* previous) noexcept {
    Window*& first = parent ? parent->first_child : first_top;
    Window*& last = parent ? parent->last_child : last_top;
    window.parent = parent;
    window.depth = parent ? parent->depth + 1 : 0;
    window.previous = previous;
    window.next = previous ? previous->next : first;
    (window.previous ? window.previous->next : first) = &window;
    (window.next ? window.next->previous : last) = &window;
}

void Desktop::unlink(Window& window) noexcept {
    Window*& first = window.parent ? window.parent->first_child : first_top;
    Window*& last = window.parent ? window.parent->last_child : last_top;
    // An orphan is in no list; then neither test of an end holds.
    if (window.previous) {
        window.previous->next = window.next;
    } else if (first == &window) {
        first = window.next;
    }
    if (window.next) {
        window.next->previous = window.previous;
    } else if (last == &window) {
        last = window.previous;
    }
    window.parent = window.previous = window.next = nullptr;
}

void Desktop::orphan(Window& child) noexcept {
    unlink(child);
    child.doom.window = child.handle;
    child.doom.kind = SendRequest::Kind::Destroy;
    child.queue->push_sent(child.doom);
}

void Desktop::remove_from_tree(Window& window) noexcept {
    while (window.first_child)
        orphan(*window.first_child);
    unlink(window);
    table.remove(window);
    --window.window_class->windows;
    count_live(ZrLiveKind::Windows, -1);
}

std::unique_ptr<Window> Desktop::remove(Window& window, SendList& sent) noexcept {
    remove_from_tree(window);
    (window.previous_own ? window.previous_own->next_own : window.queue->first_window()) = window.next_own;
    if (window.next_own) window.next_own->previous_own = window.previous_own;
    window.queue->drop_posted(window.handle);
    sent = window.queue->take_sent(window.handle);
    return std::unique_ptr<Window>(&window);
}

void Desktop::survive_fork() noexcept {
    const MessageQueue* const own = MessageQueue::existing();
    table.for_each([this, own](Window& window) {
        if (window.queue.get() != own) remove_from_tree(window);
    });
    // Given back, and made anew as well: one that was taken for writing knows its owner by the parent's identifier.
    lock.unlock();
    new (&lock) std::shared_mutex;
}

bool is_below(const Window* parent, const Window* window) noexcept {
    for (window = window->parent; window; window = window->parent) {
        if (window == parent) return true;
    }
    return false;
}

void remove_windows_of(MessageQueue& queue) noexcept {
    Desktop& desktop = Desktop::get();
    for (;;) {
        SendList sent;
        std::unique_ptr<Window> removed;
        {
            const std::unique_lock guard(desktop.lock);
            if (!queue.first_window()) return;
            removed = desktop.remove(*queue.first_window(), sent);
        }
        refuse_all(sent);
    }
}

std::unique_ptr<WCHAR[]> copy_text(const WCHAR* text) noexcept {
    std::size_t length = 0;
    while (text[length])
        ++length;
    std::unique_ptr<WCHAR[]> copy(new (std::nothrow) WCHAR[length + 1]);
    if (copy) std::copy_n(text, length + 1, copy.get());
    return copy;
}

}  // namespace zr::platform
