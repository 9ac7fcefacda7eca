#include "notifier.h"

#include <algorithm>
#include <atomic>
#include <deque>

#include "com/com_object.h"
#include "store.h"

namespace zr::platform::mapi {
namespace {

constexpr int kChunk = 512;
constexpr UINT kDeliver = WM_APP;
constexpr UINT kClose = WM_APP + 1;
constexpr LPCWSTR kClass = u"zr.mapi.advise";

ULONG event_of(ChangeKind kind) {
    switch (kind) {
        case ChangeKind::Created:
            return fnevObjectCreated;
        case ChangeKind::Deleted:
            return fnevObjectDeleted;
        case ChangeKind::Modified:
            return fnevObjectModified;
        case ChangeKind::Moved:
            return fnevObjectMoved;
        case ChangeKind::Copied:
            return fnevObjectCopied;
        case ChangeKind::NewMail:
            return fnevNewMail;
        default:
            return 0;
    }
}

// Changes as sinks get them; what they point to lies here.
class Notices {
public:
    explicit Notices(std::size_t most) { list_.reserve(most); }

    void add(const MailStore& store, const Change& change, const AccountUid& own, LONGLONG own_account) {
        const auto entry = [&](ULONG type, LONGLONG account, LONGLONG number, ULONG& size, LPENTRYID& id) {
            const Account* const found = store.account(account);
            if (number == 0 || (found == nullptr && account != own_account)) return;
            entries_.push_back(entry_id_bytes({found != nullptr ? found->uid : own, type, number}));
            size = kEntryIdSize;
            id = reinterpret_cast<LPENTRYID>(entries_.back().data());
        };
        NOTIFICATION notice = {};
        notice.ulEventType = event_of(change.kind);
        if (change.kind == ChangeKind::NewMail) {
            NEWMAIL_NOTIFICATION& mail = notice.info.newmail;
            entry(MAPI_MESSAGE, change.account, change.id, mail.cbEntryID, mail.lpEntryID);
            entry(MAPI_FOLDER, change.account, change.parent, mail.cbParentID, mail.lpParentID);
            classes_.push_back(change.message_class);
            mail.lpszMessageClass = classes_.back().data();
            mail.ulFlags = MAPI_UNICODE;
            mail.ulMessageFlags = change.flags;
        } else {
            OBJECT_NOTIFICATION& object = notice.info.obj;
            object.ulObjType = change.type;
            entry(change.type, change.account, change.id, object.cbEntryID, object.lpEntryID);
            entry(MAPI_FOLDER, change.account, change.parent, object.cbParentID, object.lpParentID);
            entry(change.type, change.old_account, change.old_id, object.cbOldID, object.lpOldID);
            entry(MAPI_FOLDER, change.old_account, change.old_parent, object.cbOldParentID, object.lpOldParentID);
        }
        list_.push_back(notice);
    }
    void add_error() {
        NOTIFICATION notice = {};
        notice.ulEventType = fnevCriticalError;
        notice.info.err.scode = MAPI_E_CORRUPT_DATA;
        list_.push_back(notice);
    }
    void tell(IMAPIAdviseSink& sink) {
        if (!list_.empty()) sink.OnNotify(static_cast<ULONG>(list_.size()), list_.data());
    }

private:
    std::vector<NOTIFICATION> list_;
    std::deque<EntryIdBytes> entries_;
    std::deque<std::u16string> classes_;
};

}  // namespace

struct Notifier::Connection {
    ~Connection() {
        if (sink != nullptr) sink->Release();
    }
    ULONG number = 0;
    const void* owner = nullptr;
    Subject subject;
    AccountUid uid{};
    ULONG mask = 0;
    IMAPIAdviseSink* sink = nullptr;
    HWND window = nullptr;
    // Guarded by the notifier's mutex_.
    LONGLONG seq = 0;
    ULONG generation = 0;
    bool removed = false;
    bool deaf = false;  // its thread has ended
    bool busy = false;  // the sink is being called
};

// The hidden window of a thread.
struct Notifier::Listener final : RoomWaiter {
    explicit Listener(Notifier& notifier) : owner(notifier) {}
    ~Listener() override { forget_room(*this); }
    void room() noexcept override { call_store_watcher(owner); }

