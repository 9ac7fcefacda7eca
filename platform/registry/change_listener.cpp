#include "change_listener.h"

#include <algorithm>
#include <new>

#include "base/forks.h"
#include "platform/base.h"
#include "store.h"

namespace zr::platform::registry {

constinit std::atomic<ChangeListener*> ChangeListener::the_listener_{nullptr};

namespace {

constinit std::mutex making;

}  // namespace

// A fork finds the locks free: the child may close handles of its parent's watches.
struct RegistryForks {
    static void prepare() noexcept {
        making.lock();
        ChangeListener* const listener = ChangeListener::the_listener_.load(std::memory_order_relaxed);
        if (listener == nullptr) return;
        listener->membership_.lock();
        listener->mutex_.lock();
    }
    static void release() noexcept {
        if (ChangeListener* const listener = ChangeListener::the_listener_.load(std::memory_order_relaxed)) {
            listener->mutex_.unlock();
            listener->membership_.unlock();
        }
        making.unlock();
    }
};

namespace {

const AtFork at_fork{ForkRank::Registry, {&RegistryForks::prepare, &RegistryForks::release, &RegistryForks::release}};

}  // namespace

ChangeListener* ChangeListener::get() noexcept {
    if (ChangeListener* const made = the_listener_.load(std::memory_order_acquire)) return made;
    const std::lock_guard lock(making);
    if (ChangeListener* const made = the_listener_.load(std::memory_order_relaxed)) return made;
    Store* const store = Store::instance();
    auto* const made = store == nullptr ? nullptr : new (std::nothrow) ChangeListener(*store);
    if (made == nullptr) return nullptr;
    the_listener_.store(made, std::memory_order_release);
    return made;
}

DWORD ChangeListener::add(KeyWatch& watch) noexcept {
    const std::lock_guard membership(membership_);
    if (!listening_) {
        try {
            if (const DWORD error = store_.shared().watch(*this); error != ERROR_SUCCESS) return registry_error(error);
        } catch (const std::bad_alloc&) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
        listening_ = true;
    } else {
        resume_store_listener();  // a forked child's first watch
    }
    const DWORD error = insert(watch);
    if (error != ERROR_SUCCESS) remove(watch);
    return error;
}

DWORD ChangeListener::insert(KeyWatch& watch) noexcept {
    const std::lock_guard guard(mutex_);
    try {
        watches_.insert(&watch);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    DWORD error = change_position(watch.from_);
    if (error == ERROR_SUCCESS) error = key_id(watch.key_, watch.id_);
    if (error != ERROR_SUCCESS) return error;
    watch.armed_ = true;
    if (watches_.size() == 1) position_ = watch.from_;
    return ERROR_SUCCESS;
}

void ChangeListener::remove(KeyWatch& watch) noexcept {
    const std::lock_guard guard(mutex_);
    watches_.erase(&watch);
}

bool ChangeListener::rang() noexcept {
    store_.shared().look_again();
    const std::lock_guard guard(mutex_);
    return !watches_.empty() && !catch_up();
}

// False: the changes could not be read, and will be later.
bool ChangeListener::catch_up() noexcept {
    bool complete = false;
    changes_.clear();
    if (changes_since(position_, changes_, complete) != ERROR_SUCCESS) return false;
    if (!complete) {
        LONGLONG position = 0;
        if (change_position(position) != ERROR_SUCCESS) return false;
        tell_all(position);
        return true;
    }
    for (const Change& change : changes_) {
        for (KeyWatch* watch : watches_) {
            if (change.seq > watch->from_ && watch->concerned(change)) watch->tell();
        }
        position_ = change.seq;
    }
    return true;
}

// What happened is not known, so it may have been anything.
void ChangeListener::tell_all(LONGLONG position) noexcept {
    for (KeyWatch* watch : watches_) {
        watch->from_ = position;
        watch->tell();
    }
    position_ = position;
}

KeyWatch::~KeyWatch() {
    RegCloseKey(key_);
}

void KeyWatch::last_handle_closed() noexcept {
    listener_.remove(*this);
}

bool KeyWatch::concerned(const Change& change) const noexcept {
    if (change.kind == ChangeKind::KeyRemoved && change.key == id_) return true;
    const bool of_key = change.kind == ChangeKind::KeyAdded || change.kind == ChangeKind::KeyRemoved;
    if ((filter_ & (of_key ? REG_NOTIFY_CHANGE_NAME : REG_NOTIFY_CHANGE_LAST_SET)) == 0) return false;
    if (!of_key && change.key == id_) return true;
    const std::vector<KeyId>& parents = change.parents;
    if (subtree_) return std::find(parents.begin(), parents.end(), id_) != parents.end();
    return of_key && !parents.empty() && parents.back() == id_;
}

void KeyWatch::tell() noexcept {
    changed_ = !armed_;
    if (!armed_) return;
    armed_ = false;
    set();
}

DWORD KeyWatch::next() noexcept {
    KeyId id = 0;
    if (const DWORD error = key_id(key_, id); error != ERROR_SUCCESS) return error;
    const std::lock_guard guard(listener_.lock());
    if (changed_) {
        changed_ = false;
        set();
    } else {
        reset();
        armed_ = true;
    }
    return ERROR_SUCCESS;
}

}  // namespace zr::platform::registry
