#include "network_source.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <new>

#include "base/forks.h"
#include "base/host_error.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/iphelper.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

// Whom the kernel wakes: a busy router changes its routes all the time.
constexpr std::uint32_t kAddressGroups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
constexpr std::uint32_t kOtherGroups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
// A listing that is torn each time is taken as it is: another change is about to be told.
constexpr int kMostTries = 5;

// Keeps a set of addresses as messages have it.
template <class Addresses>
class AddressKeeper final : public NetlinkReader {
public:
    explicit AddressKeeper(Addresses& addresses) : addresses_(addresses) {}

    void interface(const NetInterface&, bool) override { others_ = true; }
    void default_route(const NetDefaultRoute&, bool) override { others_ = true; }
    void other() override { others_ = true; }
    void interrupted() override { torn_ = true; }
    void address(const NetAddress& address, bool removed) override try {
        // One that cannot be used is not there.
        NetAddress kept = address;
        kept.usable = true;
        const bool there = address.usable && !removed;
        changed_ |= there ? addresses_.insert(kept).second : addresses_.erase(kept) != 0;
    } catch (const std::bad_alloc&) {
        changed_ = true;
    }

    bool changed() const { return changed_; }
    bool others() const { return others_; }
    bool torn() const { return torn_; }

private:
    Addresses& addresses_;
    bool changed_ = false;
    bool others_ = false;
    bool torn_ = false;
};

alignas(NetworkSource) unsigned char storage[sizeof(NetworkSource)];
NetworkSource& the_source = *new (storage) NetworkSource;

const AtFork registered{ForkRank::IpHelper,
                        {[]() noexcept { the_source.lock(); }, []() noexcept { the_source.unlock(); },
                         []() noexcept { the_source.begin_child(); }, []() noexcept { the_source.resume(); }}};

}  // namespace

NetworkSource& NetworkSource::instance() noexcept {
    return the_source;
}

void NetworkWatch::last_handle_closed() noexcept {
    the_source.remove(*this);
}

DWORD NetworkSource::add(NetworkWatch& watch) {
    resume_after_fork();
    const std::lock_guard control(control_);
    const std::lock_guard guard(mutex_);
    watches_.reserve(watches_.size() + 1);
    DWORD error = ERROR_SUCCESS;
    if (!running_)
        error = start(watch.is_of_all());
    else if (watch.is_of_all() && !is_of_all())
        error = socket_.join(kOtherGroups);
    if (error == 0) watches_.push_back(Ref<NetworkWatch>::retain(watch));
    return error;
}

void NetworkSource::remove(NetworkWatch& watch) noexcept {
    const std::lock_guard control(control_);
    Ref<NetworkWatch> removed;
    bool last = false;
    {
        const std::lock_guard guard(mutex_);
        const auto found = std::ranges::find(watches_, &watch, &Ref<NetworkWatch>::get);
        if (found == watches_.end()) return;
        removed = std::move(*found);
        watches_.erase(found);
        last = watches_.empty();
        if (running_ && !last && removed->is_of_all() && !is_of_all()) socket_.leave(kOtherGroups);
    }
    if (!last) return;
    unwatch_host(*this);
    const std::lock_guard guard(mutex_);
    running_ = false;
    socket_.close();
    lister_.close();
    addresses_.clear();
}

// The socket is told of changes before the addresses are read, so that none falls in between.
DWORD NetworkSource::start(bool all) {
    DWORD error = socket_.open(all ? kAddressGroups | kOtherGroups : kAddressGroups);
    if (error == 0) error = lister_.open(0);
    if (error == 0) error = read_all(addresses_);
    if (error == 0) error = watch_host(*this, socket_.descriptor());
    running_ = error == 0;
    if (running_) return ERROR_SUCCESS;
    socket_.close();
    lister_.close();
    addresses_.clear();
    return error;
}

DWORD NetworkSource::read_all(Addresses& addresses) noexcept {
    for (int tries = 0;; ++tries) {
        addresses.clear();
        AddressKeeper keeper(addresses);
        const DWORD error = lister_.list(NetlinkSocket::What::Addresses, keeper);
        if (error != 0 || !keeper.torn() || tries == kMostTries) return error;
    }
}

// Something was lost: what counts is whether the addresses are others than before.
void NetworkSource::read_again(bool changed) noexcept {
    Addresses now;
    const bool same = read_all(now) == 0 && now == addresses_;
    addresses_.swap(now);
    tell(changed || !same, true);
}

void NetworkSource::tell(bool addresses, bool others) noexcept {
    for (const Ref<NetworkWatch>& watch : watches_) {
        if (addresses || (others && watch->is_of_all())) watch->set();
    }
}

bool NetworkSource::is_of_all() const noexcept {
    return std::ranges::any_of(watches_, [](const auto& each) { return each->is_of_all(); });
}

bool NetworkSource::is_watched() noexcept {
    const std::lock_guard guard(mutex_);
    return is_of_all();
}

void NetworkSource::tell_others() noexcept {
    const std::lock_guard guard(mutex_);
    tell(false, true);
}

void NetworkSource::ready() noexcept {
    const std::lock_guard guard(mutex_);
    if (!running_) return;
    AddressKeeper keeper(addresses_);
    if (socket_.read_changes(keeper)) return tell(keeper.changed(), keeper.others());
    while (!socket_.read_changes(keeper)) {
    }
    read_again(keeper.changed());
}

void NetworkSource::lock() noexcept {
    control_.lock();
    mutex_.lock();
}

void NetworkSource::unlock() noexcept {
    mutex_.unlock();
    control_.unlock();
}

void NetworkSource::begin_child() noexcept {
    socket_.close();
    lister_.close();
    running_ = false;
    unlock();
}

void NetworkSource::resume() noexcept {
    const std::lock_guard guard(mutex_);
    if (running_ || watches_.empty()) return;
    Addresses before;
    before.swap(addresses_);
    const bool same = start(is_of_all()) == 0 && before == addresses_;
    tell(!same, true);
}

DWORD watch_network(NetworkChanges changes, HANDLE& handle) noexcept try {
    handle = nullptr;
    auto* const made = new (std::nothrow) NetworkWatch(changes);
    if (made == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    const auto watch = Ref<NetworkWatch>::adopt(made);
    if (const DWORD error = the_source.add(*watch)) return error;
    handle = open_handle(*watch);
    if (handle != nullptr) return ERROR_SUCCESS;
    const DWORD error = GetLastError();
    the_source.remove(*watch);
    return error;
} catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
}

bool network_is_watched() noexcept {
    return the_source.is_watched();
}

void tell_network_watches() noexcept {
    the_source.tell_others();
}

}  // namespace zr::platform

using namespace zr::platform;

DWORD NotifyAddrChange(HANDLE* handle, OVERLAPPED* overlapped) {
    cancellation_point();
    if (handle != nullptr) *handle = nullptr;
    if (overlapped != nullptr) return ERROR_INVALID_PARAMETER;
    HANDLE changes = nullptr;
    const DWORD error = watch_network(NetworkChanges::Addresses, changes);
    if (error != NO_ERROR) return error;
    if (handle != nullptr) {
        *handle = changes;
        return NO_ERROR;
    }
    struct Closer {
        HANDLE handle;
        ~Closer() { CloseHandle(handle); }
    } const closer{changes};
    return WaitForSingleObject(changes, INFINITE) == WAIT_OBJECT_0 ? NO_ERROR : GetLastError();
}
