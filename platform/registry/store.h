#pragma once

// The registry's store as this process has it: what was read is kept in the tree, behind the store's reading lock.

#include <atomic>
#include <new>

#include "last_error.h"
#include "schema.h"
#include "store/shared_store.h"
#include "transaction.h"
#include "tree.h"

namespace zr::platform::registry {

class Store final : public StoreFamily {
public:
    // The process's one; null when there is no memory for it. Never destroyed: static objects' destructors may call.
    static Store* instance() noexcept {
        Store* const store = the_store_.load(std::memory_order_acquire);
        return store != nullptr ? store : make();
    }

    // Calls body(tree) with the tree as new as the store.
    template <class Body>
    DWORD read(Body&& body) noexcept {
        const auto reading = shared_.lock();
        try {
            const DWORD error = shared_.refresh();
            return error == ERROR_SUCCESS ? body(tree_) : registry_error(error);
        } catch (const std::bad_alloc&) {
            tree_.forget();
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }

    // Calls body(transaction) and commits, or takes all of it back when it returns an error. `own`: the one change that
    // is made; the tree then need not read what this process has just written. Throws what the body throws.
    template <class Body>
    DWORD write(Body&& body, const Tree::OwnChange* own = nullptr) {
        try {
            StoreWriting writing;
            if (const DWORD error = writing.begin(shared_); error != ERROR_SUCCESS) return registry_error(error);
            Transaction transaction(writing);
            if (own != nullptr && writing.knows([&] { return tree_.has(own->key); })) transaction.trust(own->key);
            if (const DWORD error = body(transaction); error != ERROR_SUCCESS) return error;
            const auto take_over = [&] { tree_.take_over(*own); };
            return registry_error(own != nullptr ? writing.commit(take_over) : writing.commit());
        } catch (const std::bad_alloc&) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }

    // Returns when all that was committed up to now is on the disk.
    DWORD flush() noexcept { return registry_error(shared_.flush()); }

    SharedStore& shared() { return shared_; }
    // With the reading lock held.
    Tree& tree() { return tree_; }

    void opened(bool another) override;
    DWORD follow(LONGLONG position) override { return tree_.follow(position); }
    void forget() noexcept override { tree_.forget(); }
    void failed(std::string_view sentence) noexcept override { keep_failure(sentence); }
    void was_set_aside(std::string_view sentence) noexcept override { announce_set_aside(sentence); }

private:
    Store() : shared_(kRegistryStore, *this), tree_(shared_.reader()) {}
    ~Store() = delete;

    static Store* make() noexcept;

    static std::atomic<Store*> the_store_;

    SharedStore shared_;
    Tree tree_;
};

}  // namespace zr::platform::registry
