#include "store.h"

#include <mutex>

namespace zr::platform::registry {

constinit std::atomic<Store*> Store::the_store_{nullptr};

Store* Store::make() noexcept {
    static constinit std::mutex making;
    const std::lock_guard lock(making);
    if (Store* const made = the_store_.load(std::memory_order_relaxed)) return made;
    try {
        Store* const store = new Store;
        the_store_.store(store, std::memory_order_release);
        return store;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void Store::opened(bool another) {
    if (another) tree_.start_anew();
}

}  // namespace zr::platform::registry
