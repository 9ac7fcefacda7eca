#include "notifier.h"

#include <algorithm>

#include "last_error.h"
#include "platform/base.h"
#include "platform/windowing.h"
#include "store.h"

namespace zr::platform::pim {
namespace {

constexpr int kChunk = 512;
constexpr INT kFolders[] = {olFolderCalendar, olFolderContacts, olFolderTasks};

}  // namespace

Notifier::~Notifier() {
    listen_no_more();
}

HRESULT Notifier::add_window(const void* key, HWND window) {
    const std::lock_guard membership(membership_);
    HRESULT result = listen();
    if (SUCCEEDED(result)) result = add_place(key, window);
    if (FAILED(result) && window_count_.load() == 0) listen_no_more();
    return result;
}

HRESULT Notifier::listen() {
    if (listening_) return S_OK;
    const HRESULT result = store_result(store_.shared().watch(*this));
    listening_ = SUCCEEDED(result);
    return result;
}

void Notifier::listen_no_more() {
    if (!listening_) return;
    remove_store_watcher(*this);
    store_.shared().keep_no_changes();
    listening_ = false;
}

HRESULT Notifier::add_place(const void* key, HWND window) {
    const std::lock_guard lock(mutex_);
    LONGLONG seq = 0;
    {
        const auto reading = store_.lock();
        const HRESULT result = store_.refresh();
        if (FAILED(result)) return result;
        seq = store_.seq();
    }
    if (windows_.empty()) {
        const HRESULT result = store_result(store_.shared().keep_changes(seq));
        if (FAILED(result)) return result;
    }
    windows_.emplace_back(*this, key, window, seq);
    window_count_.store(static_cast<int>(windows_.size()));
    // Who was told of a change since `seq` may have found no window.
    call_store_watcher(*this);
    return S_OK;
}

void Notifier::remove_window(const void* key) {
    const std::lock_guard membership(membership_);
    bool last = false;
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(windows_, [key](const Window& each) { return each.key == key; });
        window_count_.store(static_cast<int>(windows_.size()));
        last = windows_.empty();
    }
    if (last) listen_no_more();
}

void Notifier::session_began() {
    const std::lock_guard lock(mutex_);
    ++sessions_;
}

void Notifier::session_ended() {
    const std::lock_guard lock(mutex_);
    if (--sessions_ == 0) set_.clear();
}

HRESULT Notifier::load_saved() {
    if (saved_known_.load()) return S_OK;
    const auto reading = store_.lock();
    if (const HRESULT result = store_.refresh(); FAILED(result)) return result;
    saved_known_.store(true);  // before the look: a change that comes after it clears this again
    for (const INT folder : kFolders) {
        Value value;
        const HRESULT result = store_.value(folder_oid(folder), PIMPR_FOLDERNOTIFICATIONS, value);
        if (FAILED(result)) {
            saved_known_.store(false);
            return result;
        }
        const auto* number = std::get_if<LONGLONG>(&value);
        saved_[folder] = number != nullptr ? static_cast<ULONG>(*number) : 0;
    }
    return S_OK;
}

ULONG Notifier::effective(INT folder) {
    const auto set = set_.find(folder);
    if (set != set_.end()) return set->second;
    const auto saved = saved_.find(folder);
    return saved != saved_.end() ? saved->second : 0;
}

HRESULT Notifier::flags(INT folder, ULONG& flags) {
    const std::lock_guard lock(mutex_);
    {
        const auto reading = store_.lock();
        const HRESULT result = store_.refresh();  // somebody may have saved others
        if (FAILED(result)) return result;
    }
    const HRESULT result = load_saved();
    if (SUCCEEDED(result)) flags = effective(folder);
    return result;
}

HRESULT Notifier::set_flags(INT folder, ULONG flags) {
    const std::lock_guard lock(mutex_);
    dispatch_locked();  // what came before goes by the old flags
    set_[folder] = flags;
    return S_OK;
}

void Notifier::dispatch() {
    if (window_count_.load() == 0) return;
    const std::lock_guard lock(mutex_);
    dispatch_locked();
}

// A window whose queue is full sits the rest of the round out, and calls when it has room; a failure to read ends the
// round, and the worker tries again.
void Notifier::dispatch_locked() {
    behind_.store(false);
    std::vector<Window*> round;
    for (Window& window : windows_) {
        round.push_back(&window);
    }
    const auto by_place = [](const Window* a, const Window* b) { return a->seq < b->seq; };
    while (!round.empty()) {
        std::vector<Change> changes;
        if (!read_changes((*std::min_element(round.begin(), round.end(), by_place))->seq, changes)) {
            behind_.store(true);
            break;
        }
        std::erase_if(round, [&](Window* window) { return !post_all(*window, changes); });
        if (changes.size() < kChunk) break;
    }
    keep_place();
    if (behind_.load()) call_store_watcher(*this);
}

// What the windows have not been told yet stays in the log. Where its place cannot be written the old one holds back
// more.
void Notifier::keep_place() {
    if (windows_.empty()) return;
    LONGLONG oldest = windows_.front().seq;
    for (const Window& window : windows_) {
        oldest = std::min(oldest, window.seq);
    }
    static_cast<void>(store_.shared().keep_changes(oldest));
}

bool Notifier::read_changes(LONGLONG seq, std::vector<Change>& changes) {
    {
        const auto reading = store_.lock();
        if (FAILED(store_.refresh())) return false;
        if (store_.seq() <= seq) return true;
        if (FAILED(store_.logged(seq, kChunk, changes))) return false;
    }
    return SUCCEEDED(load_saved());
}

// False: the window could not take all of them.
bool Notifier::post_all(Window& window, const std::vector<Change>& changes) {
    for (const Change& change : changes) {
        if (change.seq <= window.seq) continue;
        if (!post(window, change)) return false;
        window.seq = change.seq;
    }
    return true;
}

// False: the queue is full, the change is to be posted later. A window that is gone needs nothing.
bool Notifier::post(Window& window, const Change& change) {
    if (change.kind == ChangeKind::Folder) return true;
    const bool local = change.origin == store_.shared().origin();
    const INT folder = folder_of(change.oid);
    if ((effective(folder) & (local ? PIMFOLDERNOTIFICATION_LOCAL : PIMFOLDERNOTIFICATION_REMOTE)) == 0) return true;
    const UINT message = (local ? PIM_ITEM_CREATED_LOCAL : PIM_ITEM_CREATED_REMOTE) + static_cast<UINT>(change.kind);
    const Posted posted = post_or_wait(window.window, message, static_cast<WPARAM>(change.oid), folder, window);
    if (posted == Posted::Later) behind_.store(true);
    return posted == Posted::Yes || posted == Posted::Gone;
}

bool Notifier::rang() noexcept {
    store_.shared().look_again();
    try {
        dispatch();
    } catch (const std::bad_alloc&) {
        return true;  // when there is memory again
    }
    return behind_.load();
}

}  // namespace zr::platform::pim
