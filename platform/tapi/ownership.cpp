#include "ownership.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <new>
#include <optional>

#include "base/file_lock.h"
#include "base/shared_memory.h"
#include "base/state_folder.h"
#include "kernel/living.h"
#include "platform/base.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

constexpr int kTakers = 256;
constexpr int kOwners = 2048;
constexpr int kHanded = 256;
constexpr std::size_t kNameLength = 64;
constexpr int kLockPatience = 2000;

// Whose fact it is. `used` is stored last and cleared first: an entry that somebody was killed in is free.
struct SharedEntry {
    std::atomic<std::uint32_t> used;
    std::atomic<std::uint32_t> session;
    std::atomic<std::uint64_t> region;
    std::atomic<std::uint64_t> birth;
};

struct SharedTaker {
    SharedEntry whose;
    std::atomic<std::uint32_t> line;
    std::atomic<std::uint32_t> media_modes;
    std::atomic<std::uint64_t> since;
    std::atomic<std::uint64_t> name[2];
    std::atomic<WCHAR> application[kNameLength];
};

struct SharedOwner {
    SharedEntry whose;
    std::atomic<std::uint64_t> call[2];
};

struct SharedHanded {
    SharedEntry whose;  // the one that is to have it
    std::atomic<std::uint32_t> line;
    std::atomic<std::uint64_t> call[2];
};

struct CallsPage {
    std::atomic<std::uint64_t> clock;  // orders the takers
    SharedTaker takers[kTakers];
    SharedOwner owners[kOwners];
    SharedHanded handed[kHanded];
};

SharedName name_in(const std::atomic<std::uint64_t> (&numbers)[2]) {
    return {numbers[0].load(), numbers[1].load()};
}
void put_name(std::atomic<std::uint64_t> (&numbers)[2], const SharedName& name) {
    numbers[0].store(name.first);
    numbers[1].store(name.second);
}

ProcessMark mark_in(const SharedEntry& entry) {
    return {entry.region.load(), entry.birth.load()};
}

std::u16string event_name(std::uint64_t birth) {
    char text[40];
    std::snprintf(text, sizeof text, "zr.calls.%llx", static_cast<unsigned long long>(birth));
    return {text, text + std::char_traits<char>::length(text)};
}

class Ownership;
alignas(SharedPage<CallsPage>) unsigned char page_storage[sizeof(SharedPage<CallsPage>)];
SharedPage<CallsPage>& the_page = *new (page_storage) SharedPage<CallsPage>;
std::mutex page_lock;
bool has_facts = false;  // of this process

// The page, and the right to read and change it, among the threads of this process and among processes.
class Ownership {
public:
    Ownership() : guard_(page_lock) {
        const Folder folder = runtime_folder();
        if (folder.error == ERROR_NOT_ENOUGH_MEMORY) throw std::bad_alloc();
        if (!folder) return;
        if (!mark_of_process(mark_)) {
            if (GetLastError() == ERROR_NOT_ENOUGH_MEMORY) throw std::bad_alloc();
            return;
        }
        path_ = folder.path + "/calls-1-64";
        if (the_page.open(path_.c_str()) != 0) return;
        is_there_ = lock_.take(path_.c_str(), FileLock::Missing::IsMade, 0600, kLockPatience) == 0;
    }
    explicit operator bool() const { return is_there_; }
    CallsPage* operator->() const { return &*the_page; }

    bool counts(const SharedEntry& entry) const { return entry.used.load() != 0 && process_lives(mark_in(entry)); }
    bool is_ours(const SharedEntry& entry) const { return entry.used.load() != 0 && mark_in(entry) == mark_; }
    bool is_ours(const SharedEntry& entry, DWORD session) const {
        return is_ours(entry) && entry.session.load() == session;
    }
    // The first entry that is nobody's.
    template <class Entry, std::size_t Count>
    Entry* free_one(Entry (&entries)[Count]) const {
        const auto found = std::ranges::find_if(entries, [&](const Entry& each) { return !counts(each.whose); });
        if (found == std::end(entries)) return nullptr;
        found->whose.used.store(0);
        return found;
    }
    static void occupy(SharedEntry& entry, const ProcessMark& mark, DWORD session) {
        entry.session.store(session);
        entry.region.store(mark.region);
        entry.birth.store(mark.birth);
        entry.used.store(1);
        has_facts = true;
    }
    void occupy(SharedEntry& entry, DWORD session) const { occupy(entry, mark_, session); }
    const ProcessMark& mark() const { return mark_; }