    Notifier& owner;
    HWND window = nullptr;
    std::thread::id thread;
    bool posted = false;  // guarded by mutex_
};

struct ListenerWindow {
    static LRESULT procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
        if (message == kDeliver) {
            auto* const notifier = reinterpret_cast<Notifier*>(GetWindowLongPtrW(window, GWLP_USERDATA));
            notifier->deliver(window);
            return 0;
        }
        if (message == kClose) {
            DestroyWindow(window);
            return 0;
        }
        return DefWindowProcW(window, message, wparam, lparam);
    }
    static HWND make(Notifier& notifier) {
        static const ATOM atom = [] {
            WNDCLASSW window_class = {};
            window_class.lpfnWndProc = &procedure;
            window_class.lpszClassName = kClass;
            return RegisterClassW(&window_class);
        }();
        if (atom == 0) return nullptr;
        const HWND window =
            CreateWindowExW(0, MAKEINTATOM(atom), u"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
        if (window != nullptr) SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&notifier));
        return window;
    }
    static void close(HWND window, std::thread::id thread) {
        if (thread == std::this_thread::get_id()) {
            DestroyWindow(window);
        } else {
            PostMessageW(window, kClose, 0, 0);
        }
    }
};

Notifier::~Notifier() {
    listen_no_more();
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

// The calling thread's; null when it can have none.
std::shared_ptr<Notifier::Listener> Notifier::listener_of_thread() {
    {
        const std::lock_guard lock(mutex_);
        for (const auto& listener : listeners_) {
            if (listener->thread == std::this_thread::get_id() && IsWindow(listener->window)) return listener;
        }
    }
    auto listener = std::make_shared<Listener>(*this);
    listener->thread = std::this_thread::get_id();
    listener->window = ListenerWindow::make(*this);
    if (listener->window == nullptr) return nullptr;
    const std::lock_guard lock(mutex_);
    listeners_.push_back(listener);
    return listener;
}

HRESULT Notifier::add(const void* owner, const Subject& subject, ULONG mask, LPMAPIADVISESINK sink, ULONG* connection) {
    const std::lock_guard membership(membership_);
    auto fresh = std::make_shared<Connection>();
    HRESULT result = listen();
    if (FAILED(result)) return result;
    const auto listener = listener_of_thread();
    if (listener == nullptr) return fail(MAPI_E_NOT_ENOUGH_RESOURCES, "The thread can have no window.");
    fresh->owner = owner;
    fresh->subject = subject;
    fresh->mask = mask;
    fresh->window = listener->window;
    {
        const auto reading = store_.lock();
        result = store_.refresh();
        if (FAILED(result)) return result;
        fresh->seq = store_.seq();
        fresh->generation = store_.generation();
        if (const Account* const account = store_.account(subject.account)) fresh->uid = account->uid;
    }
    const std::lock_guard lock(mutex_);
    if (connections_.empty()) {
        result = store_result(store_.shared().keep_changes(fresh->seq));
        if (FAILED(result)) return result;
    }
    sink->AddRef();
    fresh->sink = sink;
    fresh->number = next_++;
    *connection = fresh->number;
    connections_.push_back(std::move(fresh));
    // Who was told of a change since it was read where the log stands may not have found this one.
    call_store_watcher(*this);
    return S_OK;
}

// Takes connections out of the list, and ends what nobody needs any more. With membership_ held.
void Notifier::take(std::vector<ConnectionRef>& gone) {
    std::vector<std::shared_ptr<Listener>> idle;
    bool last = false;
    {
        const std::lock_guard lock(mutex_);
        for (const ConnectionRef& connection : gone) {
            connection->removed = true;
            std::erase(connections_, connection);
        }
        const auto is_idle = [&](const std::shared_ptr<Listener>& listener) {
            return std::none_of(connections_.begin(), connections_.end(),
                                [&](const ConnectionRef& each) { return each->window == listener->window; });
        };
        for (const auto& listener : listeners_) {
            if (is_idle(listener)) idle.push_back(listener);
        }
        std::erase_if(listeners_, is_idle);
        last = connections_.empty();
    }
    for (const auto& listener : idle) {
        ListenerWindow::close(listener->window, listener->thread);
    }
    if (last) listen_no_more();
}

HRESULT Notifier::remove(const void* owner, ULONG connection) {
    std::vector<ConnectionRef> gone;
    const std::lock_guard membership(membership_);
    {
        const std::lock_guard lock(mutex_);
        for (const ConnectionRef& each : connections_) {
            if (each->owner == owner && each->number == connection) gone.push_back(each);
        }
    }
    if (gone.empty()) return fail(MAPI_E_NOT_FOUND, "There is no such connection.");
    take(gone);
    return S_OK;
}

void Notifier::remove_all(const void* owner) {
    std::vector<ConnectionRef> gone;
    const std::lock_guard membership(membership_);
    {
        const std::lock_guard lock(mutex_);
        for (const ConnectionRef& each : connections_) {
            if (each->owner == owner) gone.push_back(each);
        }
    }
    if (!gone.empty()) take(gone);
}

// Has a thread look into the log. True: to be tried again after a while. With mutex_ held.
bool Notifier::post(Listener& listener) {
    if (listener.posted) return false;
    const Posted posted = post_or_wait(listener.window, kDeliver, 0, 0, listener);
    listener.posted = posted == Posted::Yes;
    if (posted == Posted::Gone) {
        for (const ConnectionRef& connection : connections_) {
            if (connection->window == listener.window) connection->deaf = true;
        }
    }
    return posted == Posted::Later;
}

bool Notifier::rang() noexcept {
    store_.shared().look_again();
    try {
        LONGLONG head = 0;
        ULONG generation = 0;
        {
            const auto reading = store_.lock();
            if (FAILED(store_.refresh())) return true;
            head = store_.seq();
            generation = store_.generation();
        }
        bool again = false;
        const std::lock_guard lock(mutex_);
        for (const auto& listener : listeners_) {
            const bool behind =
                std::any_of(connections_.begin(), connections_.end(), [&](const ConnectionRef& connection) {
                    return connection->window == listener->window && !connection->deaf &&
                           (connection->seq < head || connection->generation != generation);
                });
            if (behind && post(*listener)) again = true;
        }
        return again;
    } catch (const std::bad_alloc&) {
        return true;  // when there is memory again
    }
}

// What nobody has been told yet stays in the log. With mutex_ held.
void Notifier::keep_place() {
    LONGLONG oldest = INT64_MAX;
    for (const ConnectionRef& connection : connections_) {
        if (!connection->deaf) oldest = std::min(oldest, connection->seq);
    }
    if (oldest != INT64_MAX) static_cast<void>(store_.shared().keep_changes(oldest));
}

// On the thread whose window it is.
void Notifier::deliver(HWND window) {
    std::vector<ConnectionRef> mine;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& listener : listeners_) {
            if (listener->window == window) listener->posted = false;
        }
        for (const ConnectionRef& connection : connections_) {
            if (connection->window == window && !connection->busy) mine.push_back(connection);
        }
    }
    bool more = false;
    for (const ConnectionRef& connection : mine) {
        if (deliver_some(connection)) more = true;
    }
    const std::lock_guard lock(mutex_);
    keep_place();
    for (const auto& listener : listeners_) {
        if (more && listener->window == window && post(*listener)) call_store_watcher(*this);
    }
}

