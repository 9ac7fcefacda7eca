#pragma once

// Keeps messages in batches while its user makes the next ones: a thread saves them one after the other, in the order
// in which they were added, and commits.
//
// Other programs wait for a batch before they write, so it is short: it ends with 1,000 messages, 16 MiB or a second,
// also while nothing is added. What a batch has is kept whole or not at all. For one thread.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>

#include "zr/stores/mail.h"

namespace zr {

class MailBatches {
public:
    static constexpr std::size_t kBatchMessages = 1000;
    static constexpr std::uint64_t kBatchBytes = std::uint64_t{16} << 20;
    static constexpr std::chrono::milliseconds kLongestBatch{1000};

    // The session that the messages are of. Nothing else is written with it, and no call of its extras made.
    explicit MailBatches(MailSession& session);
    ~MailBatches();  // gives up what is not kept
    MailBatches(const MailBatches&) = delete;
    MailBatches& operator=(const MailBatches&) = delete;

    // A message that was not saved yet, and about how much it holds. Waits while enough is under way. Throws what
    // saving an earlier one failed with: nothing of its batch is kept, and nothing that was added since.
    void add(ComPtr<IMessage> message, std::uint64_t size);
    // Returns when all that was added is kept, or throws likewise.
    void finish();

    // How many were added, and how many of these are kept: in the order of adding, so the first ones.
    long added() const { return added_; }
    long kept() const { return kept_.load(std::memory_order_acquire); }

private:
    using Clock = std::chrono::steady_clock;
    struct Item {
        ComPtr<IMessage> message;
        std::uint64_t size = 0;
    };

    void run();
    void work();
    void save(Item item);
    void commit();
    void give_up();
    bool is_over() const { return Clock::now() >= began_ + kLongestBatch; }
    void rethrow();

    MailSession& session_;
    long added_ = 0;
    std::atomic<long> kept_{0};
    // The batch at hand, of the thread that saves.
    std::size_t in_batch_ = 0;
    std::uint64_t batch_bytes_ = 0;
    Clock::time_point began_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Item> queue_;
    std::uint64_t queued_bytes_ = 0;
    bool idle_ = true;        // nothing is being saved, and no batch is open
    bool finishing_ = false;  // somebody waits for that
    bool stopping_ = false;
    std::exception_ptr failure_;
    std::thread thread_;  // not there when none could be started; then the user's saves
};

}  // namespace zr