    DWORD owners(const SharedName& call) const {
        return static_cast<DWORD>(std::ranges::count_if(the_page->owners, [&](const SharedOwner& each) {
            return name_in(each.call) == call && counts(each.whose);
        }));
    }
    bool own(const SharedName& call, const ProcessMark& mark, DWORD session) const {
        for (const SharedOwner& each : the_page->owners) {
            const bool is_it = name_in(each.call) == call && each.whose.used.load() != 0 &&
                               mark_in(each.whose) == mark && each.whose.session.load() == session;
            if (is_it) return true;
        }
        SharedOwner* const entry = free_one(the_page->owners);
        if (entry == nullptr) return false;
        put_name(entry->call, call);
        occupy(entry->whose, mark, session);
        return true;
    }

    // See takes_calls; NULL: nobody.
    SharedTaker* find_taker(const SharedName& line, DWORD media_mode, std::span<const std::u16string> order,
                            bool only_order) const;

private:
    const std::lock_guard<std::mutex> guard_;
    ProcessMark mark_;
    std::string path_;
    FileLock lock_;
    bool is_there_ = false;
};

std::u16string application_of(const SharedTaker& taker) {
    std::u16string name;
    for (const auto& unit : taker.application) {
        const WCHAR value = unit.load();
        if (value == 0) break;
        name += value;
    }
    return name;
}

bool is_named(const SharedTaker& taker, const std::u16string& name) {
    const std::u16string cut = name.substr(0, kNameLength - 1);
    return _wcsicmp(application_of(taker).c_str(), cut.c_str()) == 0;
}

SharedTaker* Ownership::find_taker(const SharedName& line, DWORD media_mode, std::span<const std::u16string> order,
                                   bool only_order) const {
    SharedTaker* best = nullptr;
    std::size_t best_place = 0;
    for (SharedTaker& each : the_page->takers) {
        const bool fits =
            counts(each.whose) && name_in(each.name) == line && (each.media_modes.load() & media_mode) != 0;
        if (!fits) continue;
        const auto place = static_cast<std::size_t>(
            std::ranges::find_if(order, [&](const std::u16string& name) { return is_named(each, name); }) -
            order.begin());
        if (only_order && place == order.size()) continue;
        const bool better =
            best == nullptr || place < best_place || (place == best_place && each.since.load() < best->since.load());
        if (better) {
            best = &each;
            best_place = place;
        }
    }
    return best;
}

template <class Entries, class Which>
void free_those(Entries& entries, Which&& which) {
    for (auto& each : entries) {
        if (which(each)) each.whose.used.store(0);
    }
}

}  // namespace

SharedName shared_name(std::string_view owner, std::string_view path) noexcept {
    // FNV-1a, twice from different starts.
    const auto hash = [&](std::uint64_t value) {
        const auto add = [&](char c) { value = (value ^ static_cast<unsigned char>(c)) * 0x100000001B3ull; };
        std::ranges::for_each(owner, add);
        add('\0');
        std::ranges::for_each(path, add);
        return value;
    };
    return {hash(0xCBF29CE484222325ull), hash(0x9AE16A3B2F90404Full)};
}

LONG add_taker(const CallTaker& taker) {
    const Ownership shared;
    SharedTaker* const entry = shared ? shared.free_one(shared->takers) : nullptr;
    if (entry == nullptr) return LINEERR_RESOURCEUNAVAIL;
    entry->line.store(taker.line);
    entry->media_modes.store(taker.media_modes);
    entry->since.store(shared->clock.fetch_add(1));
    put_name(entry->name, taker.name);
    for (std::size_t i = 0; i < kNameLength; ++i) {
        entry->application[i].store(i + 1 < kNameLength && i < taker.application.size() ? taker.application[i] : u'\0');
    }
    shared.occupy(entry->whose, taker.session);
    return 0;
}