// The next piece of the log. True: there was something, so there may be more.
bool Notifier::deliver_some(const ConnectionRef& connection) {
    try {
        LONGLONG seq = 0;
        ULONG generation = 0;
        {
            const std::lock_guard lock(mutex_);
            seq = connection->seq;
            generation = connection->generation;
        }
        std::vector<Change> changes;
        Notices notices(kChunk);
        {
            const auto reading = store_.lock();
            HRESULT result = store_.refresh();
            if (SUCCEEDED(result) && store_.generation() != generation) {
                generation = store_.generation();
                seq = store_.seq();
                if ((connection->mask & fnevCriticalError) != 0) notices.add_error();
            } else if (SUCCEEDED(result)) {
                result = store_.logged(seq, kChunk, changes);
            }
            if (FAILED(result)) {
                call_store_watcher(*this);
                return false;
            }
            for (const Change& change : changes) {
                seq = change.seq;
                if (is_told(*connection, change))
                    notices.add(store_, change, connection->uid, connection->subject.account);
            }
        }
        {
            const std::lock_guard lock(mutex_);
            if (connection->removed) return false;
            connection->seq = seq;
            connection->generation = generation;
            connection->busy = true;
        }
        notices.tell(*connection->sink);
        const std::lock_guard lock(mutex_);
        connection->busy = false;
        return !changes.empty();
    } catch (const std::bad_alloc&) {
        call_store_watcher(*this);
        return false;
    }
}

bool Notifier::is_told(const Connection& connection, const Change& change) const {
    const Subject& subject = connection.subject;
    if ((connection.mask & event_of(change.kind)) == 0) return false;
    const bool here = change.account == subject.account;
    const bool there = change.old_account == subject.account && change.old_id != 0;
    switch (subject.type) {
        case MAPI_STORE:
            return here || there;
        case MAPI_FOLDER:
            return (change.type == MAPI_FOLDER && (change.id == subject.number || change.old_id == subject.number)) ||
                   (change.type != MAPI_STORE &&
                    (change.parent == subject.number || change.old_parent == subject.number));
        default:
            return change.type == MAPI_MESSAGE && (change.id == subject.number || change.old_id == subject.number);
    }
}

}  // namespace zr::platform::mapi
