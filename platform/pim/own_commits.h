#pragma once

// Which of the latest changes were committed by which thread of this process: what a thread did itself is no surprise
// to it. A commit that is long past is nobody's. With the reading side locked (store.h).

#include <array>
#include <thread>

#include "platform/types.h"

namespace zr::platform::pim {

class OwnCommits {
public:
    // The calling thread committed the changes from `first` to `last`.
    void note(LONGLONG first, LONGLONG last) {
        Commit& newest = at(count_ - 1);
        if (count_ != 0 && newest.last + 1 == first && newest.thread == std::this_thread::get_id()) {
            newest.last = last;
        } else {
            at(count_++) = {first, last, std::this_thread::get_id()};
        }
    }
    // Whether the calling thread committed this change.
    bool has(LONGLONG seq) const { return any(seq, seq); }
    // Whether it committed any of these.
    bool any(LONGLONG first, LONGLONG last) const {
        for (std::size_t i = count_; i != 0 && i + kCommits != count_; --i) {
            const Commit& commit = commits_[(i - 1) % kCommits];
            if (commit.last < first) return false;
            if (commit.first <= last && commit.thread == std::this_thread::get_id()) return true;
        }
        return false;
    }

private:
    struct Commit {
        LONGLONG first = 0;
        LONGLONG last = 0;
        std::thread::id thread;
    };
    static constexpr std::size_t kCommits = 1024;

    Commit& at(std::size_t number) { return commits_[number % kCommits]; }

    std::array<Commit, kCommits> commits_;  // as a ring
    std::size_t count_ = 0;
};

}  // namespace zr::platform::pim
