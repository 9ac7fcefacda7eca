#pragma once

// What a Logon opens: the session that folders, collections and items work through.

#include <atomic>
#include <memory>
#include <mutex>

#include "in_call.h"
#include "last_error.h"
#include "platform/pim.h"
#include "store.h"

namespace zr::platform::pim {

class Application;

// What became of a batch; shared by the session and the items that were saved in it.
enum class BatchOutcome { Open, Kept, Dropped };
using BatchMark = std::shared_ptr<std::atomic<BatchOutcome>>;

class Session {
public:
    // Holds the application object while it lives.
    Session(Application& app, std::shared_ptr<Store> store);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void add_ref() { references_.fetch_add(1, std::memory_order_relaxed); }
    void release() {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    bool is_open() const { return open_.load(std::memory_order_relaxed); }
    HRESULT check_open() const { return is_open() ? S_OK : fail(HRESULT_FROM_WIN32(kNotLoggedOn)); }
    Store& store() { return *store_; }
    Application& app() { return app_; }

    HRESULT start(HWND window);
    void end();

    HRESULT begin_batch();
    HRESULT commit_batch();
    HRESULT rollback_batch();

    // Runs `work(Transaction&)` in a transaction of its own or in the open batch, whose mark is then stored.
    template <class Work>
    HRESULT write(BatchMark& mark, Work work) {
        if (!is_open()) return check_open();
        const InCall in_call;
        const std::lock_guard lock(batch_mutex_);
        if (batch_mark_) {
            mark = batch_mark_;
            return work(batch_);
        }
        mark = nullptr;
        Transaction transaction;
        HRESULT result = transaction.begin(*store_);
        if (SUCCEEDED(result)) result = work(transaction);
        return SUCCEEDED(result) ? transaction.commit() : result;
    }

private:
    ~Session();

    void close_batch(BatchOutcome outcome);

    std::atomic<std::uint32_t> references_{1};
    std::atomic<bool> open_{true};
    Application& app_;
    const std::shared_ptr<Store> store_;
    std::mutex batch_mutex_;
    Transaction batch_;
    BatchMark batch_mark_;
    bool has_window_ = false;
};

class SessionRef {
public:
    SessionRef() = default;
    explicit SessionRef(Session* session) : session_(session) {
        if (session_ != nullptr) session_->add_ref();
    }
    static SessionRef adopt(Session* session) {
        SessionRef ref;
        ref.session_ = session;
        return ref;
    }
    SessionRef(const SessionRef& other) : SessionRef(other.session_) {}
    SessionRef& operator=(const SessionRef& other) {
        SessionRef copy(other);
        std::swap(session_, copy.session_);
        return *this;
    }
    ~SessionRef() {
        if (session_ != nullptr) session_->release();
    }
    Session* operator->() const { return session_; }
    Session& operator*() const { return *session_; }
    explicit operator bool() const { return session_ != nullptr; }

private:
    Session* session_ = nullptr;
};

}  // namespace zr::platform::pim
