#include "batch.h"

#include <utility>

#include "kernel/thread.h"
#include "platform/registry.h"

namespace zr::platform::registry {

constinit thread_local Batch* Batch::current_ = nullptr;

namespace {

// A thread that ends in a batch gives back the right to write.
struct EndOfThread {
    ~EndOfThread() { delete Batch::current(); }
    void note() noexcept {}
};
thread_local EndOfThread end_of_thread;

}  // namespace

Batch::Batch(Store& store, std::unique_ptr<StoreWriting> writing)
    : store_(store),
      writing_(std::move(writing)),
      tree_(writing_->connection(), Tree::Kind::Own),
      transaction_(*writing_, &tree_) {}

Batch::~Batch() {
    current_ = nullptr;
    settle(false);
    writing_->roll_back();
}

DWORD Batch::begin() noexcept {
    if (current_ != nullptr) {
        if (current_->in_part_) return ERROR_BUSY;
        const DWORD error = current_->trouble();
        if (error == ERROR_SUCCESS) ++current_->depth_;
        return error;
    }
    Store* const store = Store::instance();
    if (store == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    try {
        auto writing = std::make_unique<StoreWriting>();
        if (const DWORD error = writing->begin(store->shared()); error != ERROR_SUCCESS) return registry_error(error);
        current_ = new Batch(*store, std::move(writing));
        end_of_thread.note();
        return ERROR_SUCCESS;
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

DWORD Batch::end(bool keep) noexcept {
    if (current_ == nullptr) return ERROR_INVALID_PARAMETER;
    if (current_->in_part_) return ERROR_BUSY;
    if (!keep && current_->error_ == ERROR_SUCCESS) current_->error_ = ERROR_CANCELLED;
    if (--current_->depth_ > 0) return ERROR_SUCCESS;
    const std::unique_ptr<Batch> batch(std::exchange(current_, nullptr));
    const DWORD error = batch->commit();
    return error == ERROR_CANCELLED && !keep ? ERROR_SUCCESS : error;
}

DWORD Batch::commit() noexcept {
    DWORD error = trouble();
    if (error != ERROR_SUCCESS) return error;
    try {
        error = registry_error(writing_->commit());
    } catch (const std::bad_alloc&) {
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    settle(error == ERROR_SUCCESS);
    return error == ERROR_SUCCESS && flushes_ ? store_.flush() : error;
}

// What became of the keys that handles name.
void Batch::settle(bool kept) noexcept {
    if (lent_.empty()) return;
    const auto reading = store_.shared().lock();
    for (const Ref<Node>& node : lent_) {
        if (node) store_.tree().settle(*node, kept);
    }
    lent_.clear();
}

DWORD Batch::trouble() const noexcept {
    if (store_.shared().is_orphan()) return ERROR_BUSY;
    if (error_ != ERROR_SUCCESS) return error_;
    // SQLite ends a transaction by itself when the disk fails, also while it reads.
    return writing_->connection().in_transaction() ? ERROR_SUCCESS : ERROR_REGISTRY_IO_FAILED;
}

Ref<Node> Batch::handed_out(const Node& node) {
    lent_.emplace_back();
    const auto reading = store_.shared().lock();
    bool made = false;
    Ref<Node> lent = store_.tree().lend(node, made);
    if (made) {
        lent_.back() = lent;
    } else {
        lent_.pop_back();
    }
    return lent;
}

Batch::Part::Part(Batch& batch, bool single) noexcept : error(batch.trouble()), batch_(batch), single_(single) {
    if (error == ERROR_SUCCESS && batch_.in_part_) {
        keep_failure("The registry: a change of this thread is being made.");
        error = ERROR_BUSY;
    } else if (error == ERROR_SUCCESS && !single_) {
        error = batch_.error_ = registry_error(batch_.writing_->begin_part());
    }
    open_ = error == ERROR_SUCCESS;
    if (open_) batch_.in_part_ = true;
}

void Batch::Part::end() noexcept {
    if (!std::exchange(open_, false)) return;
    batch_.in_part_ = false;
    if (batch_.error_ == ERROR_SUCCESS && batch_.transaction_.is_broken()) batch_.error_ = error;
    if (batch_.error_ != ERROR_SUCCESS || single_) return;
    const DWORD failure = registry_error(batch_.writing_->end_part(error == ERROR_SUCCESS));
    if (failure != ERROR_SUCCESS) batch_.error_ = error = failure;
    if (error == ERROR_SUCCESS) return;
    batch_.transaction_.forget();
    batch_.tree_.forget();
}

}  // namespace zr::platform::registry

using namespace zr::platform;
using namespace zr::platform::registry;

LONG ZrRegistryBeginBatch() {
    cancellation_point();
    return static_cast<LONG>(Batch::begin());
}

// Destructors call it, in which a thread cannot be ended.
LONG ZrRegistryEndBatch(BOOL keep) {
    return static_cast<LONG>(Batch::end(keep != FALSE));
}
