#include "zr/stores/mail_batches.h"

#include <system_error>
#include <utility>

namespace zr {
namespace {

// What waits to be saved is in memory as far as it is short, so it is little.
constexpr std::size_t kMostQueued = 8;
constexpr std::uint64_t kMostQueuedBytes = std::uint64_t{1} << 20;

}  // namespace

MailBatches::MailBatches(MailSession& session) : session_(session) {
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error&) {
    }
}

MailBatches::~MailBatches() {
    if (!thread_.joinable()) {
        give_up();
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void MailBatches::rethrow() {
    if (failure_) std::rethrow_exception(failure_);
}

void MailBatches::add(ComPtr<IMessage> message, std::uint64_t size) {
    ++added_;
    if (!thread_.joinable()) return save({std::move(message), size});
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] {
        return failure_ || queue_.empty() || (queue_.size() < kMostQueued && queued_bytes_ + size <= kMostQueuedBytes);
    });
    rethrow();
    queue_.push_back({std::move(message), size});
    queued_bytes_ += size;
    idle_ = false;
    changed_.notify_all();
}

void MailBatches::finish() {
    if (!thread_.joinable()) return commit();
    std::unique_lock lock(mutex_);
    finishing_ = true;
    changed_.notify_all();
    changed_.wait(lock, [&] { return failure_ || idle_; });
    finishing_ = false;
    rethrow();
}

// ---- the thread that saves -----------------------------------------------------------------------------------------

void MailBatches::run() {
    try {
        work();
    } catch (...) {
        const std::lock_guard lock(mutex_);
        failure_ = std::current_exception();
        queue_.clear();
        changed_.notify_all();
    }
    give_up();
}

void MailBatches::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        const auto has_work = [&] { return stopping_ || !queue_.empty() || (finishing_ && !idle_); };
        if (idle_) {
            changed_.wait(lock, has_work);
        } else {
            changed_.wait_until(lock, began_ + kLongestBatch, has_work);
        }
        if (stopping_) return;
        Item item;
        if (!queue_.empty()) {
            item = std::move(queue_.front());
            queue_.pop_front();
            queued_bytes_ -= item.size;
            changed_.notify_all();
        }
        lock.unlock();
        if (item.message) {
            save(std::move(item));
        } else {
            commit();
        }
        lock.lock();
        idle_ = in_batch_ == 0 && queue_.empty();
        if (idle_) changed_.notify_all();
    }
}

void MailBatches::save(Item item) {
    if (in_batch_ == 0) {
        session_.begin_batch();
        began_ = Clock::now();
        batch_bytes_ = 0;
    }
    ++in_batch_;
    batch_bytes_ += item.size;
    try {
        check_mail(item.message->SaveChanges(0), "storing a message");
    } catch (Failure& failure) {
        failure.refused = false;  // it is not the message that is at hand
        throw;
    }
    item.message.reset();
    if (in_batch_ >= kBatchMessages || batch_bytes_ >= kBatchBytes || is_over()) commit();
}

void MailBatches::commit() {
    if (in_batch_ == 0) return;
    const std::size_t count = std::exchange(in_batch_, 0);
    session_.commit_batch();
    kept_.fetch_add(static_cast<long>(count), std::memory_order_release);
}

void MailBatches::give_up() {
    if (std::exchange(in_batch_, 0) != 0) session_.rollback_batch();
}

}  // namespace zr
