#pragma once

// Which sessions own which calls, and to whom calls are handed: what the processes of a user know of each other.
//
// It lies in memory that they share (base/shared_memory.h), one entry a fact. An entry carries the mark of its process
// (kernel/living.h) and counts for as long as that lives, so a killed owner owns nothing. All functions may be called
// from any thread; they may throw std::bad_alloc.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/tapi.h"

namespace zr::platform {

// Names a line or a call of a service in all processes.
struct SharedName {
    std::uint64_t first = 0;
    std::uint64_t second = 0;

    friend bool operator==(const SharedName&, const SharedName&) = default;
};
SharedName shared_name(std::string_view owner, std::string_view path) noexcept;

// An opened line that takes calls over.
struct CallTaker {
    HLINEAPP session = 0;
    HLINE line = 0;
    SharedName name;  // the line's
    DWORD media_modes = 0;
    std::u16string application;
};

// What is left of a line that is closed: what the other processes have been told of it.
struct ClosedLine {
    HLINE handle = 0;
    HLINEAPP session = 0;
    bool takes = false;
    std::vector<SharedName> owned;  // calls that its session owns no more
};

struct HandedCall {
    HLINEAPP session = 0;
    HLINE line = 0;
    SharedName call;
};

// 0, or LINEERR_RESOURCEUNAVAIL when there is no room, or no memory that is shared.
LONG add_taker(const CallTaker& taker);
void end_line(const ClosedLine& line);  // all of it or, thrown out of, nothing

LONG own_call(const SharedName& call, HLINEAPP session);
// False, and nothing is changed, when the session would leave a call without an owner and `only_with_others`.
bool disown_call(const SharedName& call, HLINEAPP session, bool only_with_others);
void end_owner(HLINEAPP session);  // of all calls and lines
DWORD count_owners(const SharedName& call);

// Whose line is to have a call: of the first of these applications that has one, or of the one that has it longest.
// `names` empty: any application. True when it is this process's session.
bool takes_calls(const SharedName& line, DWORD media_mode, std::span<const std::u16string> order, HLINEAPP session);
// Makes it an owner and tells it. 0, LINEERR_TARGETNOTFOUND, LINEERR_TARGETSELF, LINEERR_RESOURCEUNAVAIL.
LONG hand_call(const SharedName& call, const SharedName& line, DWORD media_mode, std::span<const std::u16string> order,
               bool only_first, HLINEAPP session);
// Adds what was handed to this process.
void take_handed_calls(std::vector<HandedCall>& calls);
// The name of the event that is set for a process when something is there; "" when it has no mark.
std::u16string handed_calls_event();

// A forked child has nothing of its parent's.
void forget_ownership_in_child() noexcept;
void lock_ownership() noexcept;
void unlock_ownership() noexcept;

}  // namespace zr::platform