void end_line(const ClosedLine& line) {
    if (!line.takes && line.owned.empty()) return;
    const Ownership shared;
    if (!shared) return;
    free_those(shared->owners, [&](const SharedOwner& each) {
        return shared.is_ours(each.whose, line.session) && std::ranges::count(line.owned, name_in(each.call)) != 0;
    });
    free_those(shared->takers,
               [&](const SharedTaker& each) { return each.line == line.handle && shared.is_ours(each.whose); });
}

LONG own_call(const SharedName& call, HLINEAPP session) {
    const Ownership shared;
    return shared && shared.own(call, shared.mark(), session) ? 0 : LINEERR_RESOURCEUNAVAIL;
}

bool disown_call(const SharedName& call, HLINEAPP session, bool only_with_others) {
    const Ownership shared;
    if (!shared) return true;
    const auto is_it = [&](const SharedOwner& each) {
        return name_in(each.call) == call && shared.is_ours(each.whose, session);
    };
    const auto own = static_cast<DWORD>(std::ranges::count_if(shared->owners, is_it));
    if (only_with_others && own != 0 && shared.owners(call) == own) return false;
    free_those(shared->owners, is_it);
    return true;
}

void end_owner(HLINEAPP session) {
    {
        const std::lock_guard guard(page_lock);
        if (!has_facts) return;
    }
    const Ownership shared;
    if (!shared) return;
    const auto is_its = [&](const auto& each) { return shared.is_ours(each.whose, session); };
    free_those(shared->takers, is_its);
    free_those(shared->owners, is_its);
    free_those(shared->handed, is_its);
}

DWORD count_owners(const SharedName& call) {
    const Ownership shared;
    return shared ? shared.owners(call) : 0;
}

bool takes_calls(const SharedName& line, DWORD media_mode, std::span<const std::u16string> order, HLINEAPP session) {
    const Ownership shared;
    const SharedTaker* const found = shared ? shared.find_taker(line, media_mode, order, false) : nullptr;
    return found != nullptr && shared.is_ours(found->whose, session);
}

LONG hand_call(const SharedName& call, const SharedName& line, DWORD media_mode, std::span<const std::u16string> order,
               bool only_first, HLINEAPP session) {
    std::u16string event;
    {
        const Ownership shared;
        if (!shared) return LINEERR_RESOURCEUNAVAIL;
        SharedTaker* const target = shared.find_taker(line, media_mode, order, only_first);
        if (target == nullptr) return LINEERR_TARGETNOTFOUND;
        if (shared.is_ours(target->whose, session)) return LINEERR_TARGETSELF;
        SharedHanded* const entry = shared.free_one(shared->handed);
        const ProcessMark mark = mark_in(target->whose);
        const DWORD to = target->whose.session.load();
        if (entry == nullptr || !shared.own(call, mark, to)) return LINEERR_RESOURCEUNAVAIL;
        entry->line.store(target->line.load());
        put_name(entry->call, call);
        shared.occupy(entry->whose, mark, to);
        event = event_name(mark.birth);
    }
    if (HANDLE const opened = OpenEventW(EVENT_MODIFY_STATE, FALSE, event.c_str())) {
        SetEvent(opened);
        CloseHandle(opened);
    }
    return 0;
}

void take_handed_calls(std::vector<HandedCall>& calls) {
    const Ownership shared;
    if (!shared) return;
    calls.reserve(calls.size() + kHanded);
    for (SharedHanded& each : shared->handed) {
        if (!shared.is_ours(each.whose)) continue;
        calls.push_back({each.whose.session.load(), each.line.load(), name_in(each.call)});
        each.whose.used.store(0);
    }
}

std::u16string handed_calls_event() {
    ProcessMark mark;
    return mark_of_process(mark) ? event_name(mark.birth) : std::u16string();
}

void lock_ownership() noexcept {
    page_lock.lock();
}
void unlock_ownership() noexcept {
    page_lock.unlock();
}
void forget_ownership_in_child() noexcept {
    has_facts = false;
    page_lock.unlock();
}

}  // namespace zr::platform
