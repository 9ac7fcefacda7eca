#include "views.h"

#include <sys/mman.h>

#include <cerrno>
#include <mutex>
#include <new>

#include "at_fork.h"
#include "base/host_error.h"
#include "futex.h"
#include "platform/base.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

// Known by where it begins.
struct View {
    char* base;
    std::size_t size;
    View* next;
    int protection;  // the host's
    bool copies;
    MappedFileHold hold;
};

constexpr std::size_t kViewBuckets = 256;

FutexLock views_lock;
View* views[kViewBuckets];

View*& bucket(const void* base) noexcept {
    return views[(reinterpret_cast<std::uintptr_t>(base) >> 12) % kViewBuckets];
}

// The record of the view that begins there, taken off the table; NULL when there is none.
View* take(const void* base) noexcept {
    const std::lock_guard guard(views_lock);
    for (View** link = &bucket(base); *link; link = &(*link)->next) {
        View* const view = *link;
        if (view->base != base) continue;
        *link = view->next;
        return view;
    }
    return nullptr;
}

// The view that holds the byte; NULL when none does. With the lock held.
const View* view_at(const char* at) noexcept {
    for (const View* view : views) {
        for (; view; view = view->next) {
            if (at >= view->base && at < view->base + view->size) return view;
        }
    }
    return nullptr;
}

// How many bytes are left from `at` to the end of the view that holds it; 0 when none does.
std::size_t bytes_from(const char* at) noexcept {
    const std::lock_guard guard(views_lock);
    const View* const view = view_at(at);
    return view ? static_cast<std::size_t>(view->base + view->size - at) : 0;
}

}  // namespace

void at_fork::lock_views() noexcept {
    views_lock.lock();
}

void at_fork::unlock_views() noexcept {
    views_lock.unlock();
}

void* keep_view(const ViewFacts& facts, void* (*map)(const void* context), const void* context) noexcept {
    View* const view = new (std::nothrow) View;
    void* const base = view ? map(context) : MAP_FAILED;
    if (base == MAP_FAILED) {
        SetLastError(view ? error_from_errno(errno) : ERROR_NOT_ENOUGH_MEMORY);
        delete view;
        return nullptr;
    }
    *view = {static_cast<char*>(base), facts.size, nullptr, facts.host_protection, facts.copies, facts.hold};
    const std::lock_guard guard(views_lock);
    View*& first = bucket(base);
    view->next = first;
    first = view;
    return base;
}

// Views begin where pages do.
bool find_view(std::uintptr_t page, ViewRecord& out) noexcept {
    const std::lock_guard guard(views_lock);
    const View* const view = view_at(reinterpret_cast<const char*>(page));
    if (!view) return false;
    const auto begin = reinterpret_cast<std::uintptr_t>(view->base);
    out = {{begin, round_down(begin + view->size + page_size() - 1, page_size())}, view->protection, view->copies};
    return true;
}

}  // namespace zr::platform

using namespace zr::platform;

BOOL UnmapViewOfFile(LPCVOID base) {
    const View* const view = take(base);
    if (!view) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return FALSE;
    }
    munmap(view->base, view->size);
    delete view;
    return TRUE;
}

BOOL FlushViewOfFile(LPCVOID base, SIZE_T size) {
    const char* const at = static_cast<const char*>(base);
    const std::size_t left = bytes_from(at);
    if (left == 0 || size > left) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return FALSE;
    }
    // The host flushes whole pages.
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(at);
    const std::uintptr_t begin = address & ~(page - 1);
    if (msync(reinterpret_cast<void*>(begin), (size != 0 ? size : left) + (address - begin), MS_SYNC) == 0) return TRUE;
    SetLastError(error_from_errno(errno));
    return FALSE;
}
