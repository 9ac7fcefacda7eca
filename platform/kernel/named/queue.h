#pragma once

// Who waits for which object of the region, and what a change gives to whom. All with the region's lock held.

#include "named/region.h"

namespace zr::platform::named {

// Would a wait of this owner be satisfied by the object now?
bool is_signalled(const Region& region, const Object& object, std::uint64_t owner) noexcept;
// Takes it for that owner; right after is_signalled said yes. True when it was abandoned.
bool acquire(Region& region, Object& object, std::uint64_t owner) noexcept;

// From hold on only holders of the region's lock change the object's word; until let_go, which does nothing while
// somebody waits.
void hold(Object& object) noexcept;
void let_go(Object& object) noexcept;

// The object has changed: takes it for those who wait and can go on, the oldest wait first, and wakes them. A pulse
// counts as signalled during the call, for one sleeper or, by a manual-reset event, for all.
void serve(Region& region, std::uint32_t index, bool pulse = false) noexcept;

// Hangs the sleeper, whose blocks are filled in, into the queues of its objects; takes it off.
void enlist(Region& region, std::uint32_t sleeper) noexcept;
void delist(Region& region, std::uint32_t sleeper) noexcept;

// Takes all objects of the sleeper's wait for it: everything or, when the process is killed meanwhile, what is left of
// it by who repairs the region. True when one was abandoned.
bool acquire_all(Region& region, Sleeper& sleeper) noexcept;

void wake(Region& region, Sleeper& sleeper) noexcept;

// Wakes those who may have been told to wake up by a process that was killed before it did the last step.
void wake_notified(Region& region) noexcept;

std::uint64_t owner_of(const Sleeper& sleeper) noexcept;

// The part of repair that has to do with waits.
void rebuild_queues(Region& region) noexcept;

}  // namespace zr::platform::named
