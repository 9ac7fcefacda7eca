#pragma once

// What a logon opens: the session that stores, folders, messages and tables work through. It lives until the last of
// them is released.

#include <atomic>
#include <memory>
#include <thread>

#include "last_error.h"
#include "store.h"
#include "transaction.h"

namespace zr::platform::mapi {

// What became of a batch; shared by the session and the messages that were saved in it.
enum class BatchOutcome { Open, Kept, Dropped };
using BatchMark = std::shared_ptr<std::atomic<BatchOutcome>>;

class Session {
public:
    explicit Session(MailStore& store) : store_(store) {}
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    MailStore& store() { return store_; }
    HRESULT check_open() const { return open_.load() ? S_OK : fail(MAPI_E_END_OF_SESSION); }
    void end();

    HRESULT begin_batch();
    HRESULT commit_batch();
    HRESULT rollback_batch();

    // Runs `work(Transaction&)` in a transaction of its own, or in the calling thread's batch, whose mark is then
    // stored.
    template <class Work>
    HRESULT write(BatchMark& mark, Work work) {
        if (const HRESULT result = check_open(); FAILED(result)) return result;
        if (has_batch()) {
            mark = mark_;
            return work(batch_);
        }
        mark = nullptr;
        Transaction transaction;
        HRESULT result = transaction.begin(store_);
        if (SUCCEEDED(result)) result = work(transaction);
        if (FAILED(result)) return result;
        const HRESULT kept = transaction.commit();
        return FAILED(kept) ? kept : result;
    }
    template <class Work>
    HRESULT write(Work work) {
        BatchMark mark;
        return write(mark, std::move(work));
    }

private:
    bool has_batch() const { return holder_.load() == std::this_thread::get_id(); }
    void close_batch(BatchOutcome outcome);

    MailStore& store_;
    std::atomic<bool> open_{true};
    std::atomic<std::thread::id> holder_{};  // of the batch, which nobody else touches
    Transaction batch_;
    BatchMark mark_;
};
using SessionRef = std::shared_ptr<Session>;

}  // namespace zr::platform::mapi
