#pragma once

// All changes of one thread between two calls, as one (ZrRegistryBeginBatch). The thread itself reads through the
// connection that writes, with a tree of its own, and so sees what it has changed; everybody else reads what was
// committed.
//
// A failure of the store breaks the batch: nothing of it will be kept, and every further call in it tells that failure.
// Used by its thread alone. May throw std::bad_alloc where it is not noexcept.

#include <memory>
#include <vector>

#include "store.h"

namespace zr::platform::registry {

class Batch {
public:
    // The calling thread's; null when it has none open.
    static Batch* current() noexcept { return current_; }
    static DWORD begin() noexcept;
    // The outermost one commits, unless one of them said not to, and then flushes if that was asked for meanwhile.
    static DWORD end(bool keep) noexcept;

    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;
    // Takes back what was not kept.
    ~Batch();

    template <class Body>
    DWORD read(Body&& body) noexcept {
        if (const DWORD error = trouble(); error != ERROR_SUCCESS) return error;
        try {
            return body(tree_);
        } catch (const std::bad_alloc&) {
            tree_.forget();
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }

    // All of the body's changes or, when it returns an error, none; `single`: it calls the transaction once to change
    // something, which changes nothing when it fails. Throws what the body throws, but for std::bad_alloc.
    template <class Body>
    DWORD write(Body&& body, bool single) {
        Part part(*this, single);
        if (part.error == ERROR_SUCCESS) {
            part.error = ERROR_CANCELLED;
            try {
                part.error = body(transaction_);
            } catch (const std::bad_alloc&) {
                part.error = error_ = ERROR_NOT_ENOUGH_MEMORY;
            }
            part.end();
        }
        return part.error;
    }

    // The node, for a handle, of a key that the batch's tree knows.
    Ref<Node> handed_out(const Node& node);

    void flush_at_end() noexcept { flushes_ = true; }

private:
    // One call's changes. Takes them back when it is left without end().
    class Part {
    public:
        Part(Batch& batch, bool single) noexcept;
        ~Part() { end(); }
        Part(const Part&) = delete;
        Part& operator=(const Part&) = delete;
        void end() noexcept;

        DWORD error;

    private:
        Batch& batch_;
        const bool single_;
        bool open_ = false;
    };

    Batch(Store& store, std::unique_ptr<StoreWriting> writing);

    DWORD trouble() const noexcept;
    DWORD commit() noexcept;
    void settle(bool kept) noexcept;

    static constinit thread_local Batch* current_;

    Store& store_;
    const std::unique_ptr<StoreWriting> writing_;
    Tree tree_;
    Transaction transaction_;
    std::vector<Ref<Node>> lent_;  // handles name them, and nobody else has read their keys
    DWORD error_ = ERROR_SUCCESS;  // what broke it
    int depth_ = 1;
    bool in_part_ = false;
    bool flushes_ = false;
};

}  // namespace zr::platform::registry
