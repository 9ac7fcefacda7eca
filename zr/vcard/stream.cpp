#include "zr/vcard/stream.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <system_error>
#include <utility>

#include "zr/base/interruption.h"

namespace zr {
CardStream::CardStream(int fd, int end)
    : stop_(::eventfd(0, EFD_CLOEXEC)), lines_(read_until(fd, stop_, end)), reader_(lines_) {
    if (stop_ < 0) return;
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        // Without a thread of its own it is slower, and the same.
    }
}

CardStream::~CardStream() {
    if (thread_.joinable()) {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        ::eventfd_write(stop_, 1);
        thread_.join();
    }
    if (stop_ >= 0) ::close(stop_);
}

bool CardStream::next(Part& part) {
    part = {};
    if (!thread_.joinable()) return read(part);
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !parts_.empty() || at_end_; });
    if (!parts_.empty()) {
        part = std::move(parts_.front());
        parts_.pop_front();
        lock.unlock();
        changed_.notify_all();
        return true;
    }
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
    return false;
}

void CardStream::run() {
    std::exception_ptr failure;
    try {
        for (Part part; read(part); part = {}) {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return parts_.size() < kParts || stopping_; });
            if (stopping_) break;
            parts_.push_back(std::move(part));
            lock.unlock();
            changed_.notify_all();
        }
    } catch (...) {
        failure = std::current_exception();
    }
    const std::lock_guard lock(mutex_);
    at_end_ = true;
    failure_ = failure;
    changed_.notify_all();
}

// Some more cards, or what is wrong with some; false at the end.
bool CardStream::read(Part& part) {
    std::vector<Problem> problems;
    Card card;
    const std::uint64_t begin = lines_.bytes_read();
    while (part.cards.size() + part.notes.size() < kPartCards && lines_.bytes_read() - begin < kPartBytes) {
        const CardReader::Result result = reader_.next(card, problems);
        if (result == CardReader::Result::End) break;
        if (!problems.empty()) part.notes.push_back({std::move(problems), result == CardReader::Result::Damaged});
        problems.clear();
        if (result == CardReader::Result::Card) part.cards.push_back(std::move(card));
    }
    part.bytes_read = lines_.bytes_read();
    return !part.cards.empty() || !part.notes.empty();
}

}  // namespace zr
