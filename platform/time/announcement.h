#pragma once

// Which of the processes that registered a named event sets it.
//
// All of them notice a change, at about the same time, and the event is one that they share: it is to be set once. So
// the first one to notice puts the time into memory that they share by a path in the runtime folder, and the others,
// who find there a time that they have not met yet, leave it at that. It is only an agreement between the living: a
// process that cannot use it, or finds nothing it can rely on, sets the event, for once too often is better than never.
//
// For one thread at a time.

#include <atomic>
#include <cstdint>
#include <string_view>

#include "base/shared_memory.h"
#include "platform/types.h"

namespace zr::platform {

enum class TimeChange : unsigned { Clock, Zone };
inline constexpr unsigned kTimeChanges = 2;

class Announcement {
public:
    explicit Announcement(std::u16string_view event) noexcept;
    ~Announcement();
    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;

    // A change was noticed. True: this process sets the event, and calls done() when it has. False: another one does;
    // when it is not known to have done so, is_open() is true from now on.
    bool claim(TimeChange change) noexcept;
    void done(TimeChange change) noexcept;

    // Another process was going to set the event. After a while, which is long for setting an event, take_over() tells
    // whether that process came to grief and this one has to; then it calls done().
    bool is_open() const noexcept { return open_[0] != 0 || open_[1] != 0; }
    bool take_over(TimeChange change) noexcept;

    // In a forked child: what was announced, its parent announced.
    void begin_child() noexcept;

private:
    // A time of the monotonic clock, times two, and one more until the event is set.
    using Mark = std::uint64_t;
    struct Page {
        std::atomic<Mark> last[kTimeChanges];
    };

    static Mark mark_now() noexcept;
    std::atomic<Mark>& last(TimeChange change) noexcept { return page_->last[static_cast<unsigned>(change)]; }
    bool is_news(Mark mark, Mark now, unsigned change) const noexcept;

    SharedPage<Page> shared_;
    Page alone_{};  // for a process that has no part in it
    Page* page_ = &alone_;
    Mark met_[kTimeChanges];        // what is not later than this was for changes before
    Mark ours_[kTimeChanges] = {};  // a claim of this process
    Mark open_[kTimeChanges] = {};  // another's that it was not done with
};

}  // namespace zr::platform
