#include "current_zone.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "coarse_clock.h"
#include "platform/errors.h"
#include "time/clock.h"
#include "units.h"

namespace zr::platform {

namespace {

std::int64_t unix_second(std::uint64_t units) {
    return static_cast<std::int64_t>(units / kUnitsPerSecond) - kEpochSeconds;
}

// The zone as it was last read, for all threads.
class SharedZone {
public:
    // Looks whether something else is to be read, and reads that. What it was read from has another number each time.
    void refresh();
    void describe(std::int64_t second, CurrentZone& current);

    std::mutex& mutex() { return mutex_; }
    std::uint64_t reading() const { return reading_; }
    DWORD error() const { return error_; }
    const Zone& zone() const { return *zone_; }

private:
    std::mutex mutex_;
    std::uint64_t reading_ = 0;
    ZoneSource source_;
    std::optional<FileIdentity> identity_;
    std::optional<Zone> zone_;
    DWORD error_ = 0;
    bool described_ = false;
    ZoneNow now_{};
};

void SharedZone::refresh() {
    ZoneSource source = ZoneSource::from_environment();
    const std::optional<FileIdentity> identity = source.identity();
    if (reading_ != 0 && source == source_ && identity == identity_) return;
    std::optional<Zone> zone;
    error_ = source.read(zone);
    zone_ = std::move(zone);
    source_ = std::move(source);
    identity_ = identity;
    described_ = false;
    ++reading_;
}

void SharedZone::describe(std::int64_t second, CurrentZone& current) {
    current.error = error_;
    if (error_ != 0) return;
    if (!described_ || second < now_.from || second >= now_.until) now_ = zone_now(*zone_, second);
    described_ = true;
    current.now = now_;
}

// Never destroyed.
alignas(SharedZone) unsigned char zone_storage[sizeof(SharedZone)];
SharedZone& the_zone = *new (zone_storage) SharedZone;

SharedZone& shared_zone() {
    return the_zone;
}

// What a thread knows of the zone, so that it can tell without a lock that nothing has changed.
class KnownZone {
public:
    const CurrentZone& get() noexcept;

private:
    static constexpr std::size_t kRoom = 64;

    bool is_for(const char* named) const noexcept;
    bool holds_at(std::uint64_t coarse) const noexcept;
    void learn(const char* named) noexcept;

    bool known_ = false;
    bool named_ = false;
    char name_[kRoom] = {};  // what TZ was, if it was set
    std::uint64_t looked_ = 0;
    std::uint64_t reading_ = 0;
    CurrentZone current_{};
};

bool KnownZone::is_for(const char* named) const noexcept {
    if (named == nullptr) return !named_;
    return named_ && std::strcmp(named, name_) == 0;
}

// Near a change the coarse clock will not do.
bool KnownZone::holds_at(std::uint64_t coarse) const noexcept {
    if (current_.error != 0) return true;
    const std::int64_t second = unix_second(coarse);
    if (second >= current_.now.from && second + 1 < current_.now.until) return true;
    const std::int64_t exact = unix_second(utc_now());
    return exact >= current_.now.from && exact < current_.now.until;
}

const CurrentZone& KnownZone::get() noexcept {
    const char* const named = std::getenv("TZ");
    const CoarseTime now = coarse_now();
    if (!known_ || now.tick != looked_ || !is_for(named) || !holds_at(now.utc)) {
        learn(named);
        looked_ = now.tick;
    }
    return current_;
}

void KnownZone::learn(const char* named) noexcept {
    const bool fits = named == nullptr || std::strlen(named) < kRoom;
    try {
        SharedZone& shared = shared_zone();
        const std::lock_guard lock(shared.mutex());
        shared.refresh();
        const std::uint64_t now = utc_now();
        if (!known_ || reading_ != shared.reading() || !holds_at(now)) shared.describe(unix_second(now), current_);
        reading_ = shared.reading();
        known_ = fits;
    } catch (const std::bad_alloc&) {
        current_.error = ERROR_NOT_ENOUGH_MEMORY;
        known_ = false;
    }
    named_ = named != nullptr;
    if (named_ && fits) std::strcpy(name_, named);
}

}  // namespace

const CurrentZone& current_zone() noexcept {
    static constinit thread_local KnownZone zone;
    return zone.get();
}

void lock_zone() noexcept {
    the_zone.mutex().lock();
}

void unlock_zone() noexcept {
    the_zone.mutex().unlock();
}

DWORD with_zone(const std::function<void(const Zone&)>& use) {
    SharedZone& shared = shared_zone();
    const std::lock_guard lock(shared.mutex());
    shared.refresh();
    if (shared.error() == 0) use(shared.zone());
    return shared.error();
}

}  // namespace zr::platform
