#pragma once

// Kernel objects and the handles that name them.
//
// An object is reference-counted. A handle is an entry of the process-wide table and holds one reference; several
// handles may name one object. A handle value carries the generation of its entry, so that a closed handle, a handle
// of another kind and a pointer that never was a handle are all told apart from an open one and never dereferenced.

#include <atomic>
#include <cstdint>
#include <utility>

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

class Waitable;
class Event;

// What a handle names. A family that brings a kind of its own adds it here.
enum class ObjectKind : std::uint32_t {
    Event,  // these three, and named mutexes, are quick to take (quick_pin.h)
    Mutex,
    Semaphore,
    Timer,
    Thread,
    MainThread,  // of another process
    Process,
    FileMapping,
    File,
    FileSearch,
    FileChanges,
    RegistryKey,
    RegistryChanges,
    MessageQueue,
    NamedEvent,  // and behind it the others that have names
    NamedMutex,
    NamedSemaphore,
    NamedTimer,
    Other,
};

class ZRPLATFORM_API Object {
public:
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    ObjectKind kind() const noexcept { return kind_; }

    void add_ref() noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
    void release() noexcept {
        if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    // A new reference, unless the last one is gone and the object is being deleted.
    bool try_add_ref() noexcept {
        std::uint32_t refs = refs_.load(std::memory_order_relaxed);
        while (refs != 0 && !refs_.compare_exchange_weak(refs, refs + 1, std::memory_order_relaxed)) {
        }
        return refs != 0;
    }
    bool has_handle() const noexcept { return handles_.load(std::memory_order_acquire) != 0; }

    // The object as something to wait for, or as an event (EventModify works on these), where it is one.
    virtual Waitable* waitable() noexcept { return nullptr; }
    virtual Event* event() noexcept { return nullptr; }

    // The host's descriptor of an open file, for as long as the object lives; -1 for what is no file.
    virtual int host_descriptor() const noexcept { return -1; }

protected:
    // A new object has one reference, its maker's.
    explicit Object(ObjectKind kind) noexcept : kind_(kind) {}
    virtual ~Object() = default;

    // The last handle was closed; references (a wait under way, a worker thread) may still hold the object. Called
    // once, with no lock held, on the thread that closed it. An object can be given a handle again afterwards.
    virtual void last_handle_closed() noexcept {}

private:
    friend struct HandleTable;

    const ObjectKind kind_;
    std::atomic<std::uint32_t> refs_{1};
    std::atomic<std::uint32_t> handles_{0};
};

// An owning reference to an object.
template <class T>
class Ref {
public:
    Ref() noexcept = default;
    static Ref adopt(T* object) noexcept { return Ref(object); }  // takes over the caller's reference
    static Ref retain(T& object) noexcept {
        object.add_ref();
        return Ref(&object);
    }
    Ref(const Ref& other) noexcept : object_(other.object_) {
        if (object_) object_->add_ref();
    }
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref& operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() {
        if (object_) object_->release();
    }

    T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    [[nodiscard]] T* detach() noexcept { return std::exchange(object_, nullptr); }

private:
    explicit Ref(T* object) noexcept : object_(object) {}
    T* object_ = nullptr;
};

// An open handle's entry, held in place: while a Pin lives the object lives, even when the handle is closed meanwhile.
class ZRPLATFORM_API Pin {
public:
    Pin() noexcept = default;
    explicit Pin(HANDLE handle) noexcept;  // empty, with the last error unchanged, when the handle is not open
    ~Pin() {
        if (entry_) unpin();
    }
    Pin(Pin&& other) noexcept
        : entry_(std::exchange(other.entry_, nullptr)), object_(std::exchange(other.object_, nullptr)) {}
    Pin& operator=(Pin&& other) noexcept {
        std::swap(entry_, other.entry_);
        std::swap(object_, other.object_);
        return *this;
    }

    Object* object() const noexcept { return object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

private:
    friend void note_use(const Pin& pin) noexcept;

    void unpin() noexcept;

    void* entry_ = nullptr;  // NULL for the pseudo handles, whose objects need no pin
    Object* object_ = nullptr;
};

// A pinned handle of one kind. T names its kind: `static constexpr ObjectKind kKind`.
template <class T>
class Pinned {
public:
    explicit Pinned(Pin pin) noexcept : pin_(std::move(pin)) {
        if (pin_ && pin_.object()->kind() == T::kKind) object_ = static_cast<T*>(pin_.object());
    }
    T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

private:
    Pin pin_;
    T* object_ = nullptr;
};

// The object behind an open handle of T's kind; empty, with ERROR_INVALID_HANDLE, for every other value.
ZRPLATFORM_API void report_invalid_handle() noexcept;
template <class T>
Pinned<T> lookup(HANDLE handle) noexcept {
    Pinned<T> pinned{Pin(handle)};
    if (!pinned) report_invalid_handle();
    return pinned;
}

// A new handle to the object; takes its own reference. NULL with ERROR_NOT_ENOUGH_MEMORY or
// ERROR_TOO_MANY_OPEN_FILES when there is no room. Handles are never NULL or INVALID_HANDLE_VALUE.
ZRPLATFORM_API HANDLE open_handle(Object& object) noexcept;
// The same with the caller's reference, which the caller keeps when it fails.
ZRPLATFORM_API HANDLE open_handle_adopting(Object& object) noexcept;

// Closes an open handle; false with ERROR_INVALID_HANDLE when it is not open. Of two threads that close one handle,
// one gets true. The second form closes only handles of that kind.
ZRPLATFORM_API bool close_handle(HANDLE handle) noexcept;
ZRPLATFORM_API bool close_handle(HANDLE handle, ObjectKind kind) noexcept;

}  // namespace zr::platform
