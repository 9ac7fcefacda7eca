#include "named/queue.h"

#include <mutex>

namespace zr::platform::named {
namespace {

Block& block_at(const Region& region, std::uint32_t id) noexcept {
    return region.at<Sleeper>(id / kBlocks).blocks[id % kBlocks];
}

bool is_waiting(const Sleeper& sleeper) noexcept {
    return sleeper.state.load(std::memory_order_relaxed) == Sleeper::Waiting;
}

// Behind the last block of a wait that is not younger.
void link(Region& region, std::uint32_t id, std::uint64_t ticket) noexcept {
    Block& block = block_at(region, id);
    Object& object = region.at<Object>(block.object);
    std::uint32_t previous = object.last_waiter;
    std::uint32_t next = kNone;
    while (previous != kNone && region.at<Sleeper>(previous / kBlocks).ticket > ticket) {
        next = previous;
        previous = block_at(region, previous).previous;
    }
    block.previous = previous;
    block.next = next;
    (previous != kNone ? block_at(region, previous).next : object.first_waiter) = id;
    (next != kNone ? block_at(region, next).previous : object.last_waiter) = id;
}

void unlink(Region& region, const Block& block) noexcept {
    Object& object = region.at<Object>(block.object);
    (block.previous != kNone ? block_at(region, block.previous).next : object.first_waiter) = block.next;
    (block.next != kNone ? block_at(region, block.next).previous : object.last_waiter) = block.previous;
    let_go(object);
}

bool has_dead_owner(const Region& region, std::uint64_t word) noexcept {
    return (word & kOwner) != 0 && !region.lives(owner_place(word), owner_generation(word));
}

// Whether anybody could take something of it.
bool has_signal(const Object& object) noexcept {
    const std::uint64_t word = object.word.load(std::memory_order_acquire);
    return (word & (object.kind == Kind::Semaphore ? kCount : kSignalled)) != 0;
}

// Before the sleeper's state says that its objects are being taken.
void note_before(const Region& region, Sleeper& sleeper) noexcept {
    for (std::uint32_t i = 0; i < sleeper.count; ++i) {
        const std::uint64_t word = region.at<Object>(sleeper.blocks[i].object).word.load(std::memory_order_relaxed);
        sleeper.blocks[i].before = static_cast<std::uint32_t>(word & kCount);
    }
}

// Once more changes nothing: what a semaphore is to count is known, and nobody else has changed it since.
bool take_block(Region& region, const Sleeper& sleeper, const Block& block) noexcept {
    Object& object = region.at<Object>(block.object);
    if (object.kind != Kind::Semaphore) return acquire(region, object, owner_of(sleeper));
    const std::uint64_t word = object.word.load(std::memory_order_relaxed);
    object.word.exchange((word & ~kCount) | (block.before - 1), std::memory_order_acq_rel);
    return false;
}

void finish_grant(Region& region, Sleeper& sleeper) noexcept {
    if (sleeper.granted == Sleeper::kAllBlocks) {
        for (std::uint32_t i = 0; i < sleeper.count; ++i) {
            take_block(region, sleeper, sleeper.blocks[i]);
        }
    } else {
        take_block(region, sleeper, sleeper.blocks[sleeper.granted]);
    }
    sleeper.state.store(Sleeper::Granted, std::memory_order_release);
}

bool would_be_abandoned(const Region& region, const Object& object) noexcept {
    const std::uint64_t word = object.word.load(std::memory_order_relaxed);
    return object.kind == Kind::Mutex && ((word & kAbandoned) != 0 || has_dead_owner(region, word));
}

// Takes one object, or all, for a sleeper, which then is out of all queues and awake.
void grant(Region& region, std::uint32_t index, std::uint32_t block) noexcept {
    Sleeper& sleeper = region.at<Sleeper>(index);
    bool abandoned = false;
    for (std::uint32_t i = 0; i < sleeper.count; ++i) {
        if (block != Sleeper::kAllBlocks && block != i) continue;
        abandoned |= would_be_abandoned(region, region.at<Object>(sleeper.blocks[i].object));
    }
    note_before(region, sleeper);
    sleeper.granted = block;
    sleeper.abandoned = abandoned ? 1 : 0;
    sleeper.state.store(Sleeper::Granting, std::memory_order_release);
    finish_grant(region, sleeper);
    delist(region, index);
    wake(region, sleeper);
}

bool all_signalled(const Region& region, const Sleeper& sleeper, std::uint32_t pulsed) noexcept {
    for (std::uint32_t i = 0; i < sleeper.count; ++i) {
        const std::uint32_t index = sleeper.blocks[i].object;
        if (index != pulsed && !is_signalled(region, region.at<Object>(index), owner_of(sleeper))) return false;
    }
    return true;
}

// Gives the object to the sleeper of the block if it can go on; true when it did.
bool offer(Region& region, std::uint32_t object, std::uint32_t id, bool pulse) noexcept {
    Sleeper& sleeper = region.at<Sleeper>(id / kBlocks);
    if (!region.lives(sleeper.process, sleeper.process_generation)) return false;  // who clears up will take it off
    if (sleeper.wait_all == 0) {
        if (!pulse && !is_signalled(region, region.at<Object>(object), owner_of(sleeper))) return false;
        grant(region, id / kBlocks, id % kBlocks);
        return true;
    }
    if (sleeper.mixed != 0) {
        wake(region, sleeper);  // it looks for itself
        return false;
    }
    if (!all_signalled(region, sleeper, pulse ? object : kNone)) return false;
    grant(region, id / kBlocks, Sleeper::kAllBlocks);
    return true;
}

}  // namespace

std::uint64_t owner_of(const Sleeper& sleeper) noexcept {
    return make_owner(sleeper.process, sleeper.process_generation, sleeper.thread);
}

bool is_signalled(const Region& region, const Object& object, std::uint64_t owner) noexcept {
    const std::uint64_t word = object.word.load(std::memory_order_acquire);
    if (object.kind != Kind::Mutex) return has_signal(object);
    return (word & kOwner) == 0 || (word & kOwner) == owner || has_dead_owner(region, word);
}

bool acquire(Region& region, Object& object, std::uint64_t owner) noexcept {
    if (object.kind == Kind::Semaphore) {
        object.word.fetch_sub(1, std::memory_order_acq_rel);
        return false;
    }
    if (object.kind != Kind::Mutex) {
        if (object.manual_reset == 0) object.word.fetch_and(~kSignalled, std::memory_order_acq_rel);
        return false;
    }
    const std::uint64_t word = object.word.load(std::memory_order_relaxed);
    if ((word & kOwner) == owner) return false;
    const bool abandoned = would_be_abandoned(region, object);
    object.word.exchange((word & ~(kOwner | kAbandoned)) | owner, std::memory_order_acq_rel);
    return abandoned;
}

void hold(Object& object) noexcept {
    object.word.fetch_or(kWaiters, std::memory_order_acq_rel);
}

void let_go(Object& object) noexcept {
    if (object.first_waiter == kNone) object.word.fetch_and(~kWaiters, std::memory_order_release);
}

void wake(Region& region, Sleeper& sleeper) noexcept {
    if (sleeper.parking.exchange(kNotified, std::memory_order_acq_rel) == kSleeping) {
        region.wake_later(sleeper.parking);
    }
}

void wake_notified(Region& region) noexcept {
    const std::uint32_t count = region.count<Sleeper>();
    for (std::uint32_t i = 0; i < count; ++i) {
        const Sleeper& sleeper = region.at<Sleeper>(i);
        if (sleeper.state.load(std::memory_order_relaxed) == Sleeper::Vacant) continue;
        if (sleeper.parking.load(std::memory_order_relaxed) == kNotified) region.wake_later(sleeper.parking);
    }
}

void enlist(Region& region, std::uint32_t index) noexcept {
    Sleeper& sleeper = region.at<Sleeper>(index);
    sleeper.ticket = ++region.header().tickets;
    sleeper.state.store(Sleeper::Waiting, std::memory_order_release);
    for (std::uint32_t i = 0; i < sleeper.count; ++i) {
        link(region, index * kBlocks + i, sleeper.ticket);
    }
}

void delist(Region& region, std::uint32_t index) noexcept {
    Sleeper& sleeper = region.at<Sleeper>(index);
    if (is_waiting(sleeper)) sleeper.state.store(Sleeper::Idle, std::memory_order_release);
    for (std::uint32_t i = 0; i < sleeper.count; ++i) {
        unlink(region, sleeper.blocks[i]);
    }
    sleeper.count = 0;
}

bool acquire_all(Region& region, Sleeper& sleeper) noexcept {
    const std::uint32_t before = sleeper.state.load(std::memory_order_relaxed);
    note_before(region, sleeper);
    sleeper.granted = Sleeper::kAllBlocks;
    sleeper.state.store(Sleeper::Granting, std::memory_order_release);
    bool abandoned = false;
    for (std::uint32_t i = 0; i < sleeper.count; ++i) {
        abandoned |= take_block(region, sleeper, sleeper.blocks[i]);
    }
    sleeper.state.store(before, std::memory_order_release);
    return abandoned;
}

void serve(Region& region, std::uint32_t index, bool pulse) noexcept {
    const Object& object = region.at<Object>(index);
    std::uint32_t next = kNone;
    for (std::uint32_t id = object.first_waiter; id != kNone; id = next) {
        // The grant takes all blocks of a sleeper off; the same object twice in one wait stands in a row.
        for (next = block_at(region, id).next; next != kNone && next / kBlocks == id / kBlocks;) {
            next = block_at(region, next).next;
        }
        const bool given = offer(region, index, id, pulse);
        if (given && (object.kind == Kind::Mutex || (pulse && object.manual_reset == 0))) return;
        if (!pulse && object.kind != Kind::Mutex && !has_signal(object)) return;
    }
}

void rebuild_queues(Region& region) noexcept {
    const std::uint32_t objects = region.count<Object>();
    for (std::uint32_t i = 0; i < objects; ++i) {
        region.at<Object>(i).first_waiter = kNone;
        region.at<Object>(i).last_waiter = kNone;
    }
    const std::uint32_t sleepers = region.count<Sleeper>();
    for (std::uint32_t i = 0; i < sleepers; ++i) {
        Sleeper& sleeper = region.at<Sleeper>(i);
        if (sleeper.state.load(std::memory_order_relaxed) == Sleeper::Granting) finish_grant(region, sleeper);
        if (sleeper.state.load(std::memory_order_relaxed) == Sleeper::Granted) {
            sleeper.count = 0;
            wake(region, sleeper);
        }
        if (!is_waiting(sleeper)) continue;
        for (std::uint32_t block = 0; block < sleeper.count; ++block) {
            link(region, i * kBlocks + block, sleeper.ticket);
        }
    }
    for (std::uint32_t i = 0; i < objects; ++i) {
        Object& object = region.at<Object>(i);
        if (object.first_waiter != kNone) hold(object);
        let_go(object);
        serve(region, i);
    }
    wake_notified(region);
}

}  // namespace zr::platform::named
